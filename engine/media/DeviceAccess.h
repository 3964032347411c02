#pragma once
// Why a drive or image could not be opened, in words a user can act on.
#include <string>

namespace ambrel {

// "cannot open PATH: ..." for `error` (an errno value). A block device this
// user may not read says how to get access: run as root, or join the group
// that owns the device (usually "disk").
std::string openFailureText(const std::string& path, int error);

// The hint alone, for a block device this user may not read (as root: that
// the system's device rules refuse it); "" for any other path.
std::string deviceAccessHint(const std::string& path);

}  // namespace ambrel
