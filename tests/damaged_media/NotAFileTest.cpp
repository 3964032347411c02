// A named pipe, a folder or a character device given as a drive or a scan
// info file: refused at once with a message that says what it is, never
// waited on.
#include <sys/stat.h>

#include "Damaged.h"

namespace ambrel::test {
namespace {

TEST(NotAFile, NamedPipeFolderOrCharacterDeviceIsRefusedAtOnceSayingWhatItIs) {
  if (cliPath().empty()) GTEST_SKIP() << "AMBREL_CLI not set";
  TempDir dir;
  const std::string drivePipe = (dir / "drive.img").string(), asiPipe = (dir / "kept.asi").string();
  ASSERT_EQ(::mkfifo(drivePipe.c_str(), 0600), 0);
  ASSERT_EQ(::mkfifo(asiPipe.c_str(), 0600), 0);
  struct Case {
    std::string command, path, says;
    int status;  // -1: any failure
  };
  const std::string pipeDrive = "is a named pipe, neither a block device nor a disk image file";
  const std::string pipeAsi = "it is a named pipe, not a regular file";
  std::vector<Case> cases;
  for (const char* command : {"info ", "partitions ", "find-volumes ", "tree ", "recover --out x "})
    cases.push_back({command, drivePipe, pipeDrive, 2});
  for (const char* command : {"scaninfo ", "tree ", "recover --out x "}) cases.push_back({command, asiPipe, pipeAsi, -1});
  cases.push_back({"partitions ", dir.path().string(), "is a folder, neither", 2});
  cases.push_back({"partitions ", "/dev/null", "is a character device, neither", 2});
  for (const Case& c : cases) {
    SCOPED_TRACE(c.command + c.path);
    const CliRun r = runCli(c.command + shellQuoted(c.path), "", 10);
    EXPECT_NE(r.status, 124) << "waited for a writer";
    if (c.status >= 0) {
      EXPECT_EQ(r.status, c.status) << r.err;
    } else {
      EXPECT_NE(r.status, 0);
    }
    EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
  }
}

}  // namespace
}  // namespace ambrel::test
