// The JSON description format and the ambrel-mkimage command.
#include <nlohmann/json.hpp>

#include "Oracle.h"

namespace ambrel::mkimage::test {
namespace {

using ambrel::test::TempDir;

TEST(MkimageDescription, ReadsEveryField) {
  TempDir dir;
  ambrel::test::writeFile(dir / "payload.bin", {1, 2, 3, 4});
  DriveSpec d = parseDescription(R"({
    "table": "mbr", "size": "16M", "extendedType": 15,
    "partitions": [
      {"type": "hfsx", "name": "Data", "size": "4M", "mbrType": 175, "volume": {
        "name": "Data", "format": "hfsx", "blockSize": "1K", "nodeSize": 8192, "extentsNodeSize": 4096,
        "journal": {"size": "256K"}, "wrapper": false, "catalogExtents": 3, "seed": 9,
        "created": "2020-02-03T04:05:06Z",
        "tree": [{"name": "Docs", "children": [
                   {"name": "a.txt", "text": "hi", "rsrcSize": "2K", "fragments": 2, "type": "TEXT",
                    "creator": "ttxt", "mode": 384, "uid": 7, "gid": 8, "modified": 86400, "deleted": true, "inOldNodes": false}]},
                 {"name": "p.bin", "file": "payload.bin"}],
        "generate": {"files": 10, "folders": 2, "seed": 4, "minSize": 1, "maxSize": "1K", "variedNames": false},
        "freePayloads": [{"text": "JPEG"}, {"size": 100, "seed": 5}],
        "damage": {"primaryHeader": "corrupt", "catalogHeader": true, "leafChain": {"mode": "loop", "leaf": 1},
                   "overwriteNodes": {"count": 2, "seed": 3}, "oldNodeCopies": 4}}},
      {"type": "other", "logical": true, "size": 1048576}],
    "damage": {"wipePartitionTable": true, "truncate": "8M"}})",
                                 dir.path());
  EXPECT_EQ(d.table, TableKind::MBR);
  EXPECT_EQ(d.sizeBytes, 16u << 20);
  EXPECT_EQ(d.extendedType, 0x0F);
  EXPECT_TRUE(d.wipePartitionTable);
  EXPECT_EQ(d.truncateToBytes, 8u << 20);
  ASSERT_EQ(d.partitions.size(), 2u);
  EXPECT_EQ(d.partitions[1].kind, PartitionSpec::Kind::Other);
  EXPECT_TRUE(d.partitions[1].logical);
  EXPECT_EQ(d.partitions[1].sizeSectors, 2048u);
  const auto& p = d.partitions[0];
  EXPECT_EQ(p.sizeSectors, 8192u);
  EXPECT_EQ(p.mbrType, 175);
  ASSERT_TRUE(p.volume);
  const VolumeSpec& v = *p.volume;
  EXPECT_TRUE(v.hfsx);
  EXPECT_EQ(v.blockSize, 1024u);
  EXPECT_EQ(v.nodeSize, 8192u);
  EXPECT_TRUE(v.journal);
  EXPECT_EQ(v.journalSize, 256u << 10);
  EXPECT_EQ(v.catalogExtents, 3u);
  EXPECT_EQ(v.created, hfsDateFromUnix(1580702706));
  ASSERT_EQ(v.root.size(), 2u);
  ASSERT_TRUE(v.root[0].folder);
  const EntrySpec& a = v.root[0].children.at(0);
  EXPECT_EQ(*a.data, (std::vector<uint8_t>{'h', 'i'}));
  EXPECT_EQ(a.rsrcSize, 2048u);
  EXPECT_EQ(a.dataFragments, 2u);
  EXPECT_EQ(std::string(a.fileType, 4), "TEXT");
  EXPECT_EQ(a.mode, 0600);
  EXPECT_EQ(a.uid, 7u);
  EXPECT_EQ(*a.modified, hfsDateFromUnix(86400));
  EXPECT_TRUE(a.deleted);
  EXPECT_FALSE(a.inOldNodes);
  EXPECT_TRUE(v.root[0].inOldNodes);
  EXPECT_EQ(*v.root[1].data, (std::vector<uint8_t>{1, 2, 3, 4}));
  ASSERT_TRUE(v.generate);
  EXPECT_EQ(v.generate->files, 10u);
  EXPECT_EQ(v.generate->maxSize, 1024u);
  EXPECT_FALSE(v.generate->variedNames);
  ASSERT_EQ(v.freePayloads.size(), 2u);
  EXPECT_EQ(v.freePayloads[1].size, 100u);
  EXPECT_EQ(v.damage.primaryHeader, VolumeDamage::Header::Corrupted);
  EXPECT_TRUE(v.damage.catalogHeaderCorrupted);
  ASSERT_TRUE(v.damage.leafChain);
  EXPECT_EQ(v.damage.leafChain->mode, LeafChainDamage::Mode::Loop);
  EXPECT_EQ(v.damage.leafChain->leaf, 1);
  EXPECT_EQ(v.damage.overwriteNodes, 2u);
  EXPECT_EQ(v.damage.oldNodeCopies, 4u);
}

