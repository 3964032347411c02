#pragma once
// Running the deleted-files search on built volumes, and patching their bytes
// to make bad journals.
#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "ImageBuilder.h"
#include "base/Endian.h"
#include "media/SectorFaults.h"
#include "scan/ContentCheck.h"
#include "scan/DamageTally.h"
#include "scan/ScanHelpers.h"

namespace ambrel::test {

namespace mk = ambrel::mkimage;

inline mk::EntrySpec fileEntry(const std::string& name, uint64_t size, bool deleted = false) {
  mk::EntrySpec e;
  e.name = name;
  e.dataSize = size;
  e.deleted = deleted;
  return e;
}

inline mk::EntrySpec folderEntry(const std::string& name, std::vector<mk::EntrySpec> children, bool deleted = false) {
  mk::EntrySpec e;
  e.name = name;
  e.folder = true;
  e.children = std::move(children);
  e.deleted = deleted;
  return e;
}

// The deleted-files search (no signature search) of the volume at `start`,
// its reads through `faults` when given.
inline ScanResult findDeleted(const std::string& image, uint64_t start, uint64_t sectors, int stopAfterReports = 0,
                              std::shared_ptr<SectorFaults> faults = nullptr) {
  ScanResult r;
  r.controller->drives.push_back(PlistDict{{"device path", image}});
  r.volume = std::make_unique<Volume>(volumeDict(image, start, sectors), r.controller.get());
  r.controller->volume = r.volume.get();
  r.controller->stopAfterReports = stopAfterReports;
  if (faults) r.volume->setSectorFaults(std::move(faults));
  r.volume->openDevice();
  r.volume->scanForDeletedFiles(r.controller.get(), true, false, {});
  return r;
}

inline void patchBytes(const std::string& image, uint64_t at, const void* bytes, size_t n) {
  const int fd = ::open(image.c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::pwrite(fd, bytes, n, static_cast<off_t>(at)), static_cast<ssize_t>(n));
  ::close(fd);
}

inline std::vector<uint8_t> imageBytes(const std::string& image, uint64_t at, size_t n) {
  std::vector<uint8_t> out(n, 0);
  const int fd = ::open(image.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return out;
  const ssize_t got = ::pread(fd, out.data(), n, static_cast<off_t>(at));
  (void)got;
  ::close(fd);
  return out;
}

// Byte offset of the journal info block in the image.
inline uint64_t journalInfoByte(const mk::VolumeLayout& v) {
  return v.HPlusVolStart * 512 + uint64_t{v.journalInfoBlock} * v.blockSize;
}

inline uint64_t countEntries(const HDIR& root) {
  uint64_t n = 0;
  for (const auto& c : root.children()) n += 1 + countEntries(*c);
  return n;
}

}  // namespace ambrel::test
