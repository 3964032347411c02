// Names a damaged catalog can hold never lead outside the chosen folder and
// never make one saved file replace another.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "output/AppleDouble.h"
#include "output/OutputHelpers.h"
#include "output/SafeName.h"

using namespace ambrel;
using namespace ambrel::test;
namespace fs = std::filesystem;

// A save with "/" written as the caller says and no final alert.
static Saver::Options slashesAs(bool canSaveSlashes) {
  Saver::Options o;
  o.canSaveSlashes = canSaveSlashes;
  o.finalAlert = false;
  return o;
}

TEST(SafeName, SlashesFollowTheDestinationType) {
  EXPECT_EQ(madeName("one/two", true), "one:two");
  EXPECT_EQ(madeName("one/two", false), "one_two");
  EXPECT_EQ(madeName("a//b", true), "a::b");
  EXPECT_EQ(madeName("a//b", false), "a__b");
  EXPECT_EQ(madeName("end/", true), "end:");
  EXPECT_EQ(madeName("end/", false), "end_");
  EXPECT_EQ(madeName("co:lon \xC3\xA9", false), "co:lon \xC3\xA9");
}

TEST(SafeName, NamesThatCannotBeCreatedAreMadeSafe) {
  bool changed = false;
  EXPECT_EQ(safeName("..", 255, &changed), "_..");
  EXPECT_TRUE(changed);
  EXPECT_EQ(safeName(".", 255), "_.");
  EXPECT_EQ(safeName("", 255), "_");
  EXPECT_EQ(safeName(std::string("a\0b", 3), 255), "a_b");
  EXPECT_EQ(safeName("...", 255, &changed), "...");
  EXPECT_FALSE(changed);
  EXPECT_EQ(safeName("plain.txt", 255, &changed), "plain.txt");
  EXPECT_FALSE(changed);

  // Too long: cut, keeping the extension and whole UTF-8 characters.
  const std::string longName = std::string(300, 'n') + ".txt";
  const std::string cut = safeName(longName, 255, &changed);
  EXPECT_TRUE(changed);
  EXPECT_EQ(cut.size(), 255u);
  EXPECT_EQ(cut.substr(cut.size() - 4), ".txt");
  std::string accents;
  for (int i = 0; i < 200; ++i) accents += "\xC3\xA9";  // 400 bytes
  const std::string cutAccents = safeName(accents, 255);
  EXPECT_EQ(cutAccents.size(), 254u);
  EXPECT_EQ(cutAccents, accents.substr(0, 254));
  // An extension too long to be worth keeping is cut like the rest.
  const std::string longExt = "x." + std::string(300, 'e');
  EXPECT_EQ(safeName(longExt, 255), longExt.substr(0, 255));
}

TEST(SafeName, NumbersGoBeforeTheExtensionAndStillFit) {
  EXPECT_EQ(numberedName("photo.jpg", 1, 255), "photo.jpg");
  EXPECT_EQ(numberedName("photo.jpg", 2, 255), "photo (2).jpg");
  EXPECT_EQ(numberedName("archive.tar.gz", 3, 255), "archive.tar (3).gz");
  EXPECT_EQ(numberedName("README", 2, 255), "README (2)");
  EXPECT_EQ(numberedName(".bashrc", 2, 255), ".bashrc (2)");
  const std::string full = std::string(251, 'n') + ".txt";
  const std::string second = numberedName(full, 2, 255);
  EXPECT_EQ(second.size(), 255u);
  EXPECT_EQ(second.substr(second.size() - 8), " (2).txt");
  EXPECT_NE(second, numberedName(full, 3, 255));
}

namespace {

HDIR* addFileLike(HDIR& folder, const HDIR& like, const std::string& name) {
  HDIR* e = folder.addChild(like);
  e->setFileName(name);
  return e;
}

}  // namespace

