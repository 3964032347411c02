// What a user of `ambrel-cli tree` relies on: the listing's columns, the
// names a scan must make unique, and what the scan leaves out on purpose.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <set>

#include "ImageBuilder.h"
#include "scan/ContentCheck.h"
#include "scan/ScanHelpers.h"
#include "support/BuiltEntries.h"

using namespace ambrel;
using namespace ambrel::test;
namespace mk = ambrel::mkimage;

namespace {

std::string cli() {
  const char* p = std::getenv("AMBREL_CLI");
  return p ? p : "ambrel-cli";
}

// Replaces every UTF-16BE occurrence of `from` by `to` (same length) in the image.
void renameOnDisk(const std::string& image, const std::u16string& from, const std::u16string& to) {
  std::vector<uint8_t> bytes = readFile(image);
  auto be = [](const std::u16string& s) {
    std::vector<uint8_t> out;
    for (char16_t c : s) {
      out.push_back(static_cast<uint8_t>(c >> 8));
      out.push_back(static_cast<uint8_t>(c & 0xFF));
    }
    return out;
  };
  const auto a = be(from), b = be(to);
  int replaced = 0;
  for (auto it = std::search(bytes.begin(), bytes.end(), a.begin(), a.end()); it != bytes.end();
       it = std::search(it + 1, bytes.end(), a.begin(), a.end())) {
    std::copy(b.begin(), b.end(), it);
    ++replaced;
  }
  ASSERT_GT(replaced, 0);
  writeFile(image, bytes);
}

}  // namespace

TEST(TreeListing, DuplicateNamesInOneFolderAreMadeUnique) {
  mk::VolumeSpec v;
  v.root = {sizedFile("report.txt", 10), sizedFile("reporu.txt", 20), sizedFile("reporv.txt", 30), sizedFile("README", 1),
            sizedFile("READMF", 2), sizedFile("READMG", 3)};
  auto b = buildVolume(v);
  const std::string& image = b->image;
  // Two records per name become duplicates of the first.
  renameOnDisk(image, u"reporu.txt", u"report.txt");
  renameOnDisk(image, u"reporv.txt", u"report.txt");
  renameOnDisk(image, u"READMF", u"README");
  renameOnDisk(image, u"READMG", u"README");

  ScanResult r = scan(image, 0, b->layout.sizeSectors, "Normal Scan");
  // Without an extension every repeat gets a single underscore, so the third
  // README is named "README_" too.
  std::multiset<std::pair<std::string, uint64_t>> names;
  for (const auto& c : r.volume->dirRoot->children()) names.emplace(c->fileName(), c->dataSize);
  EXPECT_EQ(names, (std::multiset<std::pair<std::string, uint64_t>>{{"report.txt", 10}, {"report_.txt", 20},
                                                                    {"report__.txt", 30}, {"README", 1},
                                                                    {"README_", 2}, {"README_", 3}}))
      << ::testing::PrintToString(names);
}

TEST(TreeListing, FilesOfFourGiBAndMoreAreLeftOut) {
  if (!haveTool("fls")) GTEST_SKIP() << "The Sleuth Kit missing";
  mk::VolumeSpec v;
  mk::EntrySpec huge = sizedFile("huge.bin", uint64_t{4} << 30);
  huge.sparse = true;  // costs no disk space
  v.root = {sizedFile("small.bin", 5000), huge, sizedFile("just-under.bin", 8192)};
  auto b = buildVolume(v);
  ScanResult r = scan(b->image, 0, b->layout.sizeSectors, "Normal Scan");
  const auto fls = flsTree(b->image, 0);
  ASSERT_EQ(fls.count("huge.bin"), 1u);
  auto expected = keptByScan(fls);
  expected.erase("huge.bin");
  EXPECT_SAME_TREE(treeOf(*r.volume), expected);
}

