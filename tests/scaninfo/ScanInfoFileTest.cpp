#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>

#include <fmt/format.h>

#include "scaninfo/ChainFile.h"
#include "scaninfo/SameTree.h"
#include "base/Endian.h"
#include "scaninfo/KeyedArchive.h"
#include "scaninfo/ScanInfoFile.h"
#include "support/RecordingController.h"
#include "support/TempDir.h"
#include "tree/CheckController.h"

namespace ambrel {
namespace {

namespace fs = std::filesystem;
using test::TempDir;

std::unique_ptr<HDIR> entry(const std::string& name, uint16_t type, uint32_t id, uint32_t parent) {
  auto d = std::make_unique<HDIR>();
  d->setFileName(name);
  d->fileType = type;
  d->fileID = id;
  d->parentID = parent;
  d->createDate = 0xC0000000u + id;
  d->modDate = 0xD0000000u + id;
  d->blockSize = 8;
  return d;
}

// A scanned-looking tree: names of every kind, forks with and without
// extents, marks, and a childrenCount that differs from the children held.
std::unique_ptr<HDIR> sampleTree() {
  auto root = entry("Macintosh HD", kHDIRFolder, 2, 1);
  auto docs = entry("Documents \xC3\xA9t\xC3\xA9 \xE6\x96\x87\xE6\x9B\xB8 \xF0\x9F\x93\x81", kHDIRFolder, 16, 2);
  auto f1 = entry("r\xC3\xA9sum\xC3\xA9 \"final\": v2/3.txt", kHDIRFile, 17, 16);
  f1->dataSize = 5000;
  f1->fileSize = 5000 + 286;
  f1->rscSize = 286;
  f1->addDataExt({100, 2});
  f1->addDataExt({4000000000u, 1});
  f1->addRscExt({300, 1});
  f1->setSelected(1);
  auto emptyName = entry("", kHDIRFile, 18, 16);
  // Size 0 with extents: the counts are written, the pairs are not.
  emptyName->addDataExt({7, 7});
  emptyName->addRscExt({9, 9});
  auto control = entry(std::string("tab\there\nnul\0end", 16) + "\xEF\xBF\xBF", kHDIRFile, 19, 16);
  control->dataSize = 1;
  control->addDataExt({1, 1});
  docs->addChild(std::move(f1));
  docs->addChild(std::move(emptyName));
  docs->addChild(std::move(control));
  docs->setChildrenCount(3);
  auto lost = entry("Lost Files", kHDIRFolder, 7, 2);
  lost->setChildrenCount(5);  // kept as scanned, though no children follow
  root->addChild(std::move(docs));
  root->addChild(std::move(lost));
  root->setChildrenCount(2);
  return root;
}

ScanInfo sampleInfo(int32_t type) {
  ScanInfo info;
  info.volume.volumeScanType = type;
  info.volume.startSector = 40;
  info.volume.volumeName = "Macintosh HD";
  info.volume.rootName = "Macintosh HD";
  info.volume.scanMode = "Normal Scan";
  info.volume.deletedFilesPath = "Deleted Files";
  info.volume.path = "/dev/sdb";
  info.volume.model = "Model";
  info.volume.serial = "Serial";
  info.volume.sizeInSect = 1000000;
  info.volume.HPlusVolStart = 40;
  info.volume.blockSize = 8;
  if (type == 0 || type == 1)
    info.partitionList = PlistArray{PlistValue(PlistDict{{"Volume Start", int64_t{40}},
                                                         {"Volume Size In Sectors", int64_t{999960}},
                                                         {"Volume Name", "Macintosh HD"},
                                                         {"Volume Scan Type", int64_t{type}}})};
  if (type != 2) {
    info.first5Sectors.resize(2560);
    for (size_t i = 0; i < 2560; ++i) info.first5Sectors[i] = static_cast<uint8_t>(i * 7);
  }
  return info;
}

std::string pythonView(const fs::path& file) {
  std::string out;
  int rc = test::runCommand("python3 " + std::string(AMBREL_SOURCE_DIR) + "/tests/scaninfo/scan_info_reader.py " + file.string(), &out);
  EXPECT_EQ(rc, 0) << out;
  while (!out.empty() && out.back() == '\n') out.pop_back();
  return out;
}

TEST(ScanInfoFile, RoundTripKeepsTheTreeAndAnIndependentReaderAgrees) {
  TempDir dir;
  auto root = sampleTree();
  for (int32_t type : {0, 1, 2, 3}) {
    SCOPED_TRACE(type);
    fs::path file = dir / ("scan" + std::to_string(type) + ".asi");
    ScanInfo info = sampleInfo(type);
    uint64_t written = 0;
    ASSERT_FALSE(writeScanInfo(file, info, *root, nullptr, &written));
    EXPECT_EQ(written, 6u);
    EXPECT_FALSE(checkScanInfoHeader(file));
    auto result = readScanInfo(file, nullptr);
    ASSERT_TRUE(result.contents) << result.error.message;
    EXPECT_EQ(result.contents->entryCount, 6u);
    VolumeArchive expected = info.volume;
    if (type == 2) {  // a volume device keeps only its own keys
      expected.startSector = 0;
      expected.scanMode = expected.model = expected.serial = "";
    }
    EXPECT_EQ(result.contents->info.volume, expected);
    EXPECT_EQ(result.contents->info.partitionList, info.partitionList);
    EXPECT_EQ(result.contents->info.first5Sectors, info.first5Sectors);
    test::expectSameTree(*root, *result.contents->root);
  }

  // Byte for byte as another reader sees it: layout, archives, names, the
  // extent pairs that are and are not written.
  std::string seen = pythonView(dir / "scan0.asi");
  EXPECT_NE(seen.find(R"("marker":"Complete")"), std::string::npos) << seen;
  EXPECT_NE(seen.find(R"("version":"Tarnwell Ambrel Scan Info Version 1.0.2")"), std::string::npos) << seen;
  EXPECT_NE(seen.find(R"("drive":2560)"), std::string::npos) << seen;
  EXPECT_NE(seen.find(R"("trailing":0)"), std::string::npos) << seen;
  EXPECT_NE(seen.find(R"("list":[{"Volume Name":"Macintosh HD","Volume Scan Type":0,"Volume Size In Sectors":999960,"Volume Start":40}])"), std::string::npos) << seen;
  // Each path is the chain of folders above the entry, as it was walked.
  const std::string docs = "Documents \xC3\xA9t\xC3\xA9 \xE6\x96\x87\xE6\x9B\xB8 \xF0\x9F\x93\x81";
  EXPECT_NE(seen.find(R"("entries":[[0,"Macintosh HD","",1,2,1,0,0,2,0,[],[]],)"
                      "[1,\"" + docs + "\",\"/Macintosh HD\",1,16,2,0,0,3,0,[],[]],"
                      "[2,\"r\xC3\xA9sum\xC3\xA9 \\\"final\\\": v2/3.txt\",\"/Macintosh HD/" + docs +
                      "\",2,17,16,5000,286,0,1,[[100,2],[4000000000,1]],[[300,1]]],"
                      "[2,\"\",\"/Macintosh HD/" + docs + "\",2,18,16,0,0,0,0,[],[]],"
                      R"([2,"tab\there\nnul\u0000end)" "\xEF\xBF\xBF" "\",\"/Macintosh HD/" + docs +
                      R"(",2,19,16,1,0,0,0,[[1,1]],[]],)"
                      R"([1,"Lost Files","/Macintosh HD",1,7,2,0,0,5,0,[],[]]])"),
            std::string::npos)
      << seen;
  EXPECT_NE(pythonView(dir / "scan2.asi").find(R"("drive":0,"entries":[[0,"Macintosh HD")"), std::string::npos);
  EXPECT_NE(pythonView(dir / "scan3.asi").find(R"("list":null)"), std::string::npos);
}

