// ambrel-cli partitions and find-volumes, run as a user would.
#include <gtest/gtest.h>

#include <cstdlib>

#include "DriveFile.h"

namespace ambrel::test {
namespace {

std::string cli() {
  const char* path = std::getenv("AMBREL_CLI");
  return path ? path : "";
}

struct Run {
  int status;
  std::string out;
};

Run run(const std::string& args) {
  Run r;
  r.status = runCommand("'" + cli() + "' " + args + " 2>/dev/null", &r.out);
  return r;
}

// Two volumes in an MBR; the drive is wiped of its table for the search.
Drive twoVolumes(bool withTable) {
  Drive d(2048);
  TinyVolumeLayout a;
  a.name = "Alpha";
  a.createDate = 1;
  TinyVolumeLayout b;
  b.name = "Beta";
  b.createDate = 2;
  if (withTable) {
    setMbrEntry(d, 0, 0, 0xAF, 64, 512);
    setMbrEntry(d, 0, 1, 0xAF, 600, 512);
  }
  d.place(64, buildTinyVolume(a));
  d.place(600, buildTinyVolume(b));
  return d;
}

class Cli : public ::testing::Test {
 protected:
  void SetUp() override {
    if (cli().empty()) GTEST_SKIP() << "AMBREL_CLI not set";
  }
  std::string image(const Drive& d) {
    const std::string path = (dir_ / "drive.img").string();
    writeFile(path, d.bytes);
    return path;
  }
  TempDir dir_;
};

TEST_F(Cli, PartitionsListsNumberedVolumesAndTheirDictionariesAsJson) {
  const std::string path = image(twoVolumes(true));
  auto r = run("partitions '" + path + "'");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            "  #           Start         Sectors  Name\n"
            "  1              64             512  Alpha\n"
            "  2             600             512  Beta\n");
  r = run("partitions --json '" + path + "'");
  EXPECT_EQ(r.status, 0);
  const std::string first = "{\"Volume Start\":64,\"Volume Size In Sectors\":512,\"Volume Name\":\"Alpha\","
                            "\"Volume Scan Type\":0,\"Path\":" + jsonQuote(path) +
                            ",\"Model\":\"Disk Image\",\"Serial\":\"\",\"Revision\":\"\"}";
  EXPECT_EQ(r.out.substr(0, 1 + first.size()), "[" + first) << r.out;
  EXPECT_NE(r.out.find("\"Volume Name\":\"Beta\""), std::string::npos);
}

TEST_F(Cli, FindVolumesGradesWhatItFinds) {
  const std::string path = image(twoVolumes(false));
  auto quick = run("find-volumes --quick '" + path + "'");
  EXPECT_EQ(quick.status, 0);
  EXPECT_NE(quick.out.find("  1              64             512  Valid               100%  Alpha\n"), std::string::npos)
      << quick.out;
  EXPECT_NE(quick.out.find("  2             600             512  Valid               100%  Beta\n"), std::string::npos)
      << quick.out;

  auto json = run("find-volumes --json '" + path + "'");
  EXPECT_EQ(json.status, 0);
  EXPECT_NE(json.out.find("{\"Volume Start\":64,\"Volume Size In Sectors\":512,\"Volume Name\":\"Alpha\","
                          "\"Volume Scan Type\":1,"),
            std::string::npos)
      << json.out;
  EXPECT_NE(json.out.find("\"Volume Validity\":\"100\",\"WhetherAlternateSector\":0}"), std::string::npos);
}

TEST_F(Cli, MissingPathFailsWithAMessage) {
  std::string out;
  const int status = runCommand("'" + cli() + "' partitions /nonexistent/drive.img 2>&1", &out);
  EXPECT_NE(status, 0);
  EXPECT_NE(out.find("cannot open /nonexistent/drive.img"), std::string::npos) << out;
}

TEST_F(Cli, InterruptStopsTheSearchCleanly) {
  // A large sparse image: the search is still running when the signal comes.
  const std::string path = (dir_ / "big.img").string();
  ASSERT_EQ(runCommand("truncate -s 64G '" + path + "'"), 0);
  std::string out;
  runCommand("'" + cli() + "' find-volumes '" + path + "' > '" + (dir_ / "out").string() + "' 2>&1 & pid=$!; " +
                 "sleep 1; kill -INT $pid; wait $pid; echo \"status=$?\"",
             &out);
  EXPECT_NE(out.find("status=130"), std::string::npos) << out;
  const auto log = readFile(dir_ / "out");
  const std::string text(log.begin(), log.end());
  EXPECT_NE(text.find("search stopped"), std::string::npos) << text;
  EXPECT_NE(text.find("No volumes found."), std::string::npos) << text;
}

}  // namespace
}  // namespace ambrel::test
