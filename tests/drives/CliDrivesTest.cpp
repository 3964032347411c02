// `ambrel-cli drives` over the fake machine: the listing, its JSON, and
// --watch following a stick that is plugged in.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>

#include "drives/Machine.h"
#include "support/TempDir.h"

extern char** environ;

namespace ambrel {
namespace {

using namespace test;
using namespace std::chrono_literals;

std::string readText(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// Column gaps (two spaces or more) as " | ": the columns' widths follow the
// length of the test's own folder.
std::string columnsOf(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size();) {
    size_t j = i;
    while (j < text.size() && text[j] == ' ') ++j;
    if (j - i >= 2) out += " | ";
    else out.append(text, i, std::max<size_t>(j - i, 1));
    i = std::max(j, i + 1);
  }
  return out;
}

std::string replaceAll(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
  return text;
}

class CliDrives : public ::testing::Test {
 protected:
  void SetUp() override { buildMachine(tree); }
  TempDir dir;
  FakeTree tree{dir / "machine"};
};

TEST_F(CliDrives, ListsDrivesAndVolumesAsTheFirstPageShowsThem) {
  std::string out;
  const std::string err = (dir / "err").string();
  ASSERT_EQ(runCommand(envFor(tree) + cli() + " drives 2>'" + err + "'", &out), 0) << readText(err);
  out = columnsOf(replaceAll(out, tree.root().string(), "ROOT"));
  EXPECT_EQ(out, readText(fs::path(AMBREL_SOURCE_DIR) / "tests/drives/golden/drives.txt"));
  // Only the partition nothing could be read of is reported, with its reason.
  EXPECT_EQ(replaceAll(readText(err), tree.root().string(), "ROOT"),
            "ambrel-cli: cannot open ROOT/dev/sdc4: No such file or directory\n");
}

TEST_F(CliDrives, JsonCarriesTheDictionariesWithTheirKeys) {
  std::string out;
  ASSERT_EQ(runCommand(envFor(tree) + cli() + " drives --json 2>/dev/null", &out), 0);
  const auto json = nlohmann::json::parse(out);
  ASSERT_EQ(json["drives"].size(), 8u);
  ASSERT_EQ(json["volumes"].size(), 6u);
  const auto& sda = json["drives"][0];
  std::set<std::string> keys;
  for (const auto& [k, v] : sda.items()) keys.insert(k);
  EXPECT_EQ(keys, (std::set<std::string>{"device path", "device size", "WhetherSATA", "device model", "device serial",
                                         "device revision", "CFBundleIdentifier", "IOBundleResourceFile",
                                         "WhetherDiskDict"}));
  EXPECT_EQ(sda["device size"], kSdaSectors * 512);
  EXPECT_EQ(sda["device model"], "Samsung SSD 860 EVO 500GB");
  const auto& stick = json["drives"][1];
  EXPECT_EQ(stick["Vendor Identification"], "SanDisk ");
  EXPECT_FALSE(stick.contains("device serial"));
  const auto& mac = json["volumes"][0];
  EXPECT_EQ(mac["Volume Name"], "Mac HD");
  EXPECT_EQ(mac["Journaled"], "Yes");
  EXPECT_EQ(mac["WhetherVolume"], true);
  EXPECT_EQ(json["unreadable"], nlohmann::json::array({tree.devPath("sdc4")}));
}

// A child process with its output in files, ended by a signal.
struct Watcher {
  pid_t pid = -1;
  fs::path out, err;
  Watcher(const FakeTree& tree, const fs::path& dir) : out(dir / "watch.out"), err(dir / "watch.err") {
    const DiscoveryRoots r = tree.roots();
    std::vector<std::string> env{"AMBREL_SYSFS_ROOT=" + r.sysfs, "AMBREL_DEV_ROOT=" + r.dev,
                                 "AMBREL_MOUNTINFO=" + r.mountinfo, "AMBREL_UDEV_DATA=" + r.udevData};
    for (char** e = environ; *e; ++e) env.emplace_back(*e);
    std::vector<char*> envp;
    for (auto& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);
    std::string program = cli(), command = "drives", flag = "--watch";
    char* argv[] = {program.data(), command.data(), flag.data(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (posix_spawn(&pid, program.c_str(), &actions, nullptr, argv, envp.data()) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
  }
  ~Watcher() {
    if (pid > 0) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, nullptr, 0);
    }
  }
  bool waitForText(const fs::path& file, const std::string& text, std::chrono::seconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
      if (readText(file).find(text) != std::string::npos) return true;
      usleep(100000);
    }
    return false;
  }
  int interrupt() {
    ::kill(pid, SIGINT);
    int status = 0;
    ::waitpid(pid, &status, 0);
    pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
};

TEST_F(CliDrives, WatchPrintsAStickAsItComesAndGoesUntilCtrlC) {
  Watcher w(tree, dir.path());
  ASSERT_GT(w.pid, 0);
  ASSERT_TRUE(w.waitForText(w.err, "Ctrl-C ends", 20s)) << readText(w.err);
  EXPECT_NE(readText(w.err).find("rescanning every 2000 ms"), std::string::npos) << readText(w.err);

  constexpr const char* kStick = "pci0000:00/0000:00:14.0/usb3/3-1/3-1:1.0/host9/target9:0:0/9:0:0:0";
  tree.addDisk("sdf", std::string(kStick) + "/block/sdf", kStick, 8, 80, 7831552, true);
  tree.setAttr(kStick, "vendor", "Kingston");
  tree.setAttr(kStick, "model", "DataTraveler 3.0");
  tree.setNode("sdf", std::vector<uint8_t>(4096, 0));
  tree.addPartition("sdf", "sdf1", 1, 8, 81, 7829504);
  tree.setNode("sdf1", volumeHeaderBytes(false, false));
  ASSERT_TRUE(w.waitForText(w.out, "+ volume", 30s)) << readText(w.out);
  const std::string root = tree.root().string();
  EXPECT_NE(readText(w.out).find("Change (arrival):\n+ drive " + root + "/dev/sdf  "), std::string::npos) << readText(w.out);
  EXPECT_NE(readText(w.out).find("Kingston DataTraveler 3.0"), std::string::npos);
  EXPECT_NE(readText(w.out).find("+ volume " + root + "/dev/sdf1"), std::string::npos);

  tree.remove("sdf1");
  tree.remove("sdf");
  ASSERT_TRUE(w.waitForText(w.out, "Change (removal):", 30s)) << readText(w.out);
  ASSERT_TRUE(w.waitForText(w.out, "- volume " + root + "/dev/sdf1", 5s)) << readText(w.out);
  EXPECT_NE(readText(w.out).find("- drive " + root + "/dev/sdf"), std::string::npos) << readText(w.out);
  EXPECT_EQ(w.interrupt(), 0);
}

}  // namespace
}  // namespace ambrel
