// A whole volume image through the standard and the advanced tree scan: no
// input may crash, hang or read out of bounds.
//
// Inputs are capped at 32 KiB: every damage that made a scan run away (a
// looping or endless chain, a size or count far past the drive, a deep
// folder chain) fits in a volume of 512-byte blocks and nodes that small,
// and a small input keeps the harness at hundreds of runs a second, so that
// such classes turn up within minutes. The seeds are made by ambrel-mkimage
// from the descriptions in tests/fuzz/seed_descriptions/catalog_scan.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "hfs/Volume.h"
#include "support/QuietController.h"

using namespace ambrel;

constexpr size_t kMaxInputBytes = 32 * 1024;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1024 || size > kMaxInputBytes) return 0;
  const int fd = ::memfd_create("volume", MFD_CLOEXEC);
  if (fd < 0) return 0;
  if (::write(fd, data, size) != static_cast<ssize_t>(size)) {
    ::close(fd);
    return 0;
  }
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  const PlistDict dict{{"Volume Start", uint64_t{0}}, {"Volume Size In Sectors", uint64_t{size / 512}},
                       {"Volume Name", "Fuzz"},       {"Volume Scan Type", 0},
                       {"Path", path},                {"Model", ""},
                       {"Serial", ""},                {"Revision", ""}};
  test::QuietController controller(PlistArray{PlistDict{{"device path", path}}});
  for (const char* mode : {"Normal Scan", "Advanced Scan"}) {
    Volume volume(dict, &controller);
    volume.startMakingTree(&controller, mode);
  }
  ::close(fd);
  return 0;
}
