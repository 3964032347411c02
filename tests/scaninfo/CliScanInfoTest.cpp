#include <gtest/gtest.h>

#include <unistd.h>

#include "base/Endian.h"
#include "scaninfo/ScanInfoFile.h"
#include "support/CliRun.h"

#if defined(__SANITIZE_ADDRESS__)
#define AMBREL_HAVE_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define AMBREL_HAVE_ASAN 1
#endif
#endif

namespace ambrel {
namespace {

using test::TempDir;

void writeSample(const std::filesystem::path& file) {
  auto root = std::make_unique<HDIR>();
  root->setFileName("Macintosh HD");
  root->fileType = kHDIRFolder;
  auto folder = std::make_unique<HDIR>();
  folder->setFileName("Photos");
  folder->fileType = kHDIRFolder;
  auto file1 = std::make_unique<HDIR>();
  file1->setFileName("IMG_0001.JPG");
  file1->fileType = kHDIRFile;
  folder->addChild(std::move(file1));
  root->addChild(std::move(folder));
  ScanInfo info;
  info.volume.volumeScanType = 1;
  info.volume.startSector = 409640;
  info.volume.volumeName = "Macintosh HD";
  info.volume.rootName = "Macintosh HD";
  info.volume.scanMode = "Normal Scan";
  info.volume.path = "/dev/sdb";
  info.volume.model = "Disk Image";
  info.volume.sizeInSect = 2000000;
  info.volume.HPlusVolStart = 409640;
  info.volume.blockSize = 8;
  info.partitionList = PlistArray{PlistValue(PlistDict{{"Volume Start", int64_t{409640}},
                                                       {"Volume Validity", "Valid"},
                                                       {"WhetherAlternateSector", int64_t{0}}})};
  info.first5Sectors.assign(2560, 0);
  ASSERT_FALSE(writeScanInfo(file.string(), info, *root, nullptr));
}

TEST(CliScanInfo, PrintsHeaderVolumeListAndTreeSize) {
  TempDir dir;
  auto file = dir / "s.asi";
  writeSample(file);
  std::string out;
  ASSERT_EQ(test::runCommand(test::cliPath() + " scaninfo " + file.string(), &out), 0);
  EXPECT_EQ(out, "File:     " + file.string() + "\n" +
                     "State:    Complete\n"
                     "Version:  Tarnwell Ambrel Scan Info Version 1.0.2\n"
                     "Volume:\n"
                     "  volumeScanType    1\n"
                     "  startSector       409640\n"
                     "  volumeName        Macintosh HD\n"
                     "  rootName          Macintosh HD\n"
                     "  scanMode          Normal Scan\n"
                     "  lostFoldersPath   \n"
                     "  lostFilesPath     \n"
                     "  lostFileName      \n"
                     "  deletedFilesPath  \n"
                     "  deletedFileName   \n"
                     "  path              /dev/sdb\n"
                     "  model             Disk Image\n"
                     "  serial            \n"
                     "  revision          \n"
                     "  sizeInSect        2000000\n"
                     "  HPlusVolStart     409640\n"
                     "  blockSize         8\n"
                     "Volume-search list: 1 entry\n"
                     "  1. Volume Start=409640 Volume Validity=Valid WhetherAlternateSector=0\n"
                     "Drive sectors: 2560 bytes\n"
                     "Tree:     3 entries (2 folders, 1 files), root \"Macintosh HD\"\n");

  ASSERT_EQ(test::runCommand(test::cliPath() + " scaninfo --json " + file.string(), &(out = "")), 0);
  EXPECT_NE(out.find(R"("volumeSearchList":[{"Volume Start":409640,"Volume Validity":"Valid","WhetherAlternateSector":0}])"), std::string::npos) << out;
  EXPECT_NE(out.find(R"("entries":3,"folders":2,"files":1,"root":"Macintosh HD")"), std::string::npos) << out;
}

TEST(CliScanInfo, RefusesIncompleteFiles) {
  TempDir dir;
  auto file = dir / "s.asi";
  writeSample(file);
  auto bytes = test::readFile(file);
  bytes.resize(1500);
  test::writeFile(file, bytes);
  std::string out;
  EXPECT_EQ(test::runCommand(test::cliPath() + " scaninfo " + file.string() + " 2>&1", &out), 1);
  EXPECT_EQ(out, "ambrel-cli: ! Error: This scan info file is damaged: the volume record is cut short.\n");
  test::writeFile(file, std::vector<uint8_t>(2000, 0));
  EXPECT_EQ(test::runCommand(test::cliPath() + " scaninfo " + file.string() + " 2>&1", &(out = "")), 1);
  EXPECT_EQ(out, "ambrel-cli: ! Error: This scan info file is incomplete.\n");
}

TEST(CliScanInfo, RunningOutOfMemoryAbortedTheCommand) {
  // A volume record that claims 3.75 GB (and a sparse file that holds that
  // many bytes) is read into memory: under a 1 GB address-space limit the
  // allocation fails, which used to end the process in std::terminate.
#ifdef AMBREL_HAVE_ASAN
  GTEST_SKIP() << "the sanitizer's allocator dies on a failed allocation instead of throwing, and it cannot start "
                  "under an address-space limit; this runs in builds without it";
#else
  TempDir dir;
  auto file = dir / "huge.asi";
  writeSample(file);
  auto bytes = test::readFile(file);
  constexpr uint32_t kClaimed = 0xF0000000u;
  storeBE32(bytes.data() + 1024, kClaimed);
  test::writeFile(file, bytes);
  ASSERT_EQ(::truncate(file.c_str(), static_cast<off_t>(1028 + uint64_t{kClaimed} + 4096)), 0);
  std::string out;
  EXPECT_EQ(test::runCommand("ulimit -v 1048576; " + test::cliPath() + " scaninfo " + file.string() + " 2>&1", &out), 5) << out;
  EXPECT_NE(out.find("ambrel-cli: out of memory; the command was stopped here"), std::string::npos) << out;
#endif
}

}  // namespace
}  // namespace ambrel
