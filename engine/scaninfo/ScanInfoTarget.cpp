// Where a scan info file may be written. The file is the user's choice of
// path, and the one thing it must never land on is the drive being scanned:
// not by its name, not through a link, not through a loop device over it.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>

#include <fmt/format.h>

#include "scaninfo/ScanInfoFile.h"
#include "scaninfo/ScanInfoIo.h"

namespace ambrel {
namespace {

constexpr const char* kTitle = "! Error";

std::optional<std::string> realPath(const std::string& path) {
  char* r = ::realpath(path.c_str(), nullptr);
  if (!r) return std::nullopt;
  std::string out(r);
  std::free(r);
  return out;
}

bool sameFile(const struct stat& a, const struct stat& b) { return a.st_dev == b.st_dev && a.st_ino == b.st_ino; }

// The file behind a loop device (or a partition of one), as sysfs names it.
std::optional<std::string> loopBackingFile(const struct stat& device) {
  if (!S_ISBLK(device.st_mode)) return std::nullopt;
  const std::string base = fmt::format("/sys/dev/block/{}:{}", major(device.st_rdev), minor(device.st_rdev));
  for (const char* rel : {"/loop/backing_file", "/../loop/backing_file"}) {
    std::ifstream in(base + rel);
    std::string line;
    if (in && std::getline(in, line) && !line.empty()) return line;
  }
  return std::nullopt;
}

ScanInfoError notRegular(const std::string& path) {
  return {kTitle, fmt::format("\"{}\" is not a regular file. A scan info file can only be written as a new file or "
                              "over an earlier one.",
                              path)};
}

}  // namespace

std::optional<ScanInfoError> checkScanInfoDestination(const std::string& path, const std::string& drivePath,
                                                      std::string* resolved) {
  if (path.empty() || path.back() == '/') return notRegular(path);
  struct stat target {};
  bool exists = false;
  std::string where;
  if (::lstat(path.c_str(), &target) == 0) {
    // Follow links to what they name: that is the file that would change.
    auto real = realPath(path);
    if (!real || ::stat(real->c_str(), &target) != 0 || !S_ISREG(target.st_mode)) return notRegular(path);
    exists = true;
    where = *real;
  } else if (errno == ENOENT) {
    const size_t slash = path.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    if (name == "." || name == "..") return notRegular(path);
    auto realDir = realPath(dir);
    struct stat st {};
    if (!realDir || ::stat(realDir->c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
      return ScanInfoError{kTitle, fmt::format("The scan info file \"{}\" could not be written: {}.", path,
                                               std::strerror(realDir ? ENOTDIR : errno))};
    where = (*realDir == "/" ? std::string() : *realDir) + "/" + name;
  } else {
    return ScanInfoError{kTitle,
                         fmt::format("The scan info file \"{}\" could not be written: {}.", path, std::strerror(errno))};
  }

  // The file is written beside its target and renamed over it: a folder that
  // cannot take a new file (read-only, not ours) is told now, not after a
  // scan that may take hours.
  const size_t cut = where.rfind('/');
  const std::string folder = cut == std::string::npos ? "." : cut == 0 ? "/" : where.substr(0, cut);
  if (::faccessat(AT_FDCWD, folder.c_str(), W_OK | X_OK, AT_EACCESS) != 0)
    return ScanInfoError{kTitle,
                         fmt::format("The scan info file \"{}\" could not be written: {}.", path, std::strerror(errno))};

  struct stat drive {};
  if (exists && !drivePath.empty() && ::stat(drivePath.c_str(), &drive) == 0) {
    bool isDrive = sameFile(target, drive);
    if (!isDrive) {
      struct stat backing {};
      if (auto file = loopBackingFile(drive); file && ::stat(file->c_str(), &backing) == 0)
        isDrive = sameFile(target, backing);
    }
    if (isDrive)
      return ScanInfoError{kTitle, fmt::format("The scan info file \"{}\" would overwrite the drive being scanned ({}). "
                                               "Choose another file.",
                                               path, drivePath)};
  }
  if (resolved) *resolved = where;
  return std::nullopt;
}

namespace scaninfo {

int createTemporaryBeside(const std::string& target, std::string& tempPath) {
  const size_t slash = target.rfind('/');
  const std::string dir = slash == std::string::npos ? std::string() : target.substr(0, slash + 1);
  const std::string name = slash == std::string::npos ? target : target.substr(slash + 1);
  static constexpr char kLetters[] = "abcdefghijklmnopqrstuvwxyz0123456789";
  std::random_device seed;
  std::mt19937 gen(seed());
  std::uniform_int_distribution<size_t> pick(0, sizeof kLetters - 2);
  for (int tries = 0; tries < 100; ++tries) {
    std::string suffix(8, 'x');
    for (char& c : suffix) c = kLetters[pick(gen)];
    // Hidden, and cut so that it fits where the target's own name fits.
    tempPath = dir + "." + name.substr(0, NAME_MAX - 10) + "." + suffix;
    const int fd = ::open(tempPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd >= 0 || errno != EEXIST) return fd;
  }
  errno = EEXIST;
  return -1;
}

}  // namespace scaninfo
}  // namespace ambrel
