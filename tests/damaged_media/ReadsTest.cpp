// Reads that come back short: nothing of an earlier read may stay in the
// buffer and pass for what the drive holds.
#include "Damaged.h"

namespace ambrel::test {
namespace {

// Cut one sector into a leaf in the middle of the chain: the leaves after it
// lie past the image's end. Neither the scan nor the listing may show a file
// twice.
TEST(TruncatedCatalog, ListsEveryFileOnceWithoutPhantomCopies) {
  BuiltDrive d(bareDrive(generatedVolume(300, 10)));
  const auto leaves = leavesOf(d.volume().catalog);
  ASSERT_GE(leaves.size(), 6u);
  const uint64_t cut = leaves[leaves.size() / 2]->sector + 1;
  d.truncateTo(cut * 512);

  Scanned s(d.path, 0, cut, "Normal Scan");
  ASSERT_TRUE(s.volume->dirRoot);
  const auto counts = idCounts(*s.volume->dirRoot);
  size_t files = 0;
  for (const auto& [id, n] : counts) {
    EXPECT_EQ(n, 1) << "catalog node ID " << id << " listed " << n << " times";
    files += liveFileIDs(d.volume()).count(id);
  }
  // What the leaves before the cut hold is still there.
  EXPECT_GT(files, 50u);
  EXPECT_LT(files, 300u);

  if (cliPath().empty()) GTEST_SKIP() << "AMBREL_CLI not set";
  const CliRun r = runCli("tree " + shellQuoted(d.path));
  std::map<std::string, int> ids;
  size_t start = r.out.find('\n') + 1;
  for (size_t end; (end = r.out.find('\n', start)) != std::string::npos; start = end + 1) {
    const std::string line = r.out.substr(start, end - start);
    const size_t a = line.find('\t') + 1, b = line.find('\t', a) + 1;
    ++ids[line.substr(b, line.find('\t', b) - b)];
  }
  ASSERT_GT(ids.size(), 50u) << r.err;
  for (const auto& [id, n] : ids) EXPECT_EQ(n, 1) << "fileID " << id;
}

}  // namespace
}  // namespace ambrel::test
