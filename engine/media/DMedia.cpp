#include "media/DMedia.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fmt/format.h>

#include "media/DeviceAccess.h"

namespace ambrel {

namespace {

constexpr const char* kDriveGone = "The Drive or Volume being read is no longer available.";

// The "%@" copy of a dictionary value: a missing key reads "(null)".
std::string formatted(const PlistDict& dict, const char* key) {
  const PlistValue* v = dict.find(key);
  return v ? v->describe() : PlistValue().describe();
}

// Reads until count sectors are in or the device ends; -1 when any read fails.
int64_t preadSectors(int fd, SectorFaults* faults, uint64_t sector, int32_t count, void* buffer) {
  if (sector > static_cast<uint64_t>(INT64_MAX) / kSectorSize) {
    errno = EINVAL;
    return -1;
  }
  const uint64_t want = static_cast<uint64_t>(count) * kSectorSize;
  uint64_t done = 0;
  auto* out = static_cast<uint8_t*>(buffer);
  const uint64_t offset = sector * kSectorSize;
  while (done < want) {
    if (offset + done > static_cast<uint64_t>(INT64_MAX)) break;
    const size_t piece = static_cast<size_t>(want - done);
    const off_t at = static_cast<off_t>(offset + done);
    ssize_t got = faults ? faults->pread(fd, out + done, piece, at) : ::pread(fd, out + done, piece, at);
    if (got < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (got == 0) break;
    done += static_cast<uint64_t>(got);
  }
  return static_cast<int64_t>(done);
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
  int fd = ::open(cPath.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  fd_.store(fd);
  return true;
}

int64_t DMedia::readRaw(uint64_t sector, int32_t count, void* buffer) {
  if (!ensureOpen()) return -1;
  return preadSectors(fd_.load(), faults_.get(), sector, count, buffer);
}

bool DMedia::isListed(const PlistArray& dicts) const {
  for (const auto& d : dicts) {
    if (const PlistDict* dict = d.dict(); dict && dict->string("device path") == path) return true;
  }
  return false;
}

bool DMedia::readSector(uint64_t sector, int32_t count, void* buffer) {
  if (count < 0) return false;
  if (count == 0) return true;
  if (!ensureOpen()) {
    const int openError = errno;
    std::string message = fmt::format("A valid fileDesc could not be obtained for drive: {}", path);
    // A drive this user may not read: say how to get access, not just that it failed.
    if (const std::string hint = deviceAccessHint(path); !hint.empty() && (openError == EACCES || openError == EPERM))
      message += "\n\n" + hint;
    if (appController) appController->alert("! Could not open drive", message, {"OK"});
    return false;
  }
  if (readRaw(sector, count, buffer) >= 0) return true;
  if (!appController) return false;
  // Still listed: the drive is there and the caller handles the bad sector.
  if (isListed(appController->driveDictArray()) || isListed(appController->volumeDictArray())) return false;
  appController->alert("! Error", fmt::format("{} The Program will quit now.", kDriveGone), {"Quit"});
  appController->terminateApp();
  return false;
}

bool DMedia::reportGoneForPreviewOrSave(const char* title) {
  if (!appController) return false;
  if (isListed(appController->driveDictArray()) || isListed(appController->volumeDictArray())) return false;
  appController->alert(title, kDriveGone, {"OK"});
  appController->previewClose();
  return false;
}

bool DMedia::readPreviewSector(uint64_t sector, int32_t count, void* buffer) {
  if (count < 0) return false;
  if (count == 0) return true;
  if (readRaw(sector, count, buffer) >= 0) return true;
  return reportGoneForPreviewOrSave("! Can not show preview");
}

bool DMedia::readSaveSector(uint64_t sector, int32_t count, void* buffer) {
  if (count < 0) return false;
  if (count == 0) return true;
  if (readRaw(sector, count, buffer) >= 0) return true;
  return reportGoneForPreviewOrSave("! Can not save files");
}

PartitionTableKind DMedia::partitionTableKind() {
  uint8_t sectors[2][kSectorSize] = {};
  if (!readSector(0, 1, sectors[0]) || !readSector(1, 1, sectors[1])) return PartitionTableKind::None;
  return partitionTableKindOf(sectors[0], sectors[1]);
}

bool readAppSector(AppControllerInterface* appController, uint64_t sector, const std::string& path,
                   int32_t count, void* buffer) {
  if (count < 0) return false;
  if (count == 0) return true;
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  int64_t got = fd >= 0 ? preadSectors(fd, nullptr, sector, count, buffer) : -1;
  if (fd >= 0) ::close(fd);
  if (got >= 0) return true;
  if (!appController) return false;
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
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    error = openFailureText(path, errno);
    return {};
  }
  struct stat st {};
  uint64_t size = 0;
  bool ok = ::fstat(fd, &st) == 0;
  if (ok && S_ISBLK(st.st_mode)) {
    ok = ::ioctl(fd, BLKGETSIZE64, &size) == 0;
  } else if (ok && S_ISREG(st.st_mode)) {
    size = static_cast<uint64_t>(st.st_size);
  } else if (ok) {
    error = fmt::format("{} is neither a block device nor a disk image file", path);
    ::close(fd);
    return {};
  }
  if (!ok) error = fmt::format("cannot read the size of {}: {}", path, std::strerror(errno));
  ::close(fd);
  if (!ok) return {};
  return PlistDict{
      {"device path", path},
      {"device size", size},
      {"device model", S_ISBLK(st.st_mode) ? "Block Device" : "Disk Image"},
      {"device serial", ""},
      {"device revision", ""},
  };
}

}  // namespace ambrel