TEST(ScanInfoFile, RecordFieldsAreBigEndianAtTheirOffsets) {
  TempDir dir;
  auto root = entry("A\xC3\xA9", kHDIRFolder, 0x01020304, 0x0A0B0C0D);
  root->fileSize = 0x1122334455667788ull;
  root->fileCount = 0x99AABBCC;
  root->blockSize = -2;
  root->setChildrenCount(-7);
  root->dataSize = 0;
  root->addDataExt({1, 2});
  root->addDataExt({3, 4});
  root->setSelected(1);
  ScanInfo info = sampleInfo(2);
  ASSERT_FALSE(writeScanInfo(dir / "r.asi", info, *root, nullptr));
  auto bytes = test::readFile(dir / "r.asi");
  auto volume = KeyedArchiver::archivedData(info.volume);
  const size_t at = 1024 + 4 + volume.size();  // a volume device: no list, no sectors
  ASSERT_EQ(bytes.size(), at + 71 + 4);         // "Aé" is two units; no pairs for an empty fork
  const uint8_t* r = bytes.data() + at;
  EXPECT_EQ(loadBE32(bytes.data() + 1024), volume.size());
  EXPECT_EQ(loadBE16(r + 0), 2);
  EXPECT_EQ(loadBE16(r + 2), 0);
  EXPECT_EQ(loadBE16(r + 4), 1);
  EXPECT_EQ(loadBE32(r + 14), 0x0A0B0C0Du);
  EXPECT_EQ(loadBE32(r + 18), 0x01020304u);
  EXPECT_EQ(loadBE64(r + 22), 0x1122334455667788ull);
  EXPECT_EQ(loadBE32(r + 46), 0x99AABBCCu);
  EXPECT_EQ(static_cast<int32_t>(loadBE32(r + 50)), -2);
  EXPECT_EQ(r[54], 1);
  EXPECT_EQ(static_cast<int32_t>(loadBE32(r + 55)), -7);
  EXPECT_EQ(loadBE32(r + 59), 0u);
  EXPECT_EQ(loadBE32(r + 63), 2u);  // written though dataSize is 0
  EXPECT_EQ(loadBE32(r + 67), 0u);
  EXPECT_EQ(loadBE16(r + 71), 'A');
  EXPECT_EQ(loadBE16(r + 73), 0xE9);

  // The header area: marker, version, then zeros to 1024.
  const uint32_t m = loadBE32(bytes.data());
  EXPECT_EQ(KeyedUnarchiver::unarchivedValue(std::span(bytes).subspan(4, m)), PlistValue("Complete"));
  const uint32_t v = loadBE32(bytes.data() + 4 + m);
  EXPECT_EQ(KeyedUnarchiver::unarchivedValue(std::span(bytes).subspan(8 + m, v)), PlistValue(kScanInfoVersion));
  for (size_t i = 8 + m + v; i < 1024; ++i) ASSERT_EQ(bytes[i], 0) << i;

  // A root with a childrenCount of -7 and no children reads back as it was.
  auto back = readScanInfo(dir / "r.asi", nullptr);
  ASSERT_TRUE(back.contents) << back.error.message;
  EXPECT_EQ(back.contents->root->childrenCount(), -7);
  EXPECT_TRUE(back.contents->root->dataExt.empty());
}

