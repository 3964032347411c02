#pragma once
// Opening a source (a drive, a disk image, a scan info file) read-only
// without ever blocking: the open is made with O_NONBLOCK and the kind of
// file checked with fstat before anything is read, so a named pipe, a socket
// or a terminal given by mistake is refused at once instead of waiting for a
// writer that never comes.
#include <sys/stat.h>

#include <string>

namespace ambrel {

struct ReadOnlyFile {
  int fd = -1;             // open, blocking mode restored; -1 on failure
  int error = 0;           // errno of a failed open or fstat
  bool wrongKind = false;  // opened, but neither a regular file nor (where allowed) a block device
  struct stat st {};
};

// The caller owns and closes `fd`. A wrong kind is closed here and reported
// with wrongKind set.
ReadOnlyFile openReadOnlyFile(const std::string& path, bool allowBlockDevice);

// "a named pipe", "a folder", "a character device", ... for messages.
const char* fileKindName(mode_t mode);

}  // namespace ambrel
