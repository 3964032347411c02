#include "media/DMedia.h"
#include "media/TableKind.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>

#include "base/ReadOnlyFile.h"
#include "media/DeviceAccess.h"

namespace ambrel {

namespace {

constexpr const char* kDriveGone = "The Drive or Volume being read is no longer available.";

// The "%@" copy of a dictionary value: a missing key reads "(null)".
std::string formatted(const PlistDict& dict, const char* key) {
  const PlistValue* v = dict.find(key);
  return v ? v->describe() : PlistValue().describe();
}

// Reads until count sectors are in, the device ends or a read fails. What
// came in before a failure is kept and counted: the caller decides what to
// do with a partly read piece.
struct Preaded {
  uint64_t bytes = 0;
  int error = 0;  // errno of the read that failed; 0 when the device ended
};

Preaded preadSectors(int fd, SectorFaults* faults, uint64_t sector, int32_t count, void* buffer) {
  Preaded r;
  if (sector > static_cast<uint64_t>(INT64_MAX) / kSectorSize) {
    r.error = EINVAL;
    return r;
  }
  const uint64_t want = static_cast<uint64_t>(count) * kSectorSize;
  auto* out = static_cast<uint8_t*>(buffer);
  const uint64_t offset = sector * kSectorSize;
  while (r.bytes < want) {
    if (offset + r.bytes > static_cast<uint64_t>(INT64_MAX)) {
      r.error = EINVAL;
      break;
    }
    const size_t piece = static_cast<size_t>(want - r.bytes);
    const off_t at = static_cast<off_t>(offset + r.bytes);
    const ssize_t got = faults ? faults->pread(fd, out + r.bytes, piece, at) : ::pread(fd, out + r.bytes, piece, at);
    if (got < 0) {
      if (errno == EINTR) continue;
      r.error = errno;
      break;
    }
    if (got == 0) break;
    r.bytes += static_cast<uint64_t>(got);
  }
  return r;
}

}  // namespace

const char* partitionTableKindName(PartitionTableKind kind) {
  switch (kind) {
    case PartitionTableKind::GPT: return "GPT";
    case PartitionTableKind::MBR: return "MBR";
    case PartitionTableKind::ApplePartitionMap: return "Apple partition map";
    case PartitionTableKind::None: break;
  }
  return "none";
}

PartitionTableKind partitionTableKindOf(const uint8_t* sector0, const uint8_t* sector1) {
  const bool bootSignature = sector0[510] == 0x55 && sector0[511] == 0xAA;
  if (bootSignature && sector0[450] == 0xEE) return PartitionTableKind::GPT;
  if (bootSignature) return PartitionTableKind::MBR;
  PartitionMap pm;
  std::memcpy(&pm, sector1, sizeof pm);
  convertPM(&pm);
  if (pm.pmSig == kPartitionMapSignature) return PartitionTableKind::ApplePartitionMap;
  return PartitionTableKind::None;
}

PartitionTableKind partitionTableKindOf(bool sector0Read, const uint8_t* sector0, const uint8_t* sector1) {
  if (!sector0Read) {
    GUIDPartitionTableHeader hdr;
    std::memcpy(&hdr, sector1, sizeof hdr);
    convertGPTHeader(&hdr);
    if (hdr.signature == kGPTSignature) return PartitionTableKind::GPT;
  }
  return partitionTableKindOf(sector0, sector1);
}

DMedia::DMedia(const PlistDict& driveDict, AppControllerInterface* controller) {
  path = driveDict.string("device path");
  sizeInBytes = driveDict.u64("device size");
  sizeInSect = sizeInBytes >> 9;
  appController = controller;
  if (!driveDict.contains("WhetherUSB")) {
    model = formatted(driveDict, "device model");
    serial = formatted(driveDict, "device serial");
    revision = formatted(driveDict, "device revision");
  } else {
    model = formatted(driveDict, "Vendor Identification");
    serial = formatted(driveDict, "Product Identification");
    revision = formatted(driveDict, "Product Revision Level");
  }
  cPath = path;
  faults_ = SectorFaults::processDefault();
  ensureOpen();
}

DMedia::~DMedia() {
  int fd = fd_.exchange(-1);
  if (fd >= 0) ::close(fd);
}

bool DMedia::ensureOpen() {
  if (fd_.load() >= 0) return true;
  std::lock_guard lock(openMutex_);
  if (fd_.load() >= 0) return true;
  if (cPath.empty()) return false;
  // Never blocks: a named pipe or the like is refused, not waited on.
  const ReadOnlyFile f = openReadOnlyFile(cPath, true);
  if (f.fd < 0) return false;
  fd_.store(f.fd);
  return true;
}

DMedia::RawRead DMedia::readRaw(uint64_t sector, int32_t count, void* buffer) {
  if (!ensureOpen()) return {0, errno ? errno : ENOENT};
  const Preaded r = preadSectors(fd_.load(), faults_.get(), sector, count, buffer);
  return {r.bytes, r.error};
}

uint64_t DMedia::deviceSectors() {
  if (!ensureOpen()) return 0;
  struct stat st {};
  const int fd = fd_.load();
  if (::fstat(fd, &st) != 0) return 0;
  if (S_ISREG(st.st_mode)) return static_cast<uint64_t>(st.st_size) / kSectorSize;
  uint64_t bytes = 0;
  if (S_ISBLK(st.st_mode) && ::ioctl(fd, BLKGETSIZE64, &bytes) == 0) return bytes / kSectorSize;
  return 0;
}

uint64_t DMedia::volumeBlocksOnDrive() {
  if (blockSize <= 0) return 0;
  uint64_t driveEnd = deviceSectors();
  if (driveEnd == 0) driveEnd = sizeInSect;  // not known: what the drive dictionary said
  const uint64_t onDrive = driveEnd > HPlusVolStart ? (driveEnd - HPlusVolStart) / static_cast<uint32_t>(blockSize) : 0;
  return std::min<uint64_t>(vib.totalBlocks, onDrive);
}

bool DMedia::isListed(const PlistArray& dicts) const {
  for (const auto& d : dicts) {
    if (const PlistDict* dict = d.dict(); dict && dict->string("device path") == path) return true;
  }
  return false;
}

bool DMedia::deviceNodeGone() const {
  const int fd = fd_.load();
  struct stat opened {}, named {};
  if (fd < 0 || ::fstat(fd, &opened) != 0) return false;
  if (::stat(cPath.c_str(), &named) != 0) return errno == ENOENT || errno == ENOTDIR;
  if (S_ISBLK(opened.st_mode)) return !S_ISBLK(named.st_mode) || named.st_rdev != opened.st_rdev;
  return named.st_dev != opened.st_dev || named.st_ino != opened.st_ino;
}

bool DMedia::driveHasGone(int error) const {
  // These say the device itself is gone, whatever any list still holds.
  if (error == ENXIO || error == ENODEV || deviceNodeGone()) return true;
  if (!appController) return false;
  // Still listed: the drive is there and the caller handles the bad sector.
  return !isListed(appController->driveDictArray()) && !isListed(appController->volumeDictArray());
}

void DMedia::reportGone(Reader reader) {
  if (!gone_.exchange(true)) {
    abortVolumeScan.store(true);
    onDriveGone();
  }
  // One alert per reader: a save or a scan after the loss must not raise one
  // for every block it still tries.
  if (!appController || goneAlerted_[static_cast<int>(reader)].exchange(true)) return;
  if (reader == Reader::Scan) {
    appController->alert("! Error", fmt::format("{} The Program will quit now.", kDriveGone), {"Quit"});
    appController->terminateApp();
    return;
  }
  appController->alert(reader == Reader::Preview ? "! Can not show preview" : "! Can not save files", kDriveGone,
                       {"OK"});
  appController->previewClose();
}

bool DMedia::read(Reader reader, uint64_t sector, int32_t count, void* buffer, uint64_t* bytesRead) {
  if (bytesRead) *bytesRead = 0;
  if (count < 0) return false;
  if (count == 0) return true;
  const uint64_t want = static_cast<uint64_t>(count) * kSectorSize;
  if (gone_.load()) {
    // Nothing is tried any more; a reader that has not said so yet does.
    std::memset(buffer, 0, want);
    reportGone(reader);
    return false;
  }
  if (reader == Reader::Scan && !ensureOpen()) {
    const int openError = errno;
    std::memset(buffer, 0, want);
    std::string message = fmt::format("A valid fileDesc could not be obtained for drive: {}", path);
    // A drive this user may not read: say how to get access, not just that it failed.
    if (const std::string hint = deviceAccessHint(path); !hint.empty() && (openError == EACCES || openError == EPERM))
      message += "\n\n" + hint;
    if (appController) appController->alert("! Could not open drive", message, {"OK"});
    return false;
  }
  const RawRead r = readRaw(sector, count, buffer);
  if (bytesRead) *bytesRead = r.bytes;
  if (r.bytes == want) return true;
  // A short read is a failed read, and nothing of an earlier read may stay
  // behind what this one delivered.
  std::memset(static_cast<uint8_t*>(buffer) + r.bytes, 0, want - r.bytes);
  // The device ending early is no sign of its loss; only a failing read asks.
  if (r.error != 0 && driveHasGone(r.error)) reportGone(reader);
  return false;
}

bool DMedia::readSector(uint64_t sector, int32_t count, void* buffer) {
  return read(Reader::Scan, sector, count, buffer);
}

bool DMedia::readPreviewSector(uint64_t sector, int32_t count, void* buffer) {
  return read(Reader::Preview, sector, count, buffer);
}

bool DMedia::readSaveSector(uint64_t sector, int32_t count, void* buffer) {
  return read(Reader::Save, sector, count, buffer);
}

int64_t DMedia::copySaveSectors(uint64_t sector, uint64_t bytes, int outFd) {
  if (faults_ || gone_.load() || !ensureOpen()) return -1;
  off_t offset = static_cast<off_t>(sector * kSectorSize);
  uint64_t done = 0;
  while (done < bytes) {
    const ssize_t n = ::sendfile(outFd, fd_.load(), &offset, static_cast<size_t>(std::min<uint64_t>(bytes - done, 1u << 30)));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && done == 0 && (errno == EINVAL || errno == ENOSYS)) return -1;
    if (n <= 0) break;
    done += static_cast<uint64_t>(n);
  }
  return static_cast<int64_t>(done);
}

