// Saving marked entries: bytes against The Sleuth Kit's icat and the image
// builder's content, the grouping of reads, the marking rules, and what
// progress, stop and failures do.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <cstring>
#include <filesystem>

#include "output/AppleDouble.h"
#include "output/OutputHelpers.h"

using namespace ambrel;
using namespace ambrel::test;
namespace fs = std::filesystem;

namespace {

std::vector<uint8_t> expectedData(const mk::FileLayout& f) {
  return mk::generatedBytes(f.dataSeed, f.dataSize);
}
std::vector<uint8_t> expectedRsrc(const mk::FileLayout& f) {
  return mk::generatedBytes(f.rsrcSeed, f.rsrcSize);
}

// The resource fork kept in a sidecar file.
std::vector<uint8_t> rsrcFromSidecar(const fs::path& sidecar) {
  const auto bytes = readFile(sidecar);
  auto parsed = parseAppleDouble(bytes.data(), bytes.size());
  if (!parsed) return {};
  const AppleDoubleEntry* r = parsed->find(kAppleDoubleResourceFork);
  if (!r || !parsed->find(kAppleDoubleFinderInfo)) return {};
  return std::vector<uint8_t>(bytes.begin() + r->offset, bytes.begin() + r->offset + r->length);
}

SaveResult saveAll(Volume& v, const fs::path& dest, RecordingController* controller = nullptr,
                   Saver::Options options = {}) {
  markAll(v);
  fs::create_directories(dest);
  Saver saver(*v.dirRoot, saveSourceOf(v), controller, options);
  return saver.saveFilesAndFolders(dest.string());
}

HDIR* childNamed(HDIR& dir, const std::string& name) {
  for (const auto& c : dir.children())
    if (c->fileName() == name) return c.get();
  return nullptr;
}

}  // namespace

TEST(SaveOracle, BuilderVolumesMatchIcatForkByFork) {
  if (!haveIcat()) GTEST_SKIP() << "The Sleuth Kit missing";
  for (uint32_t blockSize : {4096u, 512u}) {
    SCOPED_TRACE(blockSize);
    TempDir dir;
    const uint64_t b = blockSize;
    mk::VolumeSpec spec;
    spec.name = "Vol";
    spec.blockSize = blockSize;
    spec.root = {fileSpec("one-byte", 1),
                 fileSpec("hundred", 100),
                 fileSpec("exact-8-blocks", 8 * b),
                 fileSpec("nine-blocks", 8 * b + 17),
                 fileSpec("sixteen-blocks", 16 * b),
                 fileSpec("eight-and-a-bit", 7 * b + 1),
                 fileSpec("fragmented", 300 * b + 5, 0, 9),
                 fileSpec("both-forks", 5000, 70000),
                 fileSpec("rsrc-fragmented", 3 * b, 40 * b + 3, 2),
                 fileSpec("rsrc-only", 0, 3000),
                 fileSpec("empty", 0),
                 folderOf("nested", {fileSpec("inner", 12345), folderOf("deeper", {fileSpec("leaf", 9 * b)})})};
    spec.root[8].rsrcFragments = 4;
    BuiltVolume v = buildAndScan(dir, spec);
    ASSERT_NE(v.scan.volume->dirRoot, nullptr);
    const fs::path dest = dir / "out";
    const SaveResult r = saveAll(*v.scan.volume, dest);
    EXPECT_FALSE(r.anyFailure());
    EXPECT_FALSE(r.aborted);

    size_t checked = 0, rsrcChecked = 0;
    uint64_t bytes = 0;
    for (const auto& f : v.vol().entries) {
      if (f.folder || f.deleted) continue;
      SCOPED_TRACE(f.path);
      const fs::path saved = dest / "Root" / f.path;
      const fs::path sidecar = saved.parent_path() / ("._" + saved.filename().string());
      bytes += f.dataSize + f.rsrcSize;
      if (f.dataSize == 0 && f.rsrcSize == 0) {
        EXPECT_FALSE(fs::exists(saved)) << "a file with no bytes is counted, not created";
        continue;
      }
      ASSERT_TRUE(fs::is_regular_file(saved));
      const auto data = readFile(saved);
      EXPECT_EQ(data, icat(v.image, 0, f.cnid));
      EXPECT_EQ(data, expectedData(f));
      ++checked;
      if (f.rsrcSize) {
        const auto rsrc = rsrcFromSidecar(sidecar);
        EXPECT_EQ(rsrc.size(), f.rsrcSize);
        EXPECT_EQ(rsrc, icat(v.image, 0, f.cnid, true));
        EXPECT_EQ(rsrc, expectedRsrc(f));
        ++rsrcChecked;
      } else {
        EXPECT_FALSE(fs::exists(sidecar));
      }
    }
    EXPECT_EQ(checked, 12u);
    EXPECT_EQ(rsrcChecked, 3u);
    EXPECT_EQ(r.saveCount, 13);  // the empty one too
    EXPECT_EQ(r.savedData, bytes);
    EXPECT_EQ(fs::file_size(dest / "Root" / "rsrc-only"), 0u);
  }
}

