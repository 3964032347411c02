#include "media/DeviceAccess.h"

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <vector>

namespace ambrel {

namespace {

std::string groupName(gid_t gid) {
  std::vector<char> buf(4096);
  group g {};
  group* found = nullptr;
  if (::getgrgid_r(gid, &g, buf.data(), buf.size(), &found) == 0 && found && found->gr_name) return found->gr_name;
  return std::to_string(gid);
}

}  // namespace

std::string deviceAccessHint(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0 || !S_ISBLK(st.st_mode)) return {};
  if (::geteuid() == 0)
    return "The program runs as root and is still refused: the system's device rules (a container's device "
           "policy or a security module) do not let it read this device.";
  if (st.st_gid != 0 && (st.st_mode & S_IRGRP)) {
    const std::string group = groupName(st.st_gid);
    return fmt::format(
        "Reading drives needs root or membership of the group \"{0}\", which owns {1}: run the program as root "
        "(for example with sudo), or add your user to the group (sudo usermod -aG {0} $USER) and log in again.",
        group, path);
  }
  return fmt::format(
      "Reading drives needs root: run the program as root (for example with sudo). {} may be read by root alone; "
      "on systems where drives belong to the group \"disk\", membership of that group (sudo usermod -aG disk "
      "$USER, then log in again) gives access as well.",
      path);
}

std::string openFailureText(const std::string& path, int error) {
  if (error == EACCES || error == EPERM) {
    const std::string hint = deviceAccessHint(path);
    if (!hint.empty()) return fmt::format("cannot open {}: access denied. {}", path, hint);
    return fmt::format("cannot open {}: permission denied (this user may not read it)", path);
  }
  return fmt::format("cannot open {}: {}", path, std::strerror(error));
}

}  // namespace ambrel
