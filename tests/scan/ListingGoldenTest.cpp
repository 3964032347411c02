// The listing of a 100,000-entry volume, byte for byte: its SHA-256 in both
// formats was taken once and committed, so any change to how the tree is
// built, walked or printed that alters a single byte shows here.
#include <gtest/gtest.h>

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