TEST(SaveOracle, XorrisoVolumeMatchesIcat) {
  if (!haveIcat() || !haveTool("xorriso") || !haveTool("mmls")) GTEST_SKIP() << "xorriso or The Sleuth Kit missing";
  TempDir dir;
  const fs::path src = dir / "src";
  // xorriso uses 2048-byte blocks: sizes around 1, 8 and 9 blocks, and more.
  const std::vector<uint64_t> sizes = {1, 100, 2047, 2048, 2049, 8 * 2048, 8 * 2048 + 1, 9 * 2048,
                                       9 * 2048 - 1, 16 * 2048, 1000000, 3 * 1024 * 1024 + 7};
  for (size_t i = 0; i < sizes.size(); ++i) {
    fs::create_directories(src / ("d" + std::to_string(i % 3)));
    writeFile(src / ("d" + std::to_string(i % 3)) / ("f" + std::to_string(i) + ".bin"), mk::generatedBytes(i + 7, sizes[i]));
  }
  fs::create_directories(src / "many");
  for (int i = 0; i < 150; ++i) writeFile(src / "many" / ("s" + std::to_string(i)), mk::generatedBytes(1000 + i, i * 97));
  const std::string image = (dir / "x.iso").string();
  ASSERT_EQ(runCommand("xorriso -as mkisofs -quiet -hfsplus -o '" + image + "' '" + src.string() + "' 2>/dev/null"), 0);
  std::string mm;
  runCommand("mmls '" + image + "' | awk '/Apple_HFS/ {print $3, $5}'", &mm);
  std::istringstream in(mm);
  uint64_t start = 0, length = 0;
  ASSERT_TRUE(in >> start >> length);

  ScanResult scanned = scan(image, start, length, "Normal Scan");
  ASSERT_NE(scanned.volume->dirRoot, nullptr);
  const fs::path dest = dir / "out";
  const SaveResult r = saveAll(*scanned.volume, dest);
  EXPECT_FALSE(r.anyFailure());

  const auto listed = flsTree(image, start);
  size_t compared = 0;
  for (const auto& [path, l] : listed) {
    if (l.folder) continue;
    const fs::path saved = dest / "Root" / path;
    SCOPED_TRACE(path);
    if (l.size == 0) continue;
    ASSERT_TRUE(fs::is_regular_file(saved));
    EXPECT_EQ(readFile(saved), icat(image, start, l.id));
    ++compared;
  }
  EXPECT_EQ(compared, sizes.size() + 149);
  EXPECT_EQ(readFile(dest / "Root" / "d2" / "f11.bin"), mk::generatedBytes(18, sizes[11]));
}