uint64_t DMedia::readSectorsSalvaging(uint64_t sector, uint64_t count, void* buffer) {
  constexpr uint64_t kChunk = 63;
  auto* bytes = static_cast<uint8_t*>(buffer);
  uint64_t got = 0;
  // The whole piece first: the only read when nothing is wrong.
  if (count <= INT32_MAX && read(Reader::Scan, sector, static_cast<int32_t>(count), buffer, &got)) return 0;
  uint64_t bad = 0;
  uint64_t pos = got / kSectorSize;  // whole sectors already in
  while (pos < count) {
    if (gone_.load()) {
      // Nothing more can be read; the loss itself has been reported.
      std::memset(bytes + pos * kSectorSize, 0, (count - pos) * kSectorSize);
      return bad + (count - pos);
    }
    const uint64_t n = std::min(kChunk - pos % kChunk, count - pos);
    uint8_t* at = bytes + pos * kSectorSize;
    if (read(Reader::Scan, sector + pos, static_cast<int32_t>(n), at, &got)) {
      pos += n;
      continue;
    }
    // The chunk failed: its sectors one by one, from the first not yet in.
    for (uint64_t i = got / kSectorSize; i < n; ++i) {
      if (read(Reader::Scan, sector + pos + i, 1, at + i * kSectorSize)) continue;
      ++bad;
      if (!gone_.load()) readErrors.noteSector(sector + pos + i);
    }
    pos += n;
  }
  return bad;
}

