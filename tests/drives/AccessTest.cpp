// A drive this user may not read: the message names the device and says how
// to get access, rather than a bare "Permission denied".
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "drives/Machine.h"
#include "media/DeviceAccess.h"
#include "support/TempDir.h"

namespace ambrel {
namespace {

namespace fs = std::filesystem;
using namespace test;

// A block device node (loop0's numbers) owned by root:disk, mode 0660, in a
// folder anyone may enter; empty when this machine does not allow it.
std::string diskGroupNode(const TempDir& dir) {
  if (::geteuid() != 0 || !haveTool("setpriv")) return {};
  const std::string node = (dir / "blk").string();
  if (runCommand("chmod 755 '" + dir.path().string() + "' && mknod '" + node + "' b 7 0 2>/dev/null && chgrp disk '" +
                 node + "' 2>/dev/null && chmod 660 '" + node + "'") != 0)
    return {};
  return node;
}

TEST(DeviceAccess, RefusedDeviceNamesItselfAndTheDiskGroup) {
  TempDir dir;
  const std::string node = diskGroupNode(dir);
  if (node.empty()) GTEST_SKIP() << "needs root, setpriv, mknod and a group named disk";
  std::string out;
  // As "nobody", outside the disk group.
  const int rc = runCommand("setpriv --reuid=65534 --regid=65534 --clear-groups " + cli() + " info '" + node + "' 2>&1", &out);
  EXPECT_EQ(rc, 2) << out;
  EXPECT_NE(out.find("cannot open " + node + ": access denied."), std::string::npos) << out;
  EXPECT_NE(out.find("membership of the group \"disk\""), std::string::npos) << out;
  EXPECT_NE(out.find("sudo usermod -aG disk $USER"), std::string::npos) << out;
  EXPECT_NE(out.find("as root"), std::string::npos) << out;
  EXPECT_EQ(out.find("Permission denied"), std::string::npos) << out;
}

TEST(DeviceAccess, RootRefusedBySystemRulesIsToldSo) {
  TempDir dir;
  const std::string node = diskGroupNode(dir);
  if (node.empty()) GTEST_SKIP() << "needs root, setpriv, mknod and a group named disk";
  // Root is refused only by the system's rules; the text must not send root to sudo.
  const std::string hint = deviceAccessHint(node);
  EXPECT_NE(hint.find("runs as root and is still refused"), std::string::npos) << hint;
  EXPECT_EQ(hint.find("usermod"), std::string::npos) << hint;
}

TEST(DeviceAccess, FilesAndMissingPathsKeepTheirPlainReasons) {
  TempDir dir;
  writeFile(dir / "image.img", std::vector<uint8_t>(512, 0));
  EXPECT_EQ(deviceAccessHint((dir / "image.img").string()), "");
  EXPECT_EQ(openFailureText((dir / "image.img").string(), EACCES),
            "cannot open " + (dir / "image.img").string() + ": permission denied (this user may not read it)");
  EXPECT_EQ(openFailureText("/nonexistent/x", ENOENT), "cannot open /nonexistent/x: No such file or directory");
}

}  // namespace
}  // namespace ambrel
