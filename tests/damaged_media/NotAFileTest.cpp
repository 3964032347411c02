// A named pipe (or anything else that is neither a regular file nor a block
// device) given as a drive or a scan info file: refused at once with a
// message that says what it is, never waited on.
#include <sys/stat.h>

#include "Damaged.h"

namespace ambrel::test {
namespace {

TEST(NamedPipe, AsADriveIsRefusedAtOnce) {
  if (cliPath().empty()) GTEST_SKIP() << "AMBREL_CLI not set";
  TempDir dir;
  const std::string fifo = (dir / "drive.img").string();
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  for (const char* command : {"info ", "partitions ", "find-volumes ", "tree ", "recover --out x "}) {
    const CliRun r = runCli(command + shellQuoted(fifo), "", 10);
    EXPECT_EQ(r.status, 2) << command << r.err;
    EXPECT_NE(r.err.find("is a named pipe, neither a block device nor a disk image file"), std::string::npos)
        << command << r.err;
  }
}

TEST(NamedPipe, AsAScanInfoFileIsRefusedAtOnce) {
  if (cliPath().empty()) GTEST_SKIP() << "AMBREL_CLI not set";
  TempDir dir;
  const std::string fifo = (dir / "kept.asi").string();
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  for (const char* command : {"scaninfo ", "tree ", "recover --out x "}) {
    const CliRun r = runCli(command + shellQuoted(fifo), "", 10);
    EXPECT_NE(r.status, 0) << command;
    EXPECT_NE(r.status, 124) << command << "waited for a writer";
    EXPECT_NE(r.err.find("it is a named pipe, not a regular file"), std::string::npos) << command << r.err;
  }
}

TEST(NotAFile, FolderAndCharacterDeviceAsADriveAreRefused) {
  if (cliPath().empty()) GTEST_SKIP() << "AMBREL_CLI not set";
  TempDir dir;
  const CliRun folder = runCli("partitions " + shellQuoted(dir.path().string()), "", 10);
  EXPECT_EQ(folder.status, 2);
  EXPECT_NE(folder.err.find("is a folder, neither"), std::string::npos) << folder.err;
  const CliRun null = runCli("partitions /dev/null", "", 10);
  EXPECT_EQ(null.status, 2);
  EXPECT_NE(null.err.find("is a character device, neither"), std::string::npos) << null.err;
}

}  // namespace
}  // namespace ambrel::test
