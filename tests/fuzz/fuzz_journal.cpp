// A volume image through the deleted-files search of its journal: no input
// may crash, hang or read out of bounds. The input is a whole small volume
// (a built journaled volume as seed), laid into memory as a volume device.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "hfs/JournalInfo.h"
#include "hfs/Volume.h"
#include "support/QuietController.h"

using namespace ambrel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The header readers alone, on the first bytes.
  parseJournalHeader(data, size);
  if (size >= 52) parseJournalInfoBlock(data, size % 2 == 0);
  if (size < 2048 || size > (4 << 20)) return 0;
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
  Volume volume(dict, &controller);
  volume.scanForDeletedFiles(&controller, true, false, {});
  ::close(fd);
  return 0;
}
