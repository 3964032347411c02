// A preview and a save over a drive that fails under them: what was read is
// kept and right, what was not is said, and a drive that goes away ends the
// preview or the save, never the program or what was already saved.
#include <fmt/format.h>

#include <atomic>
#include <filesystem>

#include "Damaged.h"
#include "output/Preview.h"

namespace ambrel::test {
namespace {

namespace fs = std::filesystem;

constexpr int kExitDriveGone = 4;

mk::VolumeSpec twentyFiles() {
  mk::VolumeSpec v;
  v.name = "Worn";
  std::vector<mk::EntrySpec> files;
  for (int i = 0; i < 20; ++i) files.push_back(sizedFile(fmt::format("f{:02}.bin", i), 40000 + 100 * i));
  v.root = {folderOf("Docs", std::move(files))};
  return v;
}

uint64_t firstSectorOf(const mk::VolumeLayout& v, const std::string& path, uint32_t block = 0) {
  return v.blockToSector(v.find(path)->dataExtents.at(0).startBlock + block);
}

TEST(PreviewOfAFailingDrive, KeepsWhatCameBeforeABadSectorAndClosesWhenTheDriveGoes) {
  BuiltDrive d(bareDrive(twentyFiles()));
  const mk::VolumeLayout& v = d.volume();
  const std::vector<uint8_t> whole = mk::generatedBytes(v.find("Docs/f05.bin")->dataSeed, 40500);
  for (const auto kind : {SectorFaults::Kind::IOError, SectorFaults::Kind::Short, SectorFaults::Kind::Vanish}) {
    SCOPED_TRACE(static_cast<int>(kind));
    Scanned s(d.path, 0, d.sectors(), "Normal Scan");
    ASSERT_TRUE(s.volume->dirRoot);
    HDIR* docs = s.volume->dirRoot->firstChildNamed("Docs");
    ASSERT_NE(docs, nullptr);
    const HDIR* file = docs->firstChildNamed("f05.bin");
    ASSERT_NE(file, nullptr);
    auto faults = std::make_shared<SectorFaults>();
    // The third block's second sector.
    faults->add(kind, firstSectorOf(v, "Docs/f05.bin", 2) + 1);
    s.volume->setSectorFaults(faults);
    std::atomic<bool> abort{false};
    std::vector<uint8_t> out;
    EXPECT_EQ(getPreviewData(previewSourceOf(*s.volume), *file, abort, out), PreviewLoad::ReadFailed);
    // The blocks before the bad one, right; nothing of the failed block.
    ASSERT_EQ(out.size(), 2u * v.blockSize);
    EXPECT_TRUE(std::equal(out.begin(), out.end(), whole.begin()));
    if (kind == SectorFaults::Kind::Vanish) {
      ASSERT_EQ(s.controller.alerts.size(), 1u);
      EXPECT_EQ(s.controller.alerts[0].title, "! Can not show preview");
      EXPECT_EQ(s.controller.alerts[0].message, "The Drive or Volume being read is no longer available.");
      EXPECT_EQ(s.controller.previewCloseCalls, 1);
      EXPECT_EQ(s.controller.terminateCalls, 0);
    } else {
      EXPECT_TRUE(s.controller.alerts.empty());
    }
  }
}

// The drive goes while f10 is read: the files saved before it stay whole,
// f10 is kept only under a name that says it is incomplete (or not at all),
// nothing after it passes for saved, and the command says the drive went.
TEST(SaveOfAVanishingDrive, KeepsWhatWasSavedAndLeavesNoCutFileUnmarked) {
  if (cliPath().empty()) GTEST_SKIP() << "AMBREL_CLI not set";
  BuiltDrive d(bareDrive(twentyFiles()));
  const mk::VolumeLayout& v = d.volume();
  // The files were laid out in name order: those before f10 are read first.
  const uint64_t gone = firstSectorOf(v, "Docs/f10.bin", 3);
  for (int i = 0; i < 10; ++i)
    ASSERT_LT(firstSectorOf(v, fmt::format("Docs/f{:02}.bin", i)), gone) << "unexpected layout";
  const fs::path out = d.dir / "out";
  const CliRun r = runCli("recover " + shellQuoted(d.path) + " --out " + shellQuoted(out.string()),
                          fmt::format("vanish:{}", gone));
  EXPECT_EQ(r.status, kExitDriveGone) << r.out << r.err;
  EXPECT_NE(r.err.find("The Drive or Volume being read is no longer available."), std::string::npos) << r.err;

  size_t whole = 0;
  for (const auto& e : fs::directory_iterator(out / "Root" / "Docs")) {
    const std::string name = e.path().filename().string();
    if (name.find("(incomplete)") != std::string::npos) continue;  // says so itself
    ASSERT_EQ(name.size(), 7u) << name;
    const mk::FileLayout* f = v.find("Docs/" + name);
    ASSERT_NE(f, nullptr) << name;
    // Anything under its own name is whole and right.
    EXPECT_EQ(readFile(e.path()), mk::generatedBytes(f->dataSeed, f->dataSize)) << name;
    ++whole;
  }
  EXPECT_EQ(whole, 10u);
}

}  // namespace
}  // namespace ambrel::test