// One extent: groups of 8 blocks; the final group of the last extent, or its
// remainder, read one block at a time.
TEST(SaveGrouping, ReadsAreGroupsOfEightWithTheLastBlocksSingly) {
  TempDir dir;
  mk::VolumeSpec spec;
  spec.blockSize = 4096;  // 8 sectors a block
  spec.root = {fileSpec("a-one", 100), fileSpec("b-eight", 8 * 4096), fileSpec("c-nine", 8 * 4096 + 1),
               fileSpec("d-frag", 20 * 4096 - 10, 0, 2)};
  BuiltVolume v = buildAndScan(dir, spec);
  Volume& vol = *v.scan.volume;
  ASSERT_NE(vol.dirRoot, nullptr);
  const auto* frag = v.vol().find("d-frag");
  ASSERT_NE(frag, nullptr);
  ASSERT_EQ(frag->dataExtents.size(), 2u);
  ASSERT_EQ(frag->dataExtents[0].blockCount + frag->dataExtents[1].blockCount, 20u);

  auto readsFor = [&](const std::string& name) {
    for (const auto& c : vol.dirRoot->children()) c->setSelected(0);
    vol.dirRoot->setSelected(0);
    CheckController(childNamed(*vol.dirRoot, name), true).run();
    RecordingSource rec{&vol};
    Saver saver(*vol.dirRoot, rec.source(), nullptr);
    TempDir out;
    saver.saveFilesAndFolders(out.path().string());
    EXPECT_EQ(fs::file_size(out / "Root" / name), childNamed(*vol.dirRoot, name)->dataSize);
    return rec.calls;
  };
  auto sectorOf = [&](uint32_t block) { return v.vol().blockToSector(block); };

  const uint32_t a = v.vol().find("a-one")->dataExtents[0].startBlock;
  EXPECT_EQ(readsFor("a-one"), (std::vector<ReadCall>{{sectorOf(a), 8}}));

  const uint32_t b = v.vol().find("b-eight")->dataExtents[0].startBlock;
  std::vector<ReadCall> eight;
  for (uint32_t k = 0; k < 8; ++k) eight.push_back({sectorOf(b + k), 8});
  EXPECT_EQ(readsFor("b-eight"), eight);

  const uint32_t c = v.vol().find("c-nine")->dataExtents[0].startBlock;
  EXPECT_EQ(readsFor("c-nine"), (std::vector<ReadCall>{{sectorOf(c), 64}, {sectorOf(c + 8), 8}}));

  // A whole extent that is not the last: groups and one read of the rest.
  std::vector<ReadCall> want;
  const auto& e0 = frag->dataExtents[0];
  for (uint32_t g = 0; g < e0.blockCount / 8; ++g) want.push_back({sectorOf(e0.startBlock + 8 * g), 64});
  if (e0.blockCount % 8) want.push_back({sectorOf(e0.startBlock + e0.blockCount / 8 * 8), int32_t(e0.blockCount % 8 * 8)});
  const auto& e1 = frag->dataExtents[1];
  const uint32_t groups = e1.blockCount / 8, rest = e1.blockCount % 8;
  for (uint32_t g = 0; g < groups; ++g) {
    if (rest == 0 && g + 1 == groups) {
      for (uint32_t k = 0; k < 8; ++k) want.push_back({sectorOf(e1.startBlock + 8 * g + k), 8});
    } else {
      want.push_back({sectorOf(e1.startBlock + 8 * g), 64});
    }
  }
  for (uint32_t k = 0; k < rest; ++k) want.push_back({sectorOf(e1.startBlock + groups * 8 + k), 8});
  EXPECT_EQ(readsFor("d-frag"), want);
}