bool DMedia::readSectorsQuietly(uint64_t sector, int32_t count, void* buffer) {
  if (count <= 0 || gone_.load()) return false;
  return readRaw(sector, count, buffer).bytes == static_cast<uint64_t>(count) * kSectorSize;
}

bool DMedia::readNode(uint64_t sector, int32_t count, void* buffer) {
  if (readSector(sector, count, buffer)) return true;
  if (!gone_.load()) readErrors.noteNode(sector);
  return false;
}

bool DMedia::readOneSector(uint64_t sector, void* buffer) {
  if (readSector(sector, 1, buffer)) return true;
  if (!gone_.load()) readErrors.noteSector(sector);
  return false;
}

PartitionTableKind DMedia::partitionTableKind() {
  uint8_t sectors[2][kSectorSize] = {};
  const bool first = readOneSector(0, sectors[0]);
  readOneSector(1, sectors[1]);  // zeros when unreadable: sector 0 alone decides
  return partitionTableKindOf(first, sectors[0], sectors[1]);
}

bool readAppSector(AppControllerInterface* appController, uint64_t sector, const std::string& path,
                   int32_t count, void* buffer) {
  if (count < 0) return false;
  if (count == 0) return true;
  const ReadOnlyFile f = openReadOnlyFile(path, true);
  const Preaded r = f.fd >= 0 ? preadSectors(f.fd, nullptr, sector, count, buffer) : Preaded{0, f.error ? f.error : ENODEV};
  if (f.fd >= 0) ::close(f.fd);
  const uint64_t want = static_cast<uint64_t>(count) * kSectorSize;
  if (r.bytes == want) return true;
  std::memset(static_cast<uint8_t*>(buffer) + r.bytes, 0, want - r.bytes);
  if (!appController || r.error == 0) return false;
  for (const auto& d : appController->volumeDictArray()) {
    if (const PlistDict* dict = d.dict(); dict && dict->string("device path") == path) return false;
  }
  appController->alert("! Error",
                       fmt::format("The Volume (\"{}\") being read is no longer available. The Program will quit now.", path),
                       {"Quit"});
  appController->terminateApp();
  return false;
}

PlistDict driveDictionaryForPath(const std::string& path, std::string& error) {
  const ReadOnlyFile f = openReadOnlyFile(path, true);
  if (f.wrongKind) {
    error = fmt::format("{} is {}, neither a block device nor a disk image file", path, fileKindName(f.st.st_mode));
    return {};
  }
  if (f.fd < 0) {
    error = openFailureText(path, f.error);
    return {};
  }
  const bool block = S_ISBLK(f.st.st_mode);
  uint64_t size = static_cast<uint64_t>(f.st.st_size);
  const bool ok = !block || ::ioctl(f.fd, BLKGETSIZE64, &size) == 0;
  if (!ok) error = fmt::format("cannot read the size of {}: {}", path, std::strerror(errno));
  ::close(f.fd);
  if (!ok) return {};
  return PlistDict{
      {"device path", path},
      {"device size", size},
      {"device model", block ? "Block Device" : "Disk Image"},
      {"device serial", ""},
      {"device revision", ""},
  };
}

}  // namespace ambrel