// Rewrites the version archive of a finished file.
void replaceVersion(const fs::path& file, const std::vector<uint8_t>& archive) {
  auto bytes = test::readFile(file);
  const uint32_t m = loadBE32(bytes.data());
  std::fill(bytes.begin() + 4 + m, bytes.begin() + 1024, 0);
  storeBE32(bytes.data() + 4 + m, static_cast<uint32_t>(archive.size()));
  std::copy(archive.begin(), archive.end(), bytes.begin() + 8 + m);
  test::writeFile(file, bytes);
}

TEST(ScanInfoFile, RefusalsCarryTheExactMessages) {
  TempDir dir;
  auto root = sampleTree();
  fs::path file = dir / "a.asi";
  ASSERT_FALSE(writeScanInfo(file, sampleInfo(0), *root, nullptr));

  replaceVersion(file, KeyedArchiver::archivedData(PlistValue("Other Recovery 2.0")));
  auto refusal = checkScanInfoHeader(file);
  ASSERT_TRUE(refusal);
  EXPECT_EQ(refusal->title, "! Error");
  EXPECT_EQ(refusal->message, "This scan info file belongs to Other Recovery 2.0. Can not process.");
  EXPECT_FALSE(readScanInfo(file, nullptr).contents);

  replaceVersion(file, {});
  EXPECT_EQ(checkScanInfoHeader(file)->message, "This scan info file belongs to (null). Can not process.");

  // The marker as it stands while writing.
  auto bytes = test::readFile(file);
  auto incomplete = KeyedArchiver::archivedData(PlistValue("UnComple"));
  ASSERT_EQ(loadBE32(bytes.data()), incomplete.size());
  std::copy(incomplete.begin(), incomplete.end(), bytes.begin() + 4);
  test::writeFile(file, bytes);
  EXPECT_EQ(checkScanInfoHeader(file)->message, "This scan info file is incomplete.");
  EXPECT_EQ(readScanInfo(file, nullptr).error.message, "This scan info file is incomplete.");

  test::writeFile(file, {});
  EXPECT_EQ(checkScanInfoHeader(file)->message, "This scan info file is incomplete.");
  EXPECT_EQ(checkScanInfoHeader(dir / "missing.asi")->title, "! Error");
}