// Saving copies inside the kernel when the drive allows it; a copy that stops
// part-way is read again the ordinary way over what it left, and a drive that
// cannot be copied from is read throughout. The bytes are the same each way.
TEST(SaveKernelCopy, FailedOrRefusedCopiesAreReadAndTheBytesAreWhole) {
  TempDir dir;
  mk::VolumeSpec spec;
  spec.blockSize = 4096;
  spec.root = {fileSpec("a-small", 100), fileSpec("b-frag", 300000 - 7, 0, 3), fileSpec("c-big", 2 * 1024 * 1024 + 1)};
  BuiltVolume v = buildAndScan(dir, spec);
  Volume& vol = *v.scan.volume;
  markAll(vol);
  const auto* big = v.vol().find("c-big");
  ASSERT_NE(big, nullptr);
  struct Case {
    const char* name;
    bool refused;
    uint64_t failAt;
  };
  const uint64_t inBig = v.vol().blockToSector(big->dataExtents[0].startBlock + 100) + 3;
  for (const Case c : {Case{"healthy", false, UINT64_MAX}, Case{"a copy stops half-way", false, inBig},
                       Case{"refused", true, UINT64_MAX}}) {
    SCOPED_TRACE(c.name);
    RecordingSource rec{&vol};
    rec.copies = true;
    rec.copyRefused = c.refused;
    rec.copyFailsAtSector = c.failAt;
    TempDir out;
    Saver saver(*vol.dirRoot, rec.source(), nullptr);
    const SaveResult r = saver.saveFilesAndFolders(out.path().string());
    EXPECT_FALSE(r.anyFailure());
    for (const char* name : {"a-small", "b-frag", "c-big"})
      EXPECT_EQ(readFile(out / "Root" / name), expectedData(*v.vol().find(name))) << name;
    if (c.refused) {
      EXPECT_EQ(rec.copyCalls.size(), 1u) << "a drive that cannot be copied from is asked once";
      EXPECT_FALSE(rec.calls.empty());
    } else if (c.failAt == UINT64_MAX) {
      EXPECT_TRUE(rec.calls.empty()) << "nothing read when every copy works";
      // 80 groups of 8 blocks, in 5 extents.
      EXPECT_LT(rec.copyCalls.size(), 15u) << "an extent goes in one copy, not one per group";
    } else {
      ASSERT_EQ(rec.calls.size(), 1u) << "only the piece whose copy stopped is read";
      EXPECT_LE(rec.calls[0].sector, c.failAt);
      EXPECT_GT(rec.calls[0].sector + uint64_t(rec.calls[0].count), c.failAt);
    }
  }
}

TEST(SaveRules, MarksDecideWhatIsWritten) {
  TempDir dir;
  mk::VolumeSpec spec;
  spec.root = {folderOf("A", {fileSpec("keep", 500), fileSpec("skip", 600)}),
               folderOf("B", {fileSpec("inside", 700)}), fileSpec("empty", 0), fileSpec("rsrc-only", 0, 2000),
               fileSpec("unmarked", 10)};
  BuiltVolume v = buildAndScan(dir, spec);
  Volume& vol = *v.scan.volume;
  ASSERT_NE(vol.dirRoot, nullptr);
  HDIR& root = *vol.dirRoot;
  CheckController(childNamed(*childNamed(root, "A"), "keep"), true).run();
  // B itself unmarked with a marked child: nothing below it is saved.
  childNamed(*childNamed(root, "B"), "inside")->setSelected(1);
  CheckController(childNamed(root, "empty"), true).run();
  CheckController(childNamed(root, "rsrc-only"), true).run();
  // A marked folder with nothing in it is made, and only made.
  auto lone = std::make_unique<HDIR>();
  lone->fileType = kHDIRFolder;
  lone->setFileName("Lone");
  HDIR* added = root.addChild(std::move(lone));
  added->setSelected(1);

  const fs::path dest = dir / "out";
  fs::create_directories(dest);
  Saver saver(root, saveSourceOf(vol), nullptr);
  const SaveResult r = saver.saveFilesAndFolders(dest.string());
  EXPECT_EQ(pathsUnder(dest), (std::set<std::string>{"Root", "Root/A", "Root/A/keep", "Root/rsrc-only",
                                                      "Root/._rsrc-only", "Root/Lone"}));
  EXPECT_EQ(r.saveCount, 3);  // keep, empty, rsrc-only
  EXPECT_EQ(r.filesWritten, 2u);
  EXPECT_EQ(r.foldersCreated, 3u);
  EXPECT_EQ(fs::file_size(dest / "Root/rsrc-only"), 0u);
  EXPECT_EQ(rsrcFromSidecar(dest / "Root/._rsrc-only"), expectedRsrc(*v.vol().find("rsrc-only")));

  // Nothing marked at all: nothing is written.
  CheckController(&root, false).run();
  TempDir none;
  EXPECT_EQ(Saver(root, saveSourceOf(vol), nullptr).saveFilesAndFolders(none.path().string()).foldersCreated, 0u);
  EXPECT_TRUE(fs::is_empty(none.path()));
}

