// Names from disk in listings: classic Mac names are MacRoman, and no name
// may break the JSON or TSV it is written into, or reach a terminal raw.
#include <nlohmann/json.hpp>

#include "Damaged.h"

namespace ambrel::test {
namespace {

// An Apple partition map with a volume whose header is gone and a wrapped one
// whose embedded volume cannot be reached, so that both keep the names the
// map and the wrapper give them: MacRoman bytes, as classic Mac OS wrote them.
struct MacRomanNames {
  BuiltDrive drive;
  MacRomanNames()
      : drive([] {
          mk::DriveSpec d;
          d.table = mk::TableKind::APM;
          for (bool wrapped : {false, true}) {
            mk::PartitionSpec p;
            p.volume = generatedVolume(3, 1);
            p.volume->wrapper = wrapped;
            // No primary header: the naming pass cannot replace the map's name.
            if (!wrapped) p.volume->damage.primaryHeader = mk::VolumeDamage::Header::Zeroed;
            d.partitions.push_back(p);
          }
          return d;
        }()) {
    const auto& plain = drive.layout.partitions[0];
    const auto& wrapped = drive.layout.partitions[1];
    // The plain volume's map entry, found by its start.
    const std::vector<uint8_t> image = readFile(drive.path);
    for (uint64_t s = 1; s < 64; ++s) {
      const uint8_t* e = &image[s * 512];
      if (e[0] == 'P' && e[1] == 'M' && loadBE32(e + 8) == plain.startSector)
        drive.patch(s * 512 + 16, {'C', 'a', 'f', 0x8E, 0x00});  // "Café"
    }
    // The wrapper's name ("Disque ä") and no embedded signature.
    drive.patch((wrapped.startSector + 2) * 512 + 36, {8, 'D', 'i', 's', 'q', 'u', 'e', ' ', 0x8A, 0x00});
    drive.patch((wrapped.startSector + 2) * 512 + 124, {0x00, 0x00});
  }
  static uint32_t loadBE32(const uint8_t* p) { return uint32_t(p[0]) << 24 | p[1] << 16 | p[2] << 8 | p[3]; }
};

TEST(MacRomanNames, PartitionsJsonParsesAndNamesAreDecoded) {
  if (cliPath().empty()) GTEST_SKIP() << "AMBREL_CLI not set";
  MacRomanNames d;
  const CliRun r = runCli("partitions --json " + shellQuoted(d.drive.path));
  ASSERT_EQ(r.status, 0) << r.err;
  const auto parsed = nlohmann::json::parse(r.out, nullptr, false);
  ASSERT_FALSE(parsed.is_discarded()) << "not JSON: " << r.out;
  ASSERT_EQ(parsed.size(), 2u);
  EXPECT_EQ(parsed[0]["Volume Name"], "Caf\xC3\xA9");
  EXPECT_EQ(parsed[1]["Volume Name"], "Disque \xC3\xA4");

  const CliRun text = runCli("partitions " + shellQuoted(d.drive.path));
  EXPECT_NE(text.out.find("  Caf\xC3\xA9\n"), std::string::npos) << text.out;
}

// Catalog names holding control characters and NUL, as a damaged or hostile
// volume may: the listing must stay one line per entry, parse as JSON, and
// carry no raw control byte.
TEST(ControlCharactersInNames, AreEscapedInTsvAndJson) {
  if (cliPath().empty()) GTEST_SKIP() << "AMBREL_CLI not set";
  mk::VolumeSpec v;
  v.name = "Names";
  const mk::EntrySpec a = sizedFile(std::string("bell\x07 and nul\0 end", 18), 10), b = sizedFile("esc\x1b[31mred", 10);
  v.root = {a, b};
  BuiltDrive d(bareDrive(v));

  const CliRun tsv = runCli("tree " + shellQuoted(d.path));
  ASSERT_EQ(tsv.status, 0) << tsv.err;
  for (char c : tsv.out) EXPECT_FALSE((c >= 0 && c < 0x20 && c != '\t' && c != '\n') || c == 0x7F) << int(c);
  EXPECT_NE(tsv.out.find("/Root/bell\\x07 and nul\\x00 end\tfile"), std::string::npos) << tsv.out;
  EXPECT_NE(tsv.out.find("/Root/esc\\x1b[31mred\tfile"), std::string::npos) << tsv.out;

  const CliRun json = runCli("tree --format json " + shellQuoted(d.path));
  const auto parsed = nlohmann::json::parse(json.out, nullptr, false);
  ASSERT_FALSE(parsed.is_discarded()) << json.out;
  std::set<std::string> paths;
  for (const auto& e : parsed) paths.insert(e["path"].get<std::string>());
  EXPECT_TRUE(paths.count("/Root/" + a.name)) << json.out;
  EXPECT_TRUE(paths.count("/Root/" + b.name)) << json.out;
}

}  // namespace
}  // namespace ambrel::test
