// The listing of a 100,000-entry volume, byte for byte: its SHA-256 in both
// formats was taken once and committed, so any change to how the tree is
// built, walked or printed that alters a single byte shows here.
#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>

#include "base/PlistValue.h"
#include "base/Text.h"
#include "core/TreeListing.h"
#include "scan/ScanHelpers.h"
#include "support/ListingVolume.h"

using namespace ambrel;
using namespace ambrel::test;
namespace mk = ambrel::mkimage;

namespace {

std::string cli() {
  const char* p = std::getenv("AMBREL_CLI");
  return p ? p : "ambrel-cli";
}

// The SHA-256 of a file, by coreutils.
std::string sha256Of(const std::filesystem::path& path) {
  std::string out;
  EXPECT_EQ(runCommand("sha256sum '" + path.string() + "'", &out), 0);
  return out.substr(0, 64);
}

}  // namespace

TEST(TreeListingGolden, AHundredThousandEntryListingIsByteForByteUnchanged) {
  TempDir dir;
  const std::string image = (dir / "golden.img").string();
  mk::buildImage(listingDrive(97000, 2980), image);

  const auto tsv = dir / "list.tsv", json = dir / "list.json";
  ASSERT_EQ(runCommand(cli() + " tree '" + image + "' > '" + tsv.string() + "' 2>/dev/null"), 0);
  ASSERT_EQ(runCommand(cli() + " tree --format json '" + image + "' > '" + json.string() + "' 2>/dev/null"), 0);
  std::string rows;
  ASSERT_EQ(runCommand("wc -l < '" + tsv.string() + "'", &rows), 0);
  EXPECT_EQ(std::stoul(rows), 100008u);  // the header and every entry, once

  EXPECT_EQ(sha256Of(tsv), "16bc4353addcf777c2071b4574f8734210c8c18e1ee0ca295c352bb76abd0415");
  EXPECT_EQ(sha256Of(json), "868280834c32804b465e50ec36811de9b3cf2d010ddafa997942238ec2a0a878");
}

// Every day of the HFS range (and seconds across a day) as the C library
// writes it.
TEST(TreeListingGolden, DatesReadAsTheCLibraryWritesThem) {
  auto reference = [](uint32_t hfs) {
    const std::time_t t = static_cast<std::time_t>(int64_t{hfs} - 2082844800);
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return std::string(buf);
  };
  EXPECT_EQ(hfsDateText(0), "");
  for (uint64_t s = 1; s <= 0xFFFFFFFFu; s += 86400 - 7) ASSERT_EQ(hfsDateText(uint32_t(s)), reference(uint32_t(s))) << s;
  for (uint32_t s : {1u, 59u, 86399u, 86400u, 0x7C25B080u - 1, 0x7C25B080u, 0xFFFFFFFEu, 0xFFFFFFFFu})
    EXPECT_EQ(hfsDateText(s), reference(s)) << s;
}

// Names that are not plain ASCII, escaped in a row exactly as the path would
// be escaped as a whole: bad UTF-8, C1 controls, DEL, quotes, backslashes.
TEST(TreeListingGolden, PathCellsEscapeAsTheWholePathWould) {
  const std::string names[] = {"plain", "bad\xFF" "byte", "cut\xE2\x82", "c1\xC2\x85" "and\xC2\xA0nbsp",
                               "del\x7F", "q\"uote\\", "tab\tnl\nr\r", "\x01\x1F", "\xF0\x9F\x98\x80 emoji",
                               "\xED\xA0\x80surrogate", "\xC0\xAF" "overlong", "\xC2"};
  HDIR root;
  root.fileType = kHDIRFolder;
  root.setFileName("Root");
  HDIR* folder = &root;
  std::vector<std::string> paths{"/Root"};
  std::string path = "/Root";
  for (const std::string& name : names) {
    auto e = std::make_unique<HDIR>();
    e->fileType = kHDIRFolder;
    e->setFileName(name);
    e->parent = folder;
    paths.push_back(path + "/" + name);
    path += "/" + pathComponent(name);
    folder->addToChildrenCount(1);
    folder = folder->addChild(std::move(e));
  }
  for (const bool json : {false, true}) {
    std::FILE* f = std::tmpfile();
    ASSERT_NE(f, nullptr);
    writeTreeListing(root, json ? ListingFormat::Json : ListingFormat::Tsv, f);
    std::rewind(f);
    std::string out;
    char buf[4096];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;) out.append(buf, n);
    std::fclose(f);
    size_t at = 0;
    for (const std::string& p : paths) {
      const std::string cell = json ? "{\"path\":" + jsonQuote(p) + "," : "\n" + escapedControls(p, true) + "\t";
      const size_t found = out.find(cell, at);
      ASSERT_NE(found, std::string::npos) << (json ? "json " : "tsv ") << ::testing::PrintToString(p);
      at = found + cell.size();
    }
  }
}