TEST(SaveNames, HostileNamesStayInsideTheDestinationAndNeverReplaceEachOther) {
  TempDir dir;
  std::string accents;
  for (int i = 0; i < 250; ++i) accents += "\xC3\xA9";  // 250 UTF-16 units, 500 bytes
  mk::VolumeSpec spec;
  spec.hfsx = true;  // case-only duplicates are different names here
  spec.root = {fileSpec("..", 101), fileSpec(std::string("a\0b", 3), 103), fileSpec("a_b", 104),
               fileSpec("x/y", 105), fileSpec("x_y", 106), fileSpec(accents, 107), fileSpec("Readme", 108),
               fileSpec("README", 109), fileSpec("f", 110, 2000), fileSpec("._f", 111),
               folderOf(".", {fileSpec("up", 113)}), folderOf("dir/..", {fileSpec("escape", 112)})};
  BuiltVolume v = buildAndScan(dir, spec);
  Volume& vol = *v.scan.volume;
  ASSERT_NE(vol.dirRoot, nullptr);
  // Names no catalog can hold but a damaged tree can: empty, 300 bytes long,
  // and folders whose names collide with files.
  const HDIR& like = *vol.dirRoot->firstChildNamed("Readme");
  addFileLike(*vol.dirRoot, like, "");
  addFileLike(*vol.dirRoot, like, std::string(300, 'L') + ".txt");
  addFileLike(*vol.dirRoot, like, std::string(300, 'L') + ".txt");
  markAll(vol);

  writeFile(dir / "sentinel", {1, 2, 3});
  const auto outsideBefore = pathsUnder(dir.path());
  const fs::path dest = dir / "out";
  fs::create_directories(dest);
  Saver saver(*vol.dirRoot, saveSourceOf(vol), nullptr, slashesAs(false));
  const SaveResult r = saver.saveFilesAndFolders(dest.string());
  EXPECT_FALSE(r.anyFailure()) << (r.problems.empty() ? "" : r.problems[0]);

  // Nothing appeared outside the destination, nothing there changed.
  auto outsideAfter = pathsUnder(dir.path());
  for (auto it = outsideAfter.begin(); it != outsideAfter.end();)
    it = it->rfind("out", 0) == 0 ? outsideAfter.erase(it) : std::next(it);
  EXPECT_EQ(outsideAfter, outsideBefore);
  EXPECT_EQ(readFile(dir / "sentinel"), (std::vector<uint8_t>{1, 2, 3}));

  // Every file's bytes are there exactly once: nothing was replaced.
  std::vector<uint64_t> sizes;
  for (const auto& [path, bytes] : filesUnder(dest)) {
    if (fs::path(path).filename() == "._f (2)") continue;  // the sidecar of "f"
    EXPECT_LE(fs::path(path).filename().string().size(), 255u) << path;
    sizes.push_back(bytes.size());
  }
  std::sort(sizes.begin(), sizes.end());
  EXPECT_EQ(sizes, (std::vector<uint64_t>{101, 103, 104, 105, 106, 107, 108, 108, 108, 108, 109, 110, 111, 112, 113}));

  const fs::path root = dest / "Root";
  EXPECT_EQ(fs::file_size(root / "_.."), 101u);
  EXPECT_EQ(fs::file_size(root / "a_b"), 103u);
  EXPECT_EQ(fs::file_size(root / "a_b (2)"), 104u);
  EXPECT_EQ(fs::file_size(root / "x_y"), 105u);
  EXPECT_EQ(fs::file_size(root / "x_y (2)"), 106u);
  EXPECT_EQ(fs::file_size(root / "Readme"), 108u);
  EXPECT_EQ(fs::file_size(root / "README"), 109u);
  // "._f" comes first in the catalog, so "f" moves aside with its sidecar.
  EXPECT_EQ(fs::file_size(root / "._f"), 111u);
  EXPECT_EQ(fs::file_size(root / "f (2)"), 110u);
  const auto sidecar = readFile(root / "._f (2)");
  const auto parsed = parseAppleDouble(sidecar.data(), sidecar.size());
  ASSERT_TRUE(parsed);
  EXPECT_EQ(parsed->find(kAppleDoubleResourceFork)->length, 2000u);
  EXPECT_EQ(fs::file_size(root / "_"), 108u);
  EXPECT_EQ(fs::file_size(root / "_." / "up"), 113u);
  EXPECT_EQ(fs::file_size(root / "dir_.." / "escape"), 112u);
  EXPECT_GE(r.renamed, 10u);
  EXPECT_EQ(r.renames.size(), r.renamed);
}

TEST(SaveNames, HfsDestinationsKeepSlashesAsColons) {
  TempDir dir;
  mk::VolumeSpec spec;
  spec.root = {fileSpec("x/y", 10), fileSpec("x:y", 20)};
  BuiltVolume v = buildAndScan(dir, spec);
  markAll(*v.scan.volume);
  Saver saver(*v.scan.volume->dirRoot, saveSourceOf(*v.scan.volume), nullptr, slashesAs(true));
  const SaveResult r = saver.saveFilesAndFolders(dir.path().string());
  EXPECT_EQ(fs::file_size(dir / "Root" / "x:y"), 10u);
  EXPECT_EQ(fs::file_size(dir / "Root" / "x:y (2)"), 20u);
  EXPECT_EQ(r.renamed, 1u);
}

TEST(SaveNames, ASecondSaveIntoTheSameFolderKeepsTheFirst) {
  TempDir dir;
  mk::VolumeSpec spec;
  spec.root = {fileSpec("a", 10)};
  BuiltVolume v = buildAndScan(dir, spec);
  markAll(*v.scan.volume);
  const fs::path dest = dir / "out";
  fs::create_directories(dest / "Root");
  writeFile(dest / "Root" / "a", {9});
  Saver saver(*v.scan.volume->dirRoot, saveSourceOf(*v.scan.volume), nullptr);
  saver.saveFilesAndFolders(dest.string());
  saver.saveFilesAndFolders(dest.string());
  EXPECT_EQ(readFile(dest / "Root" / "a"), std::vector<uint8_t>{9});
  EXPECT_EQ(fs::file_size(dest / "Root (2)" / "a"), 10u);
  EXPECT_EQ(fs::file_size(dest / "Root (3)" / "a"), 10u);
}

TEST(SaveNames, ASymbolicLinkInTheWayIsNeverFollowed) {
  TempDir dir;
  mk::VolumeSpec spec;
  spec.root = {fileSpec("target", 10), folderOf("sub", {fileSpec("inner", 5)})};
  BuiltVolume v = buildAndScan(dir, spec);
  markAll(*v.scan.volume);
  const fs::path dest = dir / "out";
  const fs::path elsewhere = dir / "elsewhere";
  fs::create_directories(elsewhere);
  fs::create_directories(dest / "Root (2)");
  // A destination prepared to redirect what a naive saver would write.
  fs::create_directory_symlink(elsewhere, dest / "Root");
  fs::create_symlink(elsewhere / "stolen", dest / "Root (2)" / "target");
  fs::create_directory_symlink(elsewhere, dest / "Root (2)" / "sub");
  Saver saver(*v.scan.volume->dirRoot, saveSourceOf(*v.scan.volume), nullptr);
  const SaveResult r = saver.saveFilesAndFolders(dest.string());
  EXPECT_FALSE(r.anyFailure());
  EXPECT_TRUE(fs::is_empty(elsewhere));
  EXPECT_EQ(fs::file_size(dest / "Root (3)" / "target"), 10u);
  EXPECT_EQ(fs::file_size(dest / "Root (3)" / "sub" / "inner"), 5u);
}