TEST(MkimageDescription, RefusesWhatCannotBeBuilt) {
  TempDir dir;
  for (const char* bad : {
           "not json",
           R"({"table": "bsd"})",
           R"({"table": "mbr", "extendedType": 7})",
           R"({"table": "none", "volume": {"format": "ntfs"}})",
           R"({"table": "none", "volume": {"size": "12Q"}})",
           R"({"table": "none", "volume": {"tree": [{"name": "x", "type": "TOOLONG"}]}})",
           R"({"table": "none", "volume": {"damage": {"leafChain": {"mode": "sideways"}}}})",
           R"({"table": "none", "volume": {"tree": [{"text": "no name"}]}})",
       })
    EXPECT_THROW(parseDescription(bad, dir.path()), BuildError) << bad;
  auto build = [&](const char* text) { return buildImage(parseDescription(text, dir.path()), dir / "x.img"); };
  EXPECT_THROW(build(R"({"table": "none", "volume": {"blockSize": 3000}})"), BuildError);
  EXPECT_THROW(build(R"({"table": "none", "volume": {"size": "2K"}})"), BuildError);
  EXPECT_THROW(build(R"({"table": "gpt", "partitions": [{"size": "1M", "volume": {"size": "2M"}}]})"), BuildError);
  EXPECT_THROW(build(R"({"table": "gpt", "partitions": [{"size": "64K", "volume": {"generate": {"files": 100}}}]})"), BuildError);
  EXPECT_THROW(build(R"({"table": "none", "volume": {"size": "64K", "generate": {"files": 500}}})"), BuildError);
  EXPECT_THROW(build(R"({"table": "none", "volume": {"tree": [{"name": "f", "size": 10, "fragments": 4}]}})"), BuildError);
  EXPECT_THROW(build(R"({"table": "gpt", "partitions": [{"logical": true}]})"), BuildError);
  EXPECT_THROW(build(R"({"table": "mbr", "partitions": [{}, {}, {}, {}, {}]})"), BuildError);
  EXPECT_THROW(build(R"({"table": "none", "volume": {"damage": {"leafChain": {"mode": "index"}}}})"), BuildError);
}

TEST(MkimageDescription, CommandWritesTheImageAndItsLayout) {
  TempDir dir;
  std::filesystem::path tool = std::filesystem::path(AMBREL_BINARY_DIR) / "tools" / "mkimage" / "ambrel-mkimage";
  if (!std::filesystem::exists(tool)) GTEST_SKIP() << "ambrel-mkimage was not built";
  const char* text = R"({"table": "gpt", "partitions": [
      {"volume": {"name": "One", "tree": [{"name": "hello.txt", "text": "hello"}]}},
      {"type": "hfsx", "volume": {"name": "Two", "generate": {"files": 20, "folders": 2, "variedNames": false}}}]})";
  ambrel::test::writeFile(dir / "d.json", std::vector<uint8_t>(text, text + std::strlen(text)));
  std::string out;
  ASSERT_EQ(runCommand(quoted(tool) + " " + quoted(dir / "d.json") + " -o " + quoted(dir / "cli.img") + " --layout " +
                           quoted(dir / "layout.json") + " 2>&1",
                       &out),
            0)
      << out;
  auto layoutText = ambrel::test::readFile(dir / "layout.json");
  auto json = nlohmann::json::parse(layoutText.begin(), layoutText.end());
  EXPECT_EQ(json["table"], "gpt");
  ASSERT_EQ(json["partitions"].size(), 2u);
  EXPECT_EQ(json["partitions"][0]["volume"]["name"], "One");
  EXPECT_EQ(json["partitions"][1]["volume"]["hfsx"], true);
  EXPECT_EQ(json["partitions"][1]["volume"]["entries"].size(), 1u + 2 + 20);

  // The command and the library make the same bytes.
  DriveLayout layout = buildImage(parseDescription(text, dir.path()), dir / "lib.img");
  EXPECT_EQ(json["partitions"][0]["startSector"], layout.partitions[0].startSector);
  EXPECT_EQ(ambrel::test::readFile(dir / "cli.img"), ambrel::test::readFile(dir / "lib.img"));

  EXPECT_NE(runCommand(quoted(tool) + " " + quoted(dir / "missing.json") + " -o " + quoted(dir / "m.img") + " 2>&1", &out), 0);
}

TEST(MkimageDescription, DemoDriveHasWhatTheDemoNeeds) {
  TempDir dir;
  DriveLayout layout = buildImage(demoDrive(), dir / "demo.img");
  ASSERT_EQ(layout.table, TableKind::GPT);
  ASSERT_EQ(layout.partitions.size(), 2u);
  const VolumeLayout& mac = *layout.partitions[0].volume;
  const VolumeLayout& data = *layout.partitions[1].volume;
  EXPECT_FALSE(mac.hfsx);
  EXPECT_TRUE(data.hfsx);
  EXPECT_GT(mac.journalSize, 0u);
  EXPECT_FALSE(mac.journalNodeCopySectors.empty());
  EXPECT_EQ(mac.payloads.size(), 2u);
  size_t deleted = 0, withRsrc = 0, overflowing = 0, fragmented = 0;
  for (const auto& e : mac.entries) {
    deleted += e.deleted;
    withRsrc += e.rsrcSize > 0;
    overflowing += e.dataExtents.size() > 8;
    fragmented += e.dataExtents.size() > 1 && e.dataExtents.size() <= 8;
  }
  EXPECT_GE(deleted, 3u);
  EXPECT_EQ(withRsrc, 1u);
  EXPECT_EQ(overflowing, 1u);
  EXPECT_GE(fragmented, 1u);
  EXPECT_TRUE(mac.find("Documents/Letter to Anna.txt"));
  EXPECT_TRUE(data.find("README.txt") && data.find("readme.txt"));
  if (haveTsk()) {
    EXPECT_EQ(flsTree(dir / "demo.img", mac.startSector), expectedTree(mac));
    EXPECT_EQ(flsTree(dir / "demo.img", data.startSector), expectedTree(data));
  }
}

}  // namespace
}  // namespace ambrel::mkimage::test
