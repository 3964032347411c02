// `ambrel-cli deleted`: the listing of a partition's deleted files, and their
// bytes saved with --out.
#include <gtest/gtest.h>

#include <cstdlib>
#include <set>
#include <sstream>

#include "deleted/DeletedHelpers.h"

using namespace ambrel;
using namespace ambrel::test;

namespace {

std::string cli() {
  const char* p = std::getenv("AMBREL_CLI");
  return p ? p : "ambrel-cli";
}

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
  ASSERT_EQ(runCommand(cli() + " deleted --volume 1 '" + d->image + "' 2>/dev/null", &out), 0) << out;
  std::set<std::string> paths;
  std::istringstream in(out);
  std::string line;
  std::getline(in, line);
  EXPECT_EQ(line.rfind("path\ttype\tfileID", 0), 0u) << line;
  while (std::getline(in, line)) paths.insert(line.substr(0, line.find('\t')));
  size_t deleted = 0;
  for (const auto& e : d->volume().entries) {
    if (!e.deleted) continue;
    ++deleted;
    EXPECT_EQ(paths.count("/Root/" + e.path), 1u) << e.path;
  }
  EXPECT_EQ(deleted, 4u);

  std::string json;
  ASSERT_EQ(runCommand(cli() + " deleted --format json --volume 1 '" + d->image + "' 2>/dev/null", &json), 0);
  EXPECT_NE(json.find("\"path\":\"/Root/Docs/erased.txt\",\"type\":\"file\""), std::string::npos) << json;

  const std::string saved = (d->dir / "saved").string();
  ASSERT_EQ(runCommand(cli() + " deleted --volume 1 '" + d->image + "' --out '" + saved + "' 2>&1", &out), 0) << out;
  for (const auto& e : d->volume().entries) {
    if (!e.deleted || e.folder) continue;
    SCOPED_TRACE(e.path);
    auto want = builtData(e);
    ASSERT_TRUE(want.has_value());
    EXPECT_TRUE(readFile(std::filesystem::path(saved) / "Root" / e.path) == *want);
  }
}

TEST(CliDeleted, RefusesAnUnknownCarveTypeBeforeReadingTheDrive) {
  auto d = driveWithDeletions();
  std::string out;
  EXPECT_EQ(runCommand(cli() + " deleted --carve nosuchtype '" + d->image + "' 2>&1", &out), 2) << out;
  EXPECT_NE(out.find("nosuchtype"), std::string::npos) << out;
  EXPECT_NE(runCommand(cli() + " deleted --carve jpg --carve-all '" + d->image + "' 2>&1", &out), 0);
}
