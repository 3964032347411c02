// `ambrel-cli deleted`: the listing of a partition's deleted files, and their
// bytes saved with --out.
#include <gtest/gtest.h>

#include <set>

#include "deleted/DeletedHelpers.h"
#include "support/CliRun.h"

using namespace ambrel;
using namespace ambrel::test;

namespace {

struct Drive {
  TempDir dir;
  std::string image = (dir / "drive.img").string();
  mk::DriveLayout layout;
  const mk::VolumeLayout& volume() const { return *layout.partitions[0].volume; }
};

std::unique_ptr<Drive> driveWithDeletions() {
  auto d = std::make_unique<Drive>();
  mk::DriveSpec spec;
  spec.table = mk::TableKind::GPT;
  mk::PartitionSpec p;
  p.volume = mk::VolumeSpec{};
  p.volume->journal = true;
  p.volume->root = {folderEntry("Docs", {fileEntry("kept.txt", 3000), fileEntry("erased.txt", 12345, true)}),
                    folderEntry("Trip", {fileEntry("day 1.jpg", 40000), fileEntry("day 2.jpg", 50000)}, true)};
  spec.partitions = {p};
  d->layout = mk::buildImage(spec, d->image);
  return d;
}

}  // namespace

TEST(CliDeleted, ListsTheDeletedFilesOfAPartitionByPathAndSavesTheirBytes) {
  auto d = driveWithDeletions();
  std::string out;
  ASSERT_EQ(runCommand(cliPath() + " deleted --volume 1 '" + d->image + "' 2>/dev/null", &out), 0) << out;
  EXPECT_EQ(out.rfind("path\ttype\tfileID", 0), 0u) << out;
  const auto paths = listedPaths(out);
  size_t deleted = 0;
  for (const auto& e : d->volume().entries) {
    if (!e.deleted) continue;
    ++deleted;
    EXPECT_EQ(paths.count("/Root/" + e.path), 1u) << e.path;
  }
  EXPECT_EQ(deleted, 4u);

  std::string json;
  ASSERT_EQ(runCommand(cliPath() + " deleted --format json --volume 1 '" + d->image + "' 2>/dev/null", &json), 0);
  EXPECT_NE(json.find("\"path\":\"/Root/Docs/erased.txt\",\"type\":\"file\""), std::string::npos) << json;

  const std::string saved = (d->dir / "saved").string();
  ASSERT_EQ(runCommand(cliPath() + " deleted --volume 1 '" + d->image + "' --out '" + saved + "' 2>&1", &out), 0) << out;
  for (const auto& e : d->volume().entries) {
    if (!e.deleted || e.folder) continue;
    SCOPED_TRACE(e.path);
    auto want = builtData(e);
    ASSERT_TRUE(want.has_value());
    EXPECT_TRUE(readFile(std::filesystem::path(saved) / "Root" / e.path) == *want);
  }
}

TEST(CliDeleted, SizeNameAndCarveOptionsChooseWhatIsListedAndSavedOrAreRefused) {
  auto d = driveWithDeletions();
  const auto listed = [&](const std::string& args) {
    std::string out;
    EXPECT_EQ(runCommand(cliPath() + " deleted --volume 1 " + args + " '" + d->image + "' 2>/dev/null", &out), 0) << out;
    return listedPaths(out);
  };
  // The deleted folder's files pass by extension; the folders above them stay.
  EXPECT_EQ(listed("--ext JPG"), (std::set<std::string>{"/Root", "/Root/Trip", "/Root/Trip/day 1.jpg",
                                                         "/Root/Trip/day 2.jpg"}));
  EXPECT_EQ(listed("--min-size 45KB"), (std::set<std::string>{"/Root", "/Root/Trip", "/Root/Trip/day 2.jpg"}));
  EXPECT_EQ(listed("--name 'erased*' --match-case"),
            (std::set<std::string>{"/Root", "/Root/Docs", "/Root/Docs/erased.txt"}));
  EXPECT_EQ(listed("--name 'ERASED*' --match-case"), std::set<std::string>{"/Root"});

  const auto saved = d->dir / "saved";
  std::string out;
  ASSERT_EQ(runCommand(cliPath() + " deleted --volume 1 --min-size 10000 --max-size 20000 '" + d->image + "' --out '" + saved.string() +
                           "' 2>&1",
                       &out),
            0)
      << out;
  std::set<std::string> files;
  for (const auto& e : std::filesystem::recursive_directory_iterator(saved))
    if (e.is_regular_file()) files.insert(std::filesystem::relative(e.path(), saved).string());
  EXPECT_EQ(files, std::set<std::string>{"Root/Docs/erased.txt"});
  const auto* erased = d->volume().find("Docs/erased.txt");
  ASSERT_NE(erased, nullptr);
  EXPECT_TRUE(readFile(saved / "Root/Docs/erased.txt") == *builtData(*erased));

  // A bad value or an unknown carve type is refused before the drive is
  // read, and nothing passing is said so.
  EXPECT_EQ(runCommand(cliPath() + " deleted --min-size lots '" + d->image + "' 2>&1", &out), 2) << out;
  EXPECT_NE(out.find("--min-size \"lots\" is not a size"), std::string::npos) << out;
  EXPECT_EQ(runCommand(cliPath() + " deleted --carve nosuchtype '" + d->image + "' 2>&1", &out), 2) << out;
  EXPECT_NE(out.find("nosuchtype"), std::string::npos) << out;
  EXPECT_NE(runCommand(cliPath() + " deleted --carve jpg --carve-all '" + d->image + "' 2>&1", &out), 0);
  EXPECT_NE(runCommand(cliPath() + " deleted --volume 1 --ext doc '" + d->image + "' --out '" + (d->dir / "none").string() +
                           "' 2>&1",
                       &out),
            0);
  EXPECT_NE(out.find("no file passes the size and name filters"), std::string::npos) << out;
}
