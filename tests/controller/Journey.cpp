#include "controller/Journey.h"

#include <zlib.h>

#include "base/Endian.h"
#include "media/DMedia.h"
#include "media/DriveFinder.h"

namespace ambrel::test {

namespace {

class CountedHold : public SleepHold {
 public:
  explicit CountedHold(std::atomic<int>& held) : held_(held) { ++held_; }
  ~CountedHold() override { --held_; }
  bool active() const override { return true; }

 private:
  std::atomic<int>& held_;
};

void appendChunk(std::vector<uint8_t>& png, const char* type, const std::vector<uint8_t>& data) {
  uint8_t len[4];
  storeBE32(len, static_cast<uint32_t>(data.size()));
  png.insert(png.end(), len, len + 4);
  const size_t typeAt = png.size();
  png.insert(png.end(), type, type + 4);
  png.insert(png.end(), data.begin(), data.end());
  const uLong crc = crc32(0, png.data() + typeAt, static_cast<uInt>(png.size() - typeAt));
  uint8_t c[4];
  storeBE32(c, static_cast<uint32_t>(crc));
  png.insert(png.end(), c, c + 4);
}

}  // namespace

std::unique_ptr<SleepHold> CountingSleep::inhibit(const std::string&) {
  ++granted;
  return std::make_unique<CountedHold>(held);
}

std::vector<uint8_t> makePng(uint32_t width, uint32_t height, uint8_t shade) {
  std::vector<uint8_t> png{0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  std::vector<uint8_t> ihdr(13, 0);
  storeBE32(ihdr.data(), width);
  storeBE32(ihdr.data() + 4, height);
  ihdr[8] = 8;  // bit depth
  ihdr[9] = 2;  // RGB
  appendChunk(png, "IHDR", ihdr);
  std::vector<uint8_t> raw;
  for (uint32_t y = 0; y < height; ++y) {
    raw.push_back(0);  // no filter
    for (uint32_t x = 0; x < width; ++x) {
      raw.push_back(static_cast<uint8_t>(shade + x));
      raw.push_back(static_cast<uint8_t>(y * 7));
      raw.push_back(static_cast<uint8_t>(x ^ y));
    }
  }
  uLongf size = compressBound(static_cast<uLong>(raw.size()));
  std::vector<uint8_t> idat(size);
  compress(idat.data(), &size, raw.data(), static_cast<uLong>(raw.size()));
  idat.resize(size);
  appendChunk(png, "IDAT", idat);
  appendChunk(png, "IEND", {});
  return png;
}

PlistDict driveDictFor(const std::filesystem::path& image) {
  std::string error;
  PlistDict d = driveDictionaryWithIdentity(image.string(), error);
  EXPECT_FALSE(d.empty()) << error;
  d.set("WhetherDiskDict", true);
  return d;
}

PlistDict volumeDictFor(const std::filesystem::path& image, const std::string& name, bool journaled) {
  return PlistDict{{"device path", image.string()},
                   {"device size", static_cast<uint64_t>(std::filesystem::file_size(image))},
                   {"WhetherVolume", true},
                   {"Content", "Apple_HFS"},
                   {"Volume Name", name},
                   {"Journaled", journaled ? "Yes" : "No"}};
}

Journey::Journey() {
  // The built database, copied where this test may rewrite it.
  std::filesystem::create_directories(dir / "share");
  for (const char* name : {"Signature.dat", "Signature_backup.dat"})
    std::filesystem::copy_file(std::string(AMBREL_BINARY_DIR) + "/resources/" + name, dir / "share" / name);
  sigFiles.resourceDir = (dir / "share").string();
  sigFiles.userCopy = (dir / "home" / "Signature.dat").string();
}

Journey::~Journey() {
  app.reset();
  EXPECT_EQ(sleep.held.load(), 0) << "a sleep hold outlived its scan";
  EXPECT_EQ(ui.offMainCalls.load(), 0) << "the front end was called off the main thread";
}

void Journey::start(PlistArray drives, PlistArray volumes) {
  ControllerOptions options;
  options.watchDrives = false;
  options.signatureFiles = sigFiles;
  options.listDrives = [drives, volumes] {
    DriveLists lists;
    lists.driveDictArray = drives;
    lists.volumeDictArray = volumes;
    return lists;
  };
  options.searchDeletedFiles = searchDeletedFiles;
  options.watchInterval = std::chrono::milliseconds(10);
  options.frontDelay = std::chrono::milliseconds(20);
  app = std::make_unique<AppController>(ui, loop, sleep, std::move(options));
  app->start();
}

bool Journey::runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  return loop.runUntil(done, timeout);
}

bool Journey::settle() {
  return runUntil([this] { return app->workersRunning() == 0 && loop.pending() == 0; });
}

void Journey::scanFirstPartition(bool advanced) {
  app->driveTableSelectionDidChange(0);
  app->firstPageNextClicked();
  ASSERT_EQ(page(), Page::PTMode);
  app->ptModePTListClicked();
  ASSERT_EQ(page(), Page::PTList);
  ASSERT_GE(app->tableRowCount(Table::Partitions), 1);
  app->partitionTableSelectionDidChange(0);
  app->ptListNextClicked(false);
  ASSERT_EQ(page(), Page::TreeScanMode);
  if (advanced) app->treeScanModeAdvScanClicked();
  else app->treeScanModeStandardScanClicked();
  ASSERT_EQ(page(), Page::TreeProg);
  ASSERT_TRUE(runUntil([this] { return page() == Page::Tree; }));
}

HDIR* Journey::entry(const std::string& path) const {
  HDIR* at = app->outlineChild(nullptr, 0);
  size_t from = 0;
  while (at && from < path.size()) {
    const size_t slash = path.find('/', from);
    const std::string name = path.substr(from, slash == std::string::npos ? std::string::npos : slash - from);
    HDIR* next = nullptr;
    for (int i = 0; i < app->outlineChildCount(at); ++i)
      if (app->outlineChild(at, i)->fileName() == name) next = app->outlineChild(at, i);
    at = next;
    from = slash == std::string::npos ? path.size() : slash + 1;
  }
  return at;
}

void Journey::saveTo(const std::filesystem::path& destination) {
  std::filesystem::create_directories(destination);
  ui.folderPanels.push_back(destination.string());
  const size_t alertsBefore = ui.alerts.size();
  app->saveData();
  ASSERT_FALSE(app->scanInfoOrSavingNotProcessing()) << "the save did not start";
  ASSERT_TRUE(runUntil([this] { return app->scanInfoOrSavingNotProcessing(); }));
  ASSERT_GT(ui.alerts.size(), alertsBefore);
}

}  // namespace ambrel::test
