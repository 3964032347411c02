// Fuzz harness: the input is a whole drive. Every partition-table reader with
// its naming pass, and both volume searches, run over it.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "support/QuietController.h"
#include "media/DMedia.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  int fd = memfd_create("drive", MFD_CLOEXEC);
  if (fd < 0) return 0;
  size_t done = 0;
  while (done < size) {
    ssize_t n = ::write(fd, data + done, size - done);
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  std::string error;
  ambrel::PlistDict dict = ambrel::driveDictionaryForPath(path, error);
  if (!dict.empty()) {
    ambrel::test::QuietController controller{ambrel::PlistArray{dict}};
    {
      ambrel::DMedia media(dict, &controller);
      ambrel::PlistArray list;
      media.initialize(list);
    }
    for (bool quick : {true, false}) {
      ambrel::DMedia media(dict, &controller);
      ambrel::PlistArray volumes, rows;
      ambrel::DMedia::VolumeScanRequest request{&controller, &volumes, &rows};
      if (quick) media.initializeForVolumeQuickScan(request);
      else media.initializeForVolumeThoroughScan(request);
    }
  }
  ::close(fd);
  return 0;
}
