#pragma once
// A drive image written to a scratch file and opened as a DMedia whose
// controller lists it (so reads past the end stay silent).
#include <memory>
#include <string>

#include "TinyVolume.h"
#include "media/DMedia.h"
#include "support/RecordingController.h"
#include "support/TempDir.h"

namespace ambrel::test {

struct OpenedDrive {
  TempDir dir;
  std::string path;
  RecordingController controller;
  std::unique_ptr<DMedia> media;

  explicit OpenedDrive(const std::filesystem::path& image) : path(image.string()) { open(); }
  explicit OpenedDrive(const Drive& drive) {
    path = (dir / "drive.img").string();
    writeFile(path, drive.bytes);
    open();
  }

  PlistArray partitions() {
    PlistArray list;
    media->initialize(list);
    return list;
  }

 private:
  void open() {
    std::string error;
    PlistDict dict = driveDictionaryForPath(path, error);
    controller.drives = PlistArray{dict};
    media = std::make_unique<DMedia>(dict, &controller);
  }
};

}  // namespace ambrel::test
