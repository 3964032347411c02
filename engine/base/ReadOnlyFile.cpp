#include "base/ReadOnlyFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace ambrel {

ReadOnlyFile openReadOnlyFile(const std::string& path, bool allowBlockDevice) {
  ReadOnlyFile f;
  const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    f.error = errno;
    return f;
  }
  if (::fstat(fd, &f.st) != 0) {
    f.error = errno;
    ::close(fd);
    return f;
  }
  const bool usable = S_ISREG(f.st.st_mode) || (allowBlockDevice && S_ISBLK(f.st.st_mode));
  if (!usable) {
    f.wrongKind = true;
    ::close(fd);
    return f;
  }
  // Regular files and block devices ignore O_NONBLOCK; cleared all the same.
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags >= 0) ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
  f.fd = fd;
  return f;
}

const char* fileKindName(mode_t mode) {
  if (S_ISFIFO(mode)) return "a named pipe";
  if (S_ISDIR(mode)) return "a folder";
  if (S_ISCHR(mode)) return "a character device";
  if (S_ISSOCK(mode)) return "a socket";
  if (S_ISBLK(mode)) return "a block device";
  if (S_ISREG(mode)) return "a regular file";
  return "not a regular file";
}

}  // namespace ambrel