// Watches the folder while the file is written, at each bar step of 100
// entries: nothing may be at the file's own path yet, and the one file being
// written beside it must say it is incomplete.
class SnapshotController : public test::RecordingController {
 public:
  void updateTreeProgress(const ProgressReport& r) override {
    RecordingController::updateTreeProgress(r);
    if (r.i64(progress::kBarIncrement) == 100 && !path.empty()) {
      if (fs::exists(path)) {
        messages.push_back("something at the file's path before it is whole");
        return;
      }
      std::vector<fs::path> beside;
      for (const auto& e : fs::directory_iterator(path.parent_path())) beside.push_back(e.path());
      if (beside.size() != 1) {
        messages.push_back(std::to_string(beside.size()) + " files beside it");
        return;
      }
      if (auto refusal = checkScanInfoHeader(beside[0])) messages.push_back(refusal->message);
      else messages.push_back("complete");
    }
  }
  fs::path path;
  std::vector<std::string> messages;
};

std::unique_ptr<HDIR> wideTree(int children) {
  auto root = entry("root", kHDIRFolder, 2, 1);
  for (int i = 0; i < children; ++i) {
    auto f = entry("file number " + std::to_string(i) + std::string(200, 'x'), kHDIRFile, 100 + i, 2);
    f->dataSize = 4096;
    f->addDataExt({static_cast<uint32_t>(i), 1});
    root->addChild(std::move(f));
  }
  root->setChildrenCount(children);
  return root;
}

TEST(ScanInfoFile, NothingAtThePathUntilTheFileIsWholeAndProgressComesInSteps) {
  TempDir dir;
  auto root = wideTree(6000);  // ~2.8 MB: the buffer reaches the disk several times
  SnapshotController watch;
  watch.path = dir / "w.asi";
  ASSERT_FALSE(writeScanInfo(watch.path, sampleInfo(1), *root, &watch));
  ASSERT_EQ(watch.messages.size(), 60u);  // 6001 entries: a step at each hundredth
  for (const auto& m : watch.messages) EXPECT_TRUE(m == "This scan info file is incomplete.") << m;
  EXPECT_FALSE(checkScanInfoHeader(watch.path));

  // Writing: max = childrenCount + 5; +1 marker, volume and list; +100 per
  // 100 entries; +1 once complete.
  ASSERT_FALSE(watch.treeReports.empty());
  EXPECT_EQ(watch.treeReports.front().i64(progress::kBarMaxValue), 6005);
  EXPECT_EQ(watch.treeReports.front().string(progress::kProgressStatus), "Saving Scan Info");
  int64_t total = 0;
  for (const auto& r : watch.treeReports) total += r.i64(progress::kBarIncrement);
  EXPECT_EQ(total, 3 + 6000 + 1);
  EXPECT_EQ(watch.treeReports.back().string(progress::kProgressStatus), "Scan Info Saved");

  test::RecordingController reading;
  auto back = readScanInfo(watch.path, &reading);
  ASSERT_TRUE(back.contents) << back.error.message;
  EXPECT_EQ(back.contents->entryCount, 6001u);
  EXPECT_EQ(reading.treeReports.front().string(progress::kProgressStatus), "Opening Scan Info");
  EXPECT_EQ(reading.treeReports.front().i64(progress::kBarMaxValue), 6000);
  total = 0;
  for (const auto& r : reading.treeReports) total += r.i64(progress::kBarIncrement);
  EXPECT_EQ(total, 6000);
  test::expectSameTree(*root, *back.contents->root);
}

// Runs `work` on a thread with a 256 KiB stack: a walk that recursed once
// per level of a few thousand would overflow it.
template <class Work>
void onSmallStack(Work work) {
  pthread_attr_t attr;
  ASSERT_EQ(pthread_attr_init(&attr), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attr, 256 * 1024), 0);
  pthread_t thread;
  auto run = [](void* w) -> void* {
    (*static_cast<Work*>(w))();
    return nullptr;
  };
  ASSERT_EQ(pthread_create(&thread, &attr, run, &work), 0);
  ASSERT_EQ(pthread_join(thread, nullptr), 0);
  pthread_attr_destroy(&attr);
}