TEST(TreeListing, CliPrintsEveryEntryInPreOrderAsTsvOrJson) {
  TempDir dir;
  mk::DriveSpec d;
  d.table = mk::TableKind::GPT;
  for (const char* name : {"First", "Second"}) {
    mk::PartitionSpec p;
    mk::VolumeSpec v;
    v.name = name;
    mk::EntrySpec folder;
    folder.name = std::string(name) + " folder";
    folder.folder = true;
    mk::EntrySpec a = sizedFile("a.txt", 5000);
    a.created = mk::hfsDateFromUnix(1700000000);  // 2023-11-14T22:13:20Z
    a.modified = mk::hfsDateFromUnix(1700003600);
    a.dataFragments = 2;
    a.rsrcSize = 100;
    folder.children = {a};
    v.root = {folder};
    p.volume = v;
    d.partitions.push_back(p);
  }
  const std::string image = (dir / "drive.img").string();
  const auto layout = mk::buildImage(d, image);
  const auto& second = *layout.partitions[1].volume;
  const auto* a = second.find("Second folder/a.txt");
  ASSERT_NE(a, nullptr);

  std::string out;
  ASSERT_EQ(runCommand(cli() + " tree --volume 2 '" + image + "' 2>/dev/null", &out), 0);
  std::vector<std::string> lines;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  ASSERT_EQ(lines.size(), 4u) << out;
  EXPECT_EQ(lines[0],
            "path\ttype\tfileID\tparentID\tfileSize\tdataSize\trscSize\tfileCount\tcreated\tmodified\tdataExtents\trscExtents"
            "\tconfidence");
  EXPECT_EQ(lines[1], "/Root\tfolder\t2\t1\t5100\t0\t0\t1\t\t\t\t\t");
  EXPECT_EQ(lines[2].rfind("/Root/Second folder\tfolder\t16\t2\t5100\t0\t0\t1\t", 0), 0u) << lines[2];
  std::string extents;
  for (const auto& e : a->dataExtents) extents += (extents.empty() ? "" : ",") + std::to_string(e.startBlock) + "+" + std::to_string(e.blockCount);
  const std::string rsrc = std::to_string(a->rsrcExtents[0].startBlock) + "+1";
  EXPECT_EQ(lines[3], "/Root/Second folder/a.txt\tfile\t" + std::to_string(a->cnid) + "\t16\t5100\t5000\t100\t1\t" +
                          "2023-11-14T22:13:20Z\t2023-11-14T23:13:20Z\t" + extents + "\t" + rsrc + "\tsure");

  // JSON: the same rows, read back by an independent parser.
  const std::string py =
      "import json,sys; rows=json.load(sys.stdin); "
      "print(len(rows), rows[2]['path'], rows[2]['dataSize'], rows[2]['created'], rows[0]['parentID'], sorted(rows[0]))";
  out.clear();
  ASSERT_EQ(runCommand(cli() + " tree --volume 2 --format json '" + image + "' 2>/dev/null | python3 -c \"" + py + "\" 2>&1", &out), 0) << out;
  EXPECT_EQ(out,
            "3 /Root/Second folder/a.txt 5000 2023-11-14T22:13:20Z 1 ['confidence', 'created', 'dataExtents', 'dataSize', "
            "'fileCount', 'fileID', 'fileSize', 'modified', 'parentID', 'path', 'rscExtents', 'rscSize', 'type']\n");

  // Bad choices are refused with a reason.
  out.clear();
  EXPECT_NE(runCommand(cli() + " tree --volume 3 '" + image + "' 2>&1", &out), 0);
  EXPECT_NE(out.find("there is no volume 3"), std::string::npos) << out;
  out.clear();
  EXPECT_NE(runCommand(cli() + " tree --format xml '" + image + "' 2>&1", &out), 0);
}

TEST(TreeListing, CliReadsABareVolumeAndAnExplicitRange) {
  mk::VolumeSpec v;
  v.root = {sizedFile("only.txt", 42)};
  auto b = buildVolume(v);
  const std::string& image = b->image;
  std::string bare, range;
  ASSERT_EQ(runCommand(cli() + " tree '" + image + "' 2>/dev/null", &bare), 0);
  EXPECT_NE(bare.find("/Root/only.txt\tfile\t"), std::string::npos) << bare;
  ASSERT_EQ(runCommand(cli() + " tree --start 0 --sectors " + std::to_string(b->layout.sizeSectors) + " '" +
                           image + "' 2>/dev/null",
                       &range),
            0);
  EXPECT_EQ(bare, range);

  std::string out;
  EXPECT_NE(runCommand(cli() + " tree --start 0 '" + image + "' 2>&1", &out), 0);
  out.clear();
  EXPECT_EQ(runCommand(cli() + " tree --start 1 --sectors 100 '" + image + "' 2>&1", &out), 1);
  EXPECT_NE(out.find("try --advanced"), std::string::npos) << out;
}