TEST(SaveProgress, ReportsCountEveryWrittenByteAndEndWithTheAlert) {
  TempDir dir;
  mk::VolumeSpec spec;
  spec.root = {fileSpec("a", 300000), fileSpec("b", 5000, 9000), fileSpec("c", 1)};
  BuiltVolume v = buildAndScan(dir, spec);
  RecordingController controller;
  const fs::path dest = dir / "out";
  const SaveResult r = saveAll(*v.scan.volume, dest, &controller);
  ASSERT_GE(controller.treeReports.size(), 3u);
  const auto& first = controller.treeReports.front();
  EXPECT_EQ(first.u64(progress::kBarMinValue, 99), 0u);
  EXPECT_EQ(first.u64(progress::kBarMaxValue), countMarkedDataAndFiles(*v.scan.volume->dirRoot).markedData);
  EXPECT_EQ(first.string(progress::kProgressStatus), "Saving Files ...");
  uint64_t sum = 0, last = 0;
  for (size_t i = 1; i + 1 < controller.treeReports.size(); ++i) {
    const auto& rep = controller.treeReports[i];
    sum += rep.u64(progress::kBarIncrement);
    EXPECT_GT(rep.u64(progress::kSavedData), last);
    last = rep.u64(progress::kSavedData);
    EXPECT_EQ(last, sum);
    EXPECT_EQ(rep.string(progress::kProgressStatus), "Saving Files ...");
  }
  EXPECT_EQ(sum, 300000u + 5000 + 9000 + 1);
  EXPECT_EQ(r.savedData, sum);
  const auto& end = controller.treeReports.back();
  EXPECT_EQ(end.string(progress::kProgressStatus), "Saving Completed");
  EXPECT_TRUE(end.contains(progress::kBarDoubleValue));
  ASSERT_EQ(controller.alerts.size(), 1u);
  EXPECT_EQ(controller.alerts[0].title, "Saving Completed");
  EXPECT_EQ(controller.alerts[0].message, "Saved at: " + dest.string());
  EXPECT_EQ(controller.alerts[0].buttons, std::vector<std::string>{"OK"});
}

TEST(SaveProgress, CountsAndTexts) {
  HDIR root;
  root.fileType = kHDIRFolder;
  EXPECT_EQ(markedDataText(countMarkedDataAndFiles(root)), "0 KB in 0 Files");
  auto add = [&](HDIR& to, uint16_t type, uint64_t size) {
    auto e = std::make_unique<HDIR>();
    e->fileType = type;
    e->fileSize = size;
    return to.addChild(std::move(e));
  };
  HDIR* sub = add(root, kHDIRFolder, 0);
  add(*sub, kHDIRFile, 1500000)->setSelected(1);
  add(root, kHDIRFile, 999)->setSelected(1);
  add(root, kHDIRFile, 5000);  // unmarked
  const MarkedCount c = countMarkedDataAndFiles(root);
  EXPECT_EQ(c.markedData, 1500999u);
  EXPECT_EQ(c.markedFiles, 2u);
  EXPECT_EQ(markedDataText(c), "1.50 MB in 2 Files");
  EXPECT_EQ(savedDataText(999999), "Saved: 1000.00 KB");
  EXPECT_EQ(savedDataText(1000000), "Saved: 1.00 MB");
  EXPECT_EQ(savedDataText(2500000000ULL), "Saved: 2.50 GB");
}

namespace {
// Stops the save after a number of write reports, as the Stop button would.
class StoppingController : public RecordingController {
 public:
  void updateTreeProgress(const ProgressReport& r) override {
    RecordingController::updateTreeProgress(r);
    if (r.contains(progress::kBarIncrement) && ++writes == stopAfter && saver) saver->abort();
  }
  Saver* saver = nullptr;
  int writes = 0;
  int stopAfter = 0;
};
}  // namespace