TEST(ScanInfoFile, DeepChainNeedsNoRecursion) {
  // Written and read back on a small stack. Every entry carries the path of
  // the folders above it, so the file grows with the square of the depth:
  // 5,000 levels are 50 MB.
  TempDir dir;
  constexpr uint32_t kDepth = 5000;
  auto root = entry("root", kHDIRFolder, 2, 1);
  HDIR* at = root.get();
  for (uint32_t i = 0; i < kDepth; ++i) {
    at->setChildrenCount(1);
    at = at->addChild(entry("d", kHDIRFolder, 100 + i, at->fileID));
  }
  at->setSelected(1);
  std::optional<ScanInfoError> written;
  ScanInfoReadResult back;
  onSmallStack([&] {
    written = writeScanInfo(dir / "deep.asi", sampleInfo(3), *root, nullptr);
    if (!written) back = readScanInfo(dir / "deep.asi", nullptr);
  });
  ASSERT_FALSE(written) << written->message;
  ASSERT_TRUE(back.contents) << back.error.message;
  EXPECT_EQ(back.contents->entryCount, kDepth + 1);
  EXPECT_EQ(back.contents->root->childrenSelected(), 1);
  const HDIR* d = back.contents->root.get();
  size_t depth = 0;
  while (!d->children().empty()) {
    d = d->children()[0].get();
    ++depth;
  }
  EXPECT_EQ(depth, kDepth);
  EXPECT_EQ(d->selected(), 1);
  EXPECT_EQ(pathNameOf(*d).size(), std::string("/root").size() + 2 * (kDepth - 1));

  // Reading alone, 100,000 levels (a file with empty paths, as the format
  // allows).
  ASSERT_TRUE(test::writeChainScanInfo((dir / "chain.asi").string(), 100000, false));
  onSmallStack([&] { back = readScanInfo(dir / "chain.asi", nullptr); });
  ASSERT_TRUE(back.contents) << back.error.message;
  EXPECT_EQ(back.contents->entryCount, 100001u);
  d = back.contents->root.get();
  depth = 0;
  while (!d->children().empty()) {
    d = d->children()[0].get();
    ++depth;
  }
  EXPECT_EQ(depth, 100000u);
}

