// The journal info block and header, read in whichever byte order they were
// written, and the journal's place checked against the volume.
#include "hfs/JournalInfo.h"

#include <algorithm>

#include "base/Endian.h"
#include "hfs/Volume.h"

namespace ambrel {

JournalInfoBlock parseJournalInfoBlock(const uint8_t* bytes, bool littleEndian) {
  JournalInfoBlock info;
  info.flags = littleEndian ? loadLE32(bytes) : loadBE32(bytes);
  info.offset = littleEndian ? loadLE64(bytes + 36) : loadBE64(bytes + 36);
  info.size = littleEndian ? loadLE64(bytes + 44) : loadBE64(bytes + 44);
  return info;
}

JournalHeader parseJournalHeader(const uint8_t* bytes, size_t n) {
  JournalHeader h;
  if (n < 44) return h;
  const bool big = loadBE32(bytes) == kJournalMagic && loadBE32(bytes + 4) == kJournalEndian;
  const bool little = loadLE32(bytes) == kJournalMagic && loadLE32(bytes + 4) == kJournalEndian;
  if (!big && !little) return h;
  h.found = true;
  h.littleEndian = little;
  auto u32 = [&](size_t at) { return little ? loadLE32(bytes + at) : loadBE32(bytes + at); };
  auto u64 = [&](size_t at) { return little ? loadLE64(bytes + at) : loadBE64(bytes + at); };
  h.start = u64(8);
  h.end = u64(16);
  h.size = u64(24);
  h.blhdrSize = u32(32);
  h.jhdrSize = u32(40);
  return h;
}

JournalPlace journalPlaceInVolume(const JournalInfoBlock& info, uint64_t volumeBytes) {
  JournalPlace p;
  // Only a journal said to be on another device is not searched here: a
  // damaged flags word does not hide one that is in the volume.
  if (info.flags & kJournalOnOtherDeviceMask) return p;
  if (info.offset >= volumeBytes || info.size == 0) return p;
  p.start = info.offset;
  p.size = std::min(info.size, volumeBytes - info.offset);
  return p;
}

void Volume::getJournalSizeAndStart() {
  journalStart = 0;
  journalSize = 0;
  journalHeaderLittleEndian = false;
  journalHeaderSize = 0;
  if (blockSize <= 0 || vib.journalInfoBlock == 0) return;
  const uint64_t bs = static_cast<uint64_t>(blockSize);
  // The volume's own extent: its header may claim more blocks than the
  // device holds.
  uint64_t volumeBytes = uint64_t{vib.totalBlocks} * bs * kSectorSize;
  if (sizeInSect > 0) {
    const uint64_t fromStart = HPlusVolStart >= startSector ? HPlusVolStart - startSector : 0;
    const uint64_t sectorsLeft = sizeInSect > fromStart ? sizeInSect - fromStart : 0;
    volumeBytes = std::min(volumeBytes, sectorsLeft * kSectorSize);
  }
  const uint64_t infoByte = uint64_t{vib.journalInfoBlock} * bs * kSectorSize;
  if (infoByte + kSectorSize > volumeBytes) return;
  uint8_t buf[kSectorSize] = {};
  if (!readOneSector(HPlusVolStart + infoByte / kSectorSize, buf)) return;

  // The header at a candidate place, read in either byte order.
  auto headerAt = [&](const JournalPlace& p) {
    uint8_t head[kSectorSize] = {};
    if (p.size == 0 || p.start % kSectorSize != 0) return JournalHeader{};
    if (!readOneSector(HPlusVolStart + p.start / kSectorSize, head)) return JournalHeader{};
    return parseJournalHeader(head, sizeof head);
  };
  JournalPlace place = journalPlaceInVolume(parseJournalInfoBlock(buf), volumeBytes);
  JournalHeader header = headerAt(place);
  if (!header.found) {
    // An info block written in the wrong order still leads to the journal
    // when its header is found there.
    const JournalPlace swapped = journalPlaceInVolume(parseJournalInfoBlock(buf, true), volumeBytes);
    const JournalHeader other = headerAt(swapped);
    if (other.found) {
      place = swapped;
      header = other;
    }
  }
  journalStart = place.start;
  journalSize = place.size;
  journalHeaderLittleEndian = header.found && header.littleEndian;
  journalHeaderFound = header.found;
  // The circular buffer starts after the header; copies across its end are
  // only put together when the header agrees on where that end is.
  if (header.found && header.size == journalSize && header.jhdrSize > 0 && header.jhdrSize % kSectorSize == 0 &&
      header.jhdrSize < journalSize)
    journalHeaderSize = header.jhdrSize;
}

}  // namespace ambrel
