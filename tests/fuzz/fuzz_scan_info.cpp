// Scan info files of arbitrary bytes: the header check and the whole reader,
// through an in-memory file so the reader's own file handling is exercised.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "scaninfo/ScanInfoFile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static int fd = ::memfd_create("fuzz.asi", MFD_CLOEXEC);
  if (fd < 0) return 0;
  if (::ftruncate(fd, 0) != 0) return 0;
  if (size > 0 && ::pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) return 0;
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  (void)ambrel::checkScanInfoHeader(path);
  auto result = ambrel::readScanInfo(path, nullptr);
  if (result.contents && result.contents->root) (void)result.contents->root->childrenSelected();
  return 0;
}
