#pragma once
// Where a volume's journal lies and how its header reads. The journal info
// block is big-endian like the rest of the volume; the journal header and its
// block lists are in the byte order of the machine that wrote them (little on
// Intel Macs), told apart by the magic number. Pure functions over bytes.
#include <cstddef>
#include <cstdint>

namespace ambrel {

inline constexpr uint32_t kJournalMagic = 0x4a4e4c78;   // "JNLx"
inline constexpr uint32_t kJournalEndian = 0x12345678;
inline constexpr uint32_t kJournalInFSMask = 0x1;
inline constexpr uint32_t kJournalOnOtherDeviceMask = 0x2;

struct JournalInfoBlock {
  uint32_t flags = 0;
  uint64_t offset = 0;  // bytes from the volume start
  uint64_t size = 0;
};

// The info block as stored (big-endian) or, for a writer that got it wrong,
// byte-swapped; `bytes` holds at least 52 bytes.
JournalInfoBlock parseJournalInfoBlock(const uint8_t* bytes, bool littleEndian = false);

struct JournalHeader {
  bool found = false;         // the magic, in either byte order
  bool littleEndian = false;
  uint64_t start = 0, end = 0, size = 0;
  uint32_t blhdrSize = 0, jhdrSize = 0;
};

// The journal header at the journal's first byte; `bytes` holds n bytes.
JournalHeader parseJournalHeader(const uint8_t* bytes, size_t n);

// Byte offset and length of the journal inside a volume of volumeBytes, from
// its info block: nothing (size 0) when the journal is on another device or
// starts past the volume; a journal reaching past the volume is cut there.
struct JournalPlace {
  uint64_t start = 0, size = 0;
};
JournalPlace journalPlaceInVolume(const JournalInfoBlock& info, uint64_t volumeBytes);

}  // namespace ambrel