TEST(ScanInfoFile, AFileCutAnywhereIsRefused) {
  TempDir dir;
  auto root = sampleTree();
  fs::path file = dir / "full.asi";
  ASSERT_FALSE(writeScanInfo(file, sampleInfo(0), *root, nullptr));
  auto bytes = test::readFile(file);
  // Cut copies live in memory; thousands of them would be slow on disk.
  int fd = ::memfd_create("cut.asi", MFD_CLOEXEC);
  ASSERT_GE(fd, 0);
  const std::string cut = "/proc/self/fd/" + std::to_string(fd);
  ASSERT_EQ(::pwrite(fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
  for (size_t n = bytes.size(); n-- > 0;) {
    ASSERT_EQ(::ftruncate(fd, static_cast<off_t>(n)), 0);
    auto result = readScanInfo(cut, nullptr);
    ASSERT_FALSE(result.contents) << "cut at " << n;
    EXPECT_EQ(result.error.title, "! Error");
    if (n >= 1024 + 4) {
      EXPECT_EQ(result.error.message.rfind("This scan info file is damaged: ", 0), 0u) << n << result.error.message;
    }
  }
  ::close(fd);
}

TEST(ScanInfoFile, HostileCountsAreRefusedWithoutAllocating) {
  TempDir dir;
  auto root = entry("root", kHDIRFolder, 2, 1);
  auto f = entry("f", kHDIRFile, 20, 2);
  f->dataSize = 10;
  f->addDataExt({5, 1});
  root->addChild(std::move(f));
  root->setChildrenCount(1);
  fs::path file = dir / "h.asi";
  ScanInfo info = sampleInfo(2);
  ASSERT_FALSE(writeScanInfo(file, info, *root, nullptr));
  const auto good = test::readFile(file);
  const size_t rootAt = 1024 + 4 + KeyedArchiver::archivedData(info.volume).size();
  const size_t childAt = rootAt + 71 + 8;  // "root" is four units
  auto patched = [&](size_t at, uint32_t value) {
    auto b = good;
    storeBE32(b.data() + at, value);
    test::writeFile(file, b);
    return readScanInfo(file, nullptr);
  };
  EXPECT_EQ(patched(rootAt + 59, 0x7FFFFFFF).error.message,
            "This scan info file is damaged: entry 1 claims 2147483647 children, more than the file holds.");
  EXPECT_EQ(patched(rootAt + 59, 0x80000000).error.message, "This scan info file is damaged: entry 1 has a negative count.");
  EXPECT_EQ(patched(childAt + 63, 0x7FFFFFFF).error.message,
            "This scan info file is damaged: entry 2 has more extents than the file holds.");
  EXPECT_EQ(patched(rootAt + 59, 2).error.message, "This scan info file is damaged: entry 1 claims 2 children, more than the file holds.");
  EXPECT_EQ(patched(1024, 0xFFFFFFF0).error.message, "This scan info file is damaged: the volume record is cut short.");
  {
    auto b = good;
    b[1024 + 4] = 'X';  // no longer a property list
    test::writeFile(file, b);
    EXPECT_EQ(readScanInfo(file, nullptr).error.message.rfind("This scan info file is damaged: the volume record is not a keyed archive", 0), 0u);
  }
  // The name length is only 16 bits; a long one just runs out of file.
  auto b = good;
  b[rootAt] = 0xFF;
  b[rootAt + 1] = 0xFF;
  test::writeFile(file, b);
  EXPECT_EQ(readScanInfo(file, nullptr).error.message, "This scan info file is damaged: it ends inside the name of entry 1.");

  // Random damage to the body is read or refused, never more.
  std::mt19937 rng(7);
  for (int i = 0; i < 300; ++i) {
    auto d = good;
    for (int k = 0; k < 4; ++k) d[rootAt + rng() % (d.size() - rootAt)] = static_cast<uint8_t>(rng());
    test::writeFile(file, d);
    auto r = readScanInfo(file, nullptr);
    EXPECT_TRUE(r.contents || !r.error.message.empty());
  }
}

TEST(ScanInfoFile, MarkedDeepChainIsReadWithItsMarksCounted) {
  // The marks of a file are counted once the whole tree is in (carrying
  // each up to the root as it came cost the depth per entry: bench_scaninfo
  // measures it). The counts must come out as marking would have set them.
  TempDir dir;
  constexpr uint32_t kDepth = 80000;
  ASSERT_TRUE(test::writeChainScanInfo((dir / "marked.asi").string(), kDepth, true));
  auto back = readScanInfo(dir / "marked.asi", nullptr);
  ASSERT_TRUE(back.contents) << back.error.message;
  const HDIR* d = back.contents->root.get();
  for (uint32_t level = 0; level <= kDepth; ++level) {
    ASSERT_EQ(d->selected(), 1) << level;
    ASSERT_EQ(d->childrenSelected(), int64_t{kDepth - level}) << level;
    if (level < kDepth) d = d->children()[0].get();
  }
  EXPECT_TRUE(d->children().empty());
  // The counts are live: unmarking the bottom unmarks the whole chain.
  CheckController(const_cast<HDIR*>(d), false).run();
  EXPECT_EQ(back.contents->root->childrenSelected(), 0);
  EXPECT_EQ(back.contents->root->selected(), 0);
}

// The file with its volume archive replaced, written back.
void replaceVolumeArchive(const fs::path& file, const std::vector<uint8_t>& archive) {
  auto bytes = test::readFile(file);
  const uint32_t old = loadBE32(bytes.data() + 1024);
  std::vector<uint8_t> out(bytes.begin(), bytes.begin() + 1024);
  out.resize(1028);
  storeBE32(out.data() + 1024, static_cast<uint32_t>(archive.size()));
  out.insert(out.end(), archive.begin(), archive.end());
  out.insert(out.end(), bytes.begin() + 1028 + old, bytes.end());
  test::writeFile(file, out);
}

TEST(ScanInfoDamage, ScanTypeOutsideZeroToThreeIsRefused) {
  TempDir dir;
  auto root = sampleTree();
  const fs::path file = dir / "t.asi";
  ScanInfo info = sampleInfo(3);
  ASSERT_FALSE(writeScanInfo(file, info, *root, nullptr));
  for (int32_t type : {91, 4, -1}) {
    info.volume.volumeScanType = type;
    replaceVolumeArchive(file, KeyedArchiver::archivedData(info.volume));
    auto r = readScanInfo(file, nullptr);
    EXPECT_FALSE(r.contents) << type;
    EXPECT_EQ(r.error.title, "! Error");
    EXPECT_EQ(r.error.message,
              fmt::format("This scan info file is damaged: the volume record is unusable (scan type {} is not one of 0 "
                          "to 3).",
                          type));
  }
}

TEST(ScanInfoDamage, EntriesBeyondTheRootsChildrenAreRefused) {
  // A root that claims no children while 4 entries follow it used to open as
  // the root alone.
  TempDir dir;
  auto root = sampleTree();
  const fs::path file = dir / "c.asi";
  ScanInfo info = sampleInfo(2);
  ASSERT_FALSE(writeScanInfo(file, info, *root, nullptr));
  auto bytes = test::readFile(file);
  const size_t rootAt = 1024 + 4 + KeyedArchiver::archivedData(info.volume).size();
  storeBE32(bytes.data() + rootAt + 59, 0);
  test::writeFile(file, bytes);
  auto r = readScanInfo(file, nullptr);
  EXPECT_FALSE(r.contents);
  EXPECT_EQ(r.error.message.rfind("This scan info file is damaged: ", 0), 0u) << r.error.message;
  EXPECT_NE(r.error.message.find("follow the last entry"), std::string::npos) << r.error.message;

  // Bytes of any kind after a whole tree are refused the same way.
  ASSERT_FALSE(writeScanInfo(file, info, *root, nullptr));
  bytes = test::readFile(file);
  bytes.push_back(0);
  test::writeFile(file, bytes);
  EXPECT_EQ(readScanInfo(file, nullptr).error.message, "This scan info file is damaged: 1 byte follows the last entry.");
}

TEST(ScanInfoDamage, DanglingReferenceInTheVolumeIsRefused) {
  // A reference past the archive's objects used to read as nil: startSector
  // became 0 without a word.
  TempDir dir;
  auto root = sampleTree();
  const fs::path file = dir / "r.asi";
  ScanInfo info = sampleInfo(3);
  ASSERT_FALSE(writeScanInfo(file, info, *root, nullptr));
  test::writeFile(dir / "volume.bplist", KeyedArchiver::archivedData(info.volume));
  std::ofstream(dir / "dangle.py") << "import plistlib, sys\n"
                                   << "p = plistlib.load(open(sys.argv[1], 'rb'))\n"
                                   << "v = p['$objects'][p['$top']['root'].data]\n"
                                   << "v['startSector'] = plistlib.UID(len(p['$objects']) + 5)\n"
                                   << "open(sys.argv[1], 'wb').write(plistlib.dumps(p, fmt=plistlib.FMT_BINARY))\n"
                                   << "print(len(p['$objects']), end='')\n";
  std::string objects;
  ASSERT_EQ(
      test::runCommand("python3 " + (dir / "dangle.py").string() + " " + (dir / "volume.bplist").string(), &objects),
      0);
  replaceVolumeArchive(file, test::readFile(dir / "volume.bplist"));
  auto r = readScanInfo(file, nullptr);
  EXPECT_FALSE(r.contents);
  EXPECT_EQ(r.error.message,
            fmt::format("This scan info file is damaged: the volume record is broken: a reference names object {}, "
                        "past the archive's {} objects.",
                        std::stoi(objects) + 5, objects));
}

TEST(ScanInfoDamage, FileCutInsideTheHeaderSaysCutShort) {
  // Cut behind the two header archives but before the volume record, the
  // file used to be read from the wrong place: "not a keyed archive".
  TempDir dir;
  auto root = sampleTree();
  const fs::path file = dir / "h.asi";
  ASSERT_FALSE(writeScanInfo(file, sampleInfo(0), *root, nullptr));
  auto bytes = test::readFile(file);
  for (size_t n : {size_t{600}, size_t{1023}, size_t{1024}, size_t{1026}}) {
    test::writeFile(file, std::vector<uint8_t>(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(n)));
    auto r = readScanInfo(file, nullptr);
    EXPECT_FALSE(r.contents);
    EXPECT_EQ(r.error.message.rfind("This scan info file is damaged: ", 0), 0u) << n << ": " << r.error.message;
    EXPECT_NE(r.error.message.find("cut short"), std::string::npos) << n << ": " << r.error.message;
  }
}

}  // namespace
}  // namespace ambrel