TEST(SaveAbort, StopInALargeFileKeepsWhatWasWrittenUnderAnIncompleteName) {
  TempDir dir;
  mk::VolumeSpec spec;
  spec.root = {fileSpec("a-large", 8 * 1024 * 1024), fileSpec("b-later", 1000)};
  BuiltVolume v = buildAndScan(dir, spec);
  Volume& vol = *v.scan.volume;
  markAll(vol);
  StoppingController controller;
  controller.stopAfter = 5;
  const fs::path dest = dir / "out";
  fs::create_directories(dest);
  Saver saver(*vol.dirRoot, saveSourceOf(vol), &controller);
  controller.saver = &saver;
  const SaveResult r = saver.saveFilesAndFolders(dest.string());
  EXPECT_TRUE(r.aborted);
  // Five writes of 1 MiB, then nothing more; the real name never holds a
  // part of a file.
  EXPECT_FALSE(fs::exists(dest / "Root/a-large"));
  const auto part = readFile(dest / "Root/a-large (incomplete)");
  EXPECT_EQ(part.size(), 5u << 20);
  const auto full = expectedData(*v.vol().find("a-large"));
  EXPECT_TRUE(std::equal(part.begin(), part.end(), full.begin()));
  EXPECT_FALSE(fs::exists(dest / "Root/b-later"));
  EXPECT_EQ(controller.treeReports.back().string(progress::kProgressStatus), "Saving Aborted");
  ASSERT_EQ(controller.alerts.size(), 1u);
  EXPECT_EQ(controller.alerts[0].title, "Saving Aborted");
  EXPECT_EQ(controller.alerts[0].message, "Saving location was: " + dest.string() +
                                              "\n0 files were saved whole.\n1 files are incomplete and were kept "
                                              "under names ending in \"(incomplete)\".");
  EXPECT_EQ(r.filesIncomplete, 1u);
  EXPECT_EQ(r.filesWritten, 0u);
}

TEST(SaveFailures, ReadFailureNoLongerAbandonsTheRestOfTheFolder) {
  // One bad sector used to end the save of its folder and every subfolder,
  // and left the part written under the file's real name.
  TempDir dir;
  mk::VolumeSpec spec;
  spec.root = {folderOf("A", {fileSpec("a-first", 100), fileSpec("b-bad", 200000), fileSpec("c-after", 100),
                                folderOf("d-sub", {fileSpec("deep", 10)})}),
               folderOf("B", {fileSpec("z", 4000)})};
  BuiltVolume v = buildAndScan(dir, spec);
  Volume& vol = *v.scan.volume;
  markAll(vol);
  const auto* bad = v.vol().find("A/b-bad");
  ASSERT_NE(bad, nullptr);
  RecordingSource rec{&vol};
  rec.failAtSector = v.vol().blockToSector(bad->dataExtents[0].startBlock + 20);  // in its third group
  RecordingController controller;
  const fs::path dest = dir / "out";
  fs::create_directories(dest);
  Saver saver(*vol.dirRoot, rec.source(), &controller);
  const SaveResult r = saver.saveFilesAndFolders(dest.string());
  EXPECT_EQ(r.failedReads, 1u);
  EXPECT_EQ(r.unreadableSectors, 1u);
  EXPECT_EQ(r.filesIncomplete, 1u);
  EXPECT_EQ(r.filesWritten, 4u);
  EXPECT_FALSE(r.aborted);
  EXPECT_EQ(pathsUnder(dest),
            (std::set<std::string>{"Root", "Root/A", "Root/A/a-first", "Root/A/b-bad (incomplete)", "Root/A/c-after",
                                   "Root/A/d-sub", "Root/A/d-sub/deep", "Root/B", "Root/B/z"}));
  // Everything but the one unreadable sector is the file's own bytes.
  auto got = readFile(dest / "Root/A/b-bad (incomplete)");
  auto want = expectedData(*bad);
  ASSERT_EQ(got.size(), want.size());
  const size_t hole = 20 * 4096;
  EXPECT_TRUE(std::all_of(got.begin() + hole, got.begin() + hole + 512, [](uint8_t b) { return b == 0; }));
  std::fill(want.begin() + hole, want.begin() + hole + 512, 0);
  EXPECT_TRUE(got == want);
  EXPECT_EQ(readFile(dest / "Root/A/c-after"), expectedData(*v.vol().find("A/c-after")));
  EXPECT_EQ(readFile(dest / "Root/A/d-sub/deep"), expectedData(*v.vol().find("A/d-sub/deep")));
  ASSERT_EQ(controller.alerts.size(), 1u);
  EXPECT_EQ(controller.alerts[0].title, "Saving Completed");
  EXPECT_NE(controller.alerts[0].message.find("1 files could not be read completely (1 sectors unreadable)"),
            std::string::npos);
  ASSERT_FALSE(r.problems.empty());
  EXPECT_NE(r.problems[0].find("b-bad (incomplete)"), std::string::npos);
}