// A file whose content may be wrong says so: in the listing's confidence
// column, and again when it is saved. One whose extents are missing cannot be
// saved whole at all, and is told as cut short rather than as uncertain.
TEST(TreeListing, FilesOfUncertainContentAreFlaggedInTheListingAndTheSaveSummary) {
  TempDir dir;
  mk::DriveSpec d;
  d.table = mk::TableKind::None;
  mk::VolumeSpec v;
  mk::EntrySpec scattered = sizedFile("scattered.bin", 12 * 4096);
  scattered.dataFragments = 12;  // four extents only the extents file knows
  v.root = {scattered, sizedFile("whole.txt", 3000)};
  v.damage.extentsHeaderCorrupted = true;
  d.volume = v;
  const std::string image = (dir / "vol.img").string();
  mk::buildImage(d, image);

  std::string out;
  ASSERT_EQ(runCommand(cli() + " tree '" + image + "' 2>/dev/null", &out), 0);
  std::map<std::string, std::string> confidence;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) {
    const std::string path = line.substr(0, line.find('\t'));
    confidence[path] = line.substr(line.rfind('\t') + 1);
  }
  EXPECT_EQ(confidence["path"], "confidence");
  EXPECT_EQ(confidence["/Root"], "");
  EXPECT_EQ(confidence["/Root/scattered.bin"], "extents missing");
  EXPECT_EQ(confidence["/Root/whole.txt"], "sure");
  std::string treeErr;
  runCommand(cli() + " tree '" + image + "' 2>&1 >/dev/null", &treeErr);
  EXPECT_NE(treeErr.find("1 files listed whose content may not be right"), std::string::npos) << treeErr;

  auto recover = [&](const std::string& flags, const std::string& img, const std::string& outDir, std::string& err) {
    std::string stdoutText;
    const int rc = runCommand(cli() + " recover " + flags + " --out '" + (dir / outDir).string() + "' '" + img +
                                  "' 2>" + (dir / "err.txt").string(),
                              &stdoutText);
    const std::vector<uint8_t> errBytes = readFile(dir / "err.txt");
    err.assign(errBytes.begin(), errBytes.end());
    EXPECT_EQ(rc, 0) << stdoutText << err;
    return stdoutText;
  };
  std::string err;
  out = recover("", image, "out", err);
  EXPECT_NE(err.find("/Root/scattered.bin is cut short"), std::string::npos) << err;
  EXPECT_EQ(out.find("may not be right"), std::string::npos) << out;
  EXPECT_EQ(err.find("whole.txt"), std::string::npos) << err;

  // An earlier version whose blocks hold another file's bytes now: saved
  // whole, and flagged.
  mk::VolumeSpec rewritten;
  mk::EntrySpec reused = sizedFile("rewritten.dat", 9000);
  reused.previousSize = 6000;
  reused.previousBlocksReused = true;
  rewritten.root = {reused, sizedFile("whole.txt", 3000)};
  rewritten.damage.oldNodeCopies = 4;
  d.volume = rewritten;
  const std::string image2 = (dir / "rewritten.img").string();
  mk::buildImage(d, image2);
  out = recover("--advanced", image2, "out2", err);
  EXPECT_NE(out.find("Saved with content that may not be right: 1\n"), std::string::npos) << out;
  EXPECT_NE(err.find("uncertain: /Root/rewritten_.dat (blocks reused)"), std::string::npos) << err;
  EXPECT_EQ(err.find("whole.txt"), std::string::npos) << err;
}

// A disk image kept as a file holds another volume's catalog nodes, whose
// block numbers are that volume's: the advanced scan leaves them out rather
// than list their files over this volume's blocks.
TEST(TreeListing, CatalogNodesInsideADiskImageFileAreNotListedAsThisVolumes) {
  TempDir dir;
  mk::DriveSpec inner;
  inner.table = mk::TableKind::None;
  mk::VolumeSpec iv;
  for (int i = 1; i <= 5; ++i) iv.root.push_back(sizedFile("inside-" + std::to_string(i) + ".txt", 5000 + i));
  inner.volume = iv;
  mk::buildImage(inner, dir / "inner.img");

  mk::DriveSpec outer;
  outer.table = mk::TableKind::None;
  mk::VolumeSpec ov;
  mk::EntrySpec image = sizedFile("inner.dmg", 0);
  image.data = readFile(dir / "inner.img");
  ov.root = {image, sizedFile("outside.txt", 7000)};
  outer.volume = ov;
  const auto layout = mk::buildImage(outer, dir / "outer.img");

  ScanResult r = scan((dir / "outer.img").string(), 0, layout.sizeBytes / 512, "Advanced Scan");
  ASSERT_TRUE(r.volume->dirRoot);
  const auto tree = treeOf(*r.volume);
  std::string listed;
  for (const auto& [path, what] : tree) listed += path + "\n";
  EXPECT_EQ(tree.count("inner.dmg"), 1u) << listed;
  EXPECT_EQ(tree.count("outside.txt"), 1u) << listed;
  EXPECT_EQ(listed.find("inside-"), std::string::npos) << listed;
  EXPECT_GT(r.volume->foreignNodesSkipped, 0u);
}
