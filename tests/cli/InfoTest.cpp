// `ambrel-cli info` on images made by tools others wrote.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "support/TempDir.h"

using namespace ambrel::test;

namespace {

std::string cli() {
  const char* p = std::getenv("AMBREL_CLI");
  return p ? p : "ambrel-cli";
}

int info(const std::string& path, std::string& out, const std::string& extra = "") {
  return runCommand(cli() + " info " + extra + " '" + path + "' 2>&1", &out);
}

}  // namespace

TEST(CliInfo, ReportsSizeAndTableKindOfToolMadeImages) {
  TempDir dir;
  std::string out;

  const auto blank = (dir / "blank.img").string();
  ASSERT_EQ(runCommand("truncate -s 1000000 '" + blank + "'"), 0);
  ASSERT_EQ(info(blank, out), 0) << out;
  EXPECT_NE(out.find("1000000 bytes (1953 sectors"), std::string::npos) << out;
  EXPECT_NE(out.find("Partition table: none"), std::string::npos) << out;

  if (!haveTool("sgdisk") || !haveTool("sfdisk") || !haveTool("xorriso"))
    GTEST_SKIP() << "sgdisk, sfdisk or xorriso missing";

  const auto gpt = (dir / "gpt.img").string();
  ASSERT_EQ(runCommand("truncate -s 4M '" + gpt + "' && sgdisk -n 1:2048:+1M -t 1:AF00 '" + gpt + "' >/dev/null"), 0);
  out.clear();
  ASSERT_EQ(info(gpt, out), 0) << out;
  EXPECT_NE(out.find("4194304 bytes (8192 sectors"), std::string::npos) << out;
  EXPECT_NE(out.find("Partition table: GPT"), std::string::npos) << out;

  const auto mbr = (dir / "mbr.img").string();
  ASSERT_EQ(runCommand("truncate -s 4M '" + mbr + "' && printf 'start=2048, size=2048, type=af\\n' | sfdisk -q '" +
                       mbr + "' >/dev/null 2>&1"), 0);
  out.clear();
  ASSERT_EQ(info(mbr, out, "--json"), 0) << out;
  EXPECT_EQ(out, "{\"path\":\"" + mbr +
                     "\",\"sizeInBytes\":4194304,\"sizeInSectors\":8192,\"partitionTable\":\"MBR\"}\n");

  ASSERT_EQ(runCommand("mkdir -p '" + (dir / "tree").string() + "' && echo hi > '" + (dir / "tree/a.txt").string() + "'"), 0);
  const auto apm = (dir / "apm.iso").string();
  ASSERT_EQ(runCommand("xorriso -as mkisofs -quiet -hfsplus -o '" + apm + "' '" + (dir / "tree").string() + "' 2>/dev/null"), 0);
  out.clear();
  ASSERT_EQ(info(apm, out), 0) << out;
  EXPECT_NE(out.find("Partition table: Apple partition map"), std::string::npos) << out;
}

TEST(CliInfo, BadInputGivesAClearErrorAndNonZeroExit) {
  TempDir dir;
  std::string out;
  EXPECT_NE(info((dir / "missing.img").string(), out), 0);
  EXPECT_NE(out.find("cannot open"), std::string::npos) << out;

  out.clear();
  EXPECT_NE(runCommand(cli() + " 2>&1", &out), 0);
  EXPECT_NE(out.find("info"), std::string::npos) << out;  // the usage names the subcommands

  out.clear();
  EXPECT_NE(runCommand(cli() + " info 2>&1", &out), 0);
  EXPECT_NE(out.find("PATH"), std::string::npos) << out;

  out.clear();
  EXPECT_NE(runCommand(cli() + " info /dev/null 2>&1", &out), 0);
  EXPECT_NE(out.find("neither a block device nor a disk image"), std::string::npos) << out;
}