TEST(SaveFailures, WriteFailuresAreCountedAndTheSaveGoesOn) {
  TempDir dir;
  mk::VolumeSpec spec;
  spec.root = {fileSpec("a-big", 200000), fileSpec("b-small", 1000), fileSpec("c-rsrc", 10, 150000)};
  BuiltVolume v = buildAndScan(dir, spec);
  RecordingController controller;
  const fs::path dest = dir / "out";
  rlimit old{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
  auto previous = std::signal(SIGXFSZ, SIG_IGN);
  rlimit small = old;
  small.rlim_cur = 100000;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  const SaveResult r = saveAll(*v.scan.volume, dest, &controller);
  ::setrlimit(RLIMIT_FSIZE, &old);
  std::signal(SIGXFSZ, previous);
  EXPECT_EQ(r.failedWrites, 2u);
  EXPECT_EQ(r.filesWritten, 1u);
  EXPECT_EQ(readFile(dest / "Root/b-small"), expectedData(*v.vol().find("b-small")));
  ASSERT_EQ(controller.alerts.size(), 1u);
  EXPECT_NE(controller.alerts[0].message.find("2 files could not be written; what was written of them was removed."),
            std::string::npos);
  EXPECT_EQ(pathsUnder(dest), (std::set<std::string>{"Root", "Root/b-small"}));
}

TEST(SaveDeep, FoldersDeeperThanTheOpenFolderLimit) {
  TempDir dir;
  mk::EntrySpec chain = fileSpec("bottom", 777);
  for (int d = 0; d < 150; ++d) chain = folderOf("level" + std::to_string(149 - d), {chain, fileSpec("f", 3 + d)});
  mk::VolumeSpec spec;
  spec.root = {chain, fileSpec("top", 5)};
  BuiltVolume v = buildAndScan(dir, spec);
  ASSERT_NE(v.scan.volume->dirRoot, nullptr);
  auto openFds = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()); };
  const auto before = openFds();
  const fs::path dest = dir / "out";
  const SaveResult r = saveAll(*v.scan.volume, dest);
  EXPECT_EQ(openFds(), before);
  EXPECT_FALSE(r.anyFailure());
  EXPECT_EQ(r.saveCount, 152);
  fs::path p = dest / "Root";
  for (int d = 0; d < 150; ++d) {
    EXPECT_EQ(fs::file_size(p / ("level" + std::to_string(d)) / "f"), uint64_t(3 + 149 - d)) << d;
    p /= "level" + std::to_string(d);
  }
  EXPECT_EQ(readFile(p / "bottom").size(), 777u);
  EXPECT_TRUE(fs::exists(dest / "Root/top"));
}

TEST(SaveDestination, WhatTheChecksBeforeASaveSee) {
  TempDir dir;
  const DestinationInfo here = destinationInfo(dir.path().string());
  EXPECT_TRUE(here.exists);
  EXPECT_TRUE(here.writable);
  EXPECT_GT(here.freeBytes, 0u);
  EXPECT_TRUE(here.infoAvailable);
  EXPECT_FALSE(here.canSaveSlashes);  // a temporary folder is never on HFS+
  EXPECT_FALSE(destinationInfo((dir / "missing").string()).exists);
  writeFile(dir / "file", {1});
  EXPECT_FALSE(destinationInfo((dir / "file").string()).exists);

  // Without an explicit choice the saver asks the destination, and never
  // moves the process's working directory.
  mk::VolumeSpec spec;
  spec.root = {fileSpec("a/b", 10)};
  BuiltVolume v = buildAndScan(dir, spec);
  const fs::path cwd = fs::current_path();
  saveAll(*v.scan.volume, dir / "out");
  EXPECT_EQ(fs::current_path(), cwd);
  EXPECT_EQ(fs::file_size(dir / "out/Root/a_b"), 10u);
}
