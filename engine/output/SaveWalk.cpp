#include "output/SaveWalk.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/Endian.h"
#include "output/AppleDouble.h"
#include "tree/Links.h"

namespace ambrel {

namespace {

// Numbered names tried for one entry before it counts as not creatable.
constexpr uint32_t kMaxNumberTries = 100000;

size_t nameMax(int dirFd) {
  const long n = ::fpathconf(dirFd, _PC_NAME_MAX);
  return n > 2 ? static_cast<size_t>(n) : kDefaultNameMax;
}

// Data files are not programs unless the catalog says so.
mode_t fileModeFor(const HDIR& entry) { return (entry.fileMode & 0111) != 0 ? 0755 : 0644; }

// rename that never replaces: EEXIST when `to` is taken.
bool moveNoReplace(int dirFd, const std::string& from, const std::string& to) {
  if (::renameat2(dirFd, from.c_str(), dirFd, to.c_str(), RENAME_NOREPLACE) == 0) return true;
  if (errno != EINVAL && errno != ENOSYS) return false;
  // File systems without the flag: the folder is ours, so a look first is enough.
  if (::faccessat(dirFd, to.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0) {
    errno = EEXIST;
    return false;
  }
  return ::renameat(dirFd, from.c_str(), dirFd, to.c_str()) == 0;
}

std::string sidecarName(const std::string& name) { return "._" + name; }

}  // namespace

bool Fd::reset() {
  if (fd_ < 0) return true;
  const bool ok = ::close(fd_) == 0;
  fd_ = -1;
  return ok;
}

uint32_t markedFilesBelow(const HDIR& folder) {
  uint32_t n = 0;
  std::vector<const HDIR*> stack{&folder};
  while (!stack.empty()) {
    const HDIR* d = stack.back();
    stack.pop_back();
    for (const auto& c : d->children()) {
      if (c->selected() != 1) continue;
      if (c->fileType == kHDIRFile) ++n;
      else if (c->fileType == kHDIRFolder) stack.push_back(c.get());
    }
  }
  return n;
}

// Creates the entry under the first free numbered name. Nothing that exists
// is opened or replaced: folders by mkdirat, files with O_EXCL (which also
// refuses a symbolic link in the way).
std::optional<Saver::Walk::Created> Saver::Walk::create(int dirFd, Names& names, const HDIR& entry, Kind kind,
                                                        const std::string& linkTarget) {
  const size_t limit = kind == Kind::FileWithSidecar ? names.maxBytes - 2 : names.maxBytes;
  bool changed = false;
  const std::string base = safeName(madeName(entry.fileName(), canSaveSlashes), limit, &changed);
  uint32_t& n = names.next[base];
  if (n == 0) n = 1;
  const int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  for (uint32_t tries = 0; tries < kMaxNumberTries; ++tries, ++n) {
    Created c;
    c.name = numberedName(base, n, limit);
    if (kind == Kind::Folder) {
      if (::mkdirat(dirFd, c.name.c_str(), 0777) != 0) {
        if (errno == EEXIST) continue;
        return failedCreate(entry, c.name);
      }
    } else if (kind == Kind::Symlink) {
      // The caller decides whether a refusal means writing a file instead.
      if (::symlinkat(linkTarget.c_str(), dirFd, c.name.c_str()) != 0) {
        if (errno == EEXIST) continue;
        return std::nullopt;
      }
    } else {
      c.data = Fd(::openat(dirFd, c.name.c_str(), flags, fileModeFor(entry)));
      if (c.data.get() < 0) {
        if (errno == EEXIST) continue;
        return failedCreate(entry, c.name);
      }
      if (kind == Kind::FileWithSidecar) {
        const std::string side = sidecarName(c.name);
        c.sidecar = Fd(::openat(dirFd, side.c_str(), flags, 0644));
        if (c.sidecar.get() < 0) {
          const int err = errno;
          c.data.reset();
          ::unlinkat(dirFd, c.name.c_str(), 0);
          if (err == EEXIST) continue;
          errno = err;
          return failedCreate(entry, side);
        }
      }
    }
    ++n;
    if (changed || c.name != madeName(entry.fileName(), canSaveSlashes)) saver.renamedEntry(entry, c.name);
    return c;
  }
  errno = EEXIST;
  return failedCreate(entry, base);
}

std::optional<Saver::Walk::Created> Saver::Walk::failedCreate(const HDIR& entry, const std::string& name) {
  const int err = errno;
  ++saver.result_.failedCreates;
  saver.problem(fmt::format("could not create \"{}\" for {}: {}", name, listedPath(entry), std::strerror(err)));
  return std::nullopt;
}

void Saver::Walk::folderLost(const HDIR& folder, const std::string& why) {
  const uint32_t n = markedFilesBelow(folder);
  if (n == 0) return;
  saver.result_.filesNotSaved += n;
  saver.problem(fmt::format("{} marked {} below {} {} not saved: {}", n, n == 1 ? "file" : "files",
                            listedPath(folder), n == 1 ? "was" : "were", why));
}

void Saver::Walk::discard(int dirFd, const std::string& name, bool sidecar) {
  ::unlinkat(dirFd, name.c_str(), 0);
  if (sidecar) ::unlinkat(dirFd, sidecarName(name).c_str(), 0);
}

std::optional<std::string> Saver::Walk::keepIncomplete(int dirFd, Names& names, const std::string& name,
                                                        bool sidecar) {
  const size_t limit = sidecar ? names.maxBytes - 2 : names.maxBytes;
  for (uint32_t n = 1; n < kMaxNumberTries; ++n) {
    const std::string target = incompleteName(name, n, limit);
    if (!moveNoReplace(dirFd, name, target)) {
      if (errno == EEXIST) continue;
      break;
    }
    if (!sidecar || moveNoReplace(dirFd, sidecarName(name), sidecarName(target))) return target;
    const bool taken = errno == EEXIST;
    // Put the data fork back so that the pair moves together.
    if (!moveNoReplace(dirFd, target, name)) {
      discard(dirFd, target, false);
      break;
    }
    if (!taken) break;
  }
  discard(dirFd, name, sidecar);
  return std::nullopt;
}

// Step 4 for one folder: its marked children, files written and folders made.
void Saver::Walk::saveChildren(Frame& f) {
  Names names;
  names.maxBytes = nameMax(f.fd.get());
  const auto& children = f.contents->children();
  for (size_t i = 0; i < children.size(); ++i) {
    if (saver.aborting()) return;
    const HDIR& c = *children[i];
    if (!f.all && c.selected() != 1) continue;
    if (saver.options_.filter && !saver.options_.filter->keeps(c)) continue;
    if (savedAtLinks.count(&c)) {
      // A private folder left out whole counts its entries.
      saver.result_.savedAtLinks += f.dir == &saver.root_ ? static_cast<uint32_t>(c.children().size()) : 1;
      continue;
    }
    if (c.fileType == kHDIRFolder) {
      auto made = create(f.fd.get(), names, c, Kind::Folder);
      if (!made) {
        folderLost(c, "their folder could not be created");
        continue;
      }
      ++saver.result_.foldersCreated;
      if (linkRefused(f, c)) {
        ++saver.result_.linkLoops;
        saver.problem(fmt::format("{} is a folder link that leads back into a folder above it; it was left empty",
                                  listedPath(c)));
        continue;
      }
      if (!contentsOf(c).children().empty()) f.subfolders.emplace_back(i, std::move(made->name));
    } else if (c.fileType == kHDIRFile && c.linkKind == LinkKind::Symlink) {
      ++saver.result_.saveCount;
      saveSymlink(f, names, c);
    } else if (c.fileType == kHDIRFile) {
      ++saver.result_.saveCount;
      // Counted but not created: a file with no bytes in either fork.
      if (c.dataSize == 0 && c.rscSize == 0) {
        ++saver.result_.emptyFiles;
        continue;
      }
      saveFile(f, names, c);
    }
  }
}

bool Saver::Walk::linkRefused(const Frame& f, const HDIR& link) const {
  const HDIR* target = linkedFolder(link);
  if (!target) return false;
  if (f.linkDepth + 1 > kMaxLinkDepth) return true;
  for (const Frame& open : frames)
    if (open.contents == target) return true;
  return false;
}

// A link to wherever its target points, never followed. A destination that
// cannot hold links gets a small file holding the target instead.
void Saver::Walk::saveSymlink(Frame& f, Names& names, const HDIR& c) {
  constexpr size_t kMaxTarget = 4095;
  std::string target;
  const bool usable = c.compressionType == 0 && c.dataSize > 0 && c.dataSize <= kMaxTarget &&
                      saver.readSmallFork(c, kMaxTarget, target) && target.find('\0') == std::string::npos;
  if (usable) {
    if (auto made = create(f.fd.get(), names, c, Kind::Symlink, target)) {
      ++saver.result_.filesWritten;
      ++saver.result_.symlinksCreated;
      saved(f, c, made->name, true, true);
      return;
    }
    if (errno != EPERM && errno != EOPNOTSUPP && errno != ENOSYS) {
      failedCreate(c, madeName(c.fileName(), canSaveSlashes));
      ++saver.result_.filesNotSaved;
      return;
    }
  }
  ++saver.result_.symlinksAsFiles;
  if (c.dataSize == 0 && c.rscSize == 0) {
    ++saver.result_.emptyFiles;
    return;
  }
  saveFile(f, names, c);
}

void Saver::Walk::saveFile(Frame& f, Names& names, const HDIR& c) {
  const bool hasRsrc = c.rscSize != 0;
  auto made = create(f.fd.get(), names, c, hasRsrc ? Kind::FileWithSidecar : Kind::File);
  if (!made) {
    ++saver.result_.filesNotSaved;  // named by failedCreate
    return;
  }
  const int dir = f.fd.get();
  SaveResult& result = saver.result_;
  ForkCopy data, rsrc;
  uint32_t badChunks = 0;
  bool opened = true;
  std::string why;
  bool aborted = false;
  int err = 0;
  std::string failedName;
  auto writeFailed = [&](int e, const std::string& name) {
    if (err) return;
    err = e;
    failedName = name;
  };

  if (c.dataSize != 0) {
    const Copy r = c.compressionType != 0
                       ? saver.copyCompressed(c, made->data.get(), data, badChunks, opened, why)
                       : saver.copyFork(c, c.dataExt, c.dataSize, made->data.get(), data);
    if (r == Copy::WriteFailed) writeFailed(data.writeError, made->name);
    aborted = r == Copy::Aborted;
  }
  if (!made->data.reset()) writeFailed(errno, made->name);
  if (hasRsrc && !err && !aborted) {
    const int fd = made->sidecar.get();
    const auto header = appleDoubleHeader(c.rscSize);
    if (!saver.writeAll(fd, header.data(), header.size())) {
      writeFailed(errno, sidecarName(made->name));
    } else {
      const Copy r = saver.copyFork(c, c.rscExt, c.rscSize, fd, rsrc);
      if (r == Copy::WriteFailed) writeFailed(rsrc.writeError, sidecarName(made->name));
      aborted = r == Copy::Aborted;
      // Extents shorter than the logical size: the header tells what is there.
      if (r == Copy::Done && rsrc.written != c.rscSize) {
        uint8_t len[4];
        storeBE32(len, rsrc.written > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(rsrc.written));
        if (::pwrite(fd, len, 4, kAppleDoubleRsrcLengthOffset) != 4) writeFailed(errno, sidecarName(made->name));
      }
    }
  }
  if (hasRsrc && !made->sidecar.reset()) writeFailed(errno, sidecarName(made->name));

  // Built only for a problem: it costs the depth of the entry.
  auto path = [&c] { return listedPath(c); };
  if (err) {
    // A destination that is full or failing: a cut file under its real name
    // would pass for a saved one, so nothing of it stays.
    discard(dir, made->name, hasRsrc);
    result.bytesRemoved += data.written + rsrc.written;
    ++result.failedWrites;
    ++result.filesNotSaved;
    saver.problem(fmt::format("could not write \"{}\" for {}: {}; what was written of it was removed", failedName,
                              path(), std::strerror(err)));
    return;
  }

  const bool compressed = c.compressionType != 0;
  const uint64_t unreadable = data.sectorsUnreadable + rsrc.sectorsUnreadable;
  const bool noGeometry = data.noGeometry || rsrc.noGeometry;
  if (unreadable > 0 || noGeometry) {
    ++result.failedReads;
    result.unreadableSectors += unreadable;
  }
  const bool badCompressed = compressed && (!opened || badChunks > 0);
  if (badCompressed) ++result.damagedCompressed;
  const bool nothingRead = compressed ? !opened : (unreadable > 0 || noGeometry) && data.sectorsRead + rsrc.sectorsRead == 0;
  if (nothingRead) {
    discard(dir, made->name, hasRsrc);
    result.bytesRemoved += data.written + rsrc.written;
    ++result.filesNotSaved;
    saver.problem(compressed ? fmt::format("{} is compressed and could not be decoded: {}; nothing of it was saved",
                                           path(), why)
                  : noGeometry ? fmt::format("could not read {}: its block size is unknown; nothing of it was saved", path())
                               : fmt::format("could not read {}: none of its {} sectors could be read; nothing of it "
                                             "was saved",
                                             path(), unreadable));
    return;
  }
  const bool cutShort = !aborted && ((!compressed && data.written < c.dataSize) || rsrc.written < c.rscSize);
  if (!aborted && unreadable == 0 && !noGeometry && !badCompressed && !cutShort) {
    ++result.filesWritten;
    saved(f, c, made->name, true, false, hasRsrc);
    if (c.confidence != Confidence::Sure) {
      ++result.uncertain;
      if (result.uncertainFiles.size() < kMaxListedProblems)
        result.uncertainFiles.push_back(fmt::format("{} ({})", path(), confidenceText(c.confidence)));
    }
    return;
  }

  std::string what;
  if (aborted) what = fmt::format("saving was stopped inside {}", path());
  else if (unreadable > 0 || noGeometry)
    what = fmt::format("could not read {}: {} of its sectors could not be read and are zeros", path(), unreadable);
  else if (badCompressed)
    what = fmt::format("{} is compressed and {} of its parts could not be decoded ({}); they are zeros", path(),
                       badChunks, why);
  else
    what = fmt::format("{} is cut short: its extents hold {} of its {} bytes", path(), data.written + rsrc.written,
                       (compressed ? 0 : c.dataSize) + c.rscSize);
  // An empty file under any name would only pass for something recovered.
  if (data.written + rsrc.written == 0) {
    discard(dir, made->name, hasRsrc);
    result.bytesRemoved += data.written + rsrc.written;
    ++result.filesNotSaved;
    saver.problem(what + "; nothing of it had been written");
    return;
  }
  if (auto kept = keepIncomplete(dir, names, made->name, hasRsrc)) {
    ++result.filesIncomplete;
    saved(f, c, *kept, false, false, hasRsrc);
    saver.problem(fmt::format("{}; saved as \"{}\"", what, *kept));
  } else {
    ++result.filesNotSaved;
    result.bytesRemoved += data.written + rsrc.written;
    saver.problem(fmt::format("{}; it could not be renamed to say so ({}) and was removed", what, std::strerror(errno)));
  }
}

void Saver::Walk::saved(const Frame& f, const HDIR& c, const std::string& name, bool whole, bool symlink,
                        bool sidecar) {
  if (!saver.options_.onSaved) return;
  saver.options_.onSaved(SavedFile{c, f.fd.get(), name, f.savedPath + "/" + name, whole, symlink, sidecar});
}

void Saver::Walk::push(const HDIR* dir, Fd fd, bool all, size_t linkDepth, std::string savedPath) {
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0) {
    const int err = errno;
    ++saver.result_.failedCreates;
    saver.problem(fmt::format("could not open the folder written for {}: {}", listedPath(*dir), std::strerror(err)));
    folderLost(*dir, "their folder could not be opened");
    return;
  }
  Frame f;
  f.dir = dir;
  f.contents = &contentsOf(*dir);
  f.all = all || f.contents != dir;
  f.linkDepth = linkDepth + (f.contents != dir ? 1 : 0);
  f.savedPath = std::move(savedPath);
  f.fd = std::move(fd);
  f.dev = st.st_dev;
  f.ino = st.st_ino;
  frames.push_back(std::move(f));
  // Deep trees: keep only the innermost folders open.
  if (frames.size() > kMaxOpenFolders) frames[frames.size() - 1 - kMaxOpenFolders].fd.reset();
}

void Saver::Walk::pop() {
  Frame top = std::move(frames.back());
  frames.pop_back();
  if (frames.empty()) return;
  Frame& parent = frames.back();
  if (parent.fd.get() >= 0 || parent.lost) return;
  Fd up(top.fd.get() >= 0 ? ::openat(top.fd.get(), "..", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC) : -1);
  struct stat st {};
  if (up.get() >= 0 && ::fstat(up.get(), &st) == 0 && st.st_dev == parent.dev && st.st_ino == parent.ino) {
    parent.fd = std::move(up);
    return;
  }
  // Moved away while we were below it: nothing more is written there.
  parent.lost = true;
  ++saver.result_.failedCreates;
  saver.problem(fmt::format("the folder written for {} was moved during the save; the rest of it was skipped",
                            listedPath(*parent.dir)));
  for (size_t i = parent.nextSub; i < parent.subfolders.size(); ++i)
    folderLost(*parent.contents->childAtIndex(parent.subfolders[i].first), "their folder was moved away");
}

void Saver::Walk::run(const std::string& destination) {
  const HDIR& root = saver.root_;
  if (root.selected() != 1) return;
  savedAtLinks = linkedPrivateEntries(root);
  Fd dest(::open(destination.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dest.get() < 0) {
    ++saver.result_.failedCreates;
    saver.problem(fmt::format("could not open the destination {}: {}", destination, std::strerror(errno)));
    folderLost(root, "the destination could not be opened");
    return;
  }
  Names destNames;
  destNames.maxBytes = nameMax(dest.get());
  auto made = create(dest.get(), destNames, root, Kind::Folder);
  if (!made) {
    folderLost(root, "their folder could not be created");
    return;
  }
  ++saver.result_.foldersCreated;
  Fd rootFd(::openat(dest.get(), made->name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (rootFd.get() < 0) {
    failedCreate(root, made->name);
    folderLost(root, "their folder could not be opened");
    return;
  }
  push(&root, std::move(rootFd), false, 0, made->name);
  while (!frames.empty() && !saver.aborting()) {
    Frame& f = frames.back();
    if (f.lost) {
      pop();
      continue;
    }
    if (!f.childrenDone) {
      f.childrenDone = true;
      saveChildren(f);
      if (saver.aborting()) break;
    }
    if (f.nextSub >= f.subfolders.size()) {
      pop();
      continue;
    }
    const auto& [index, name] = f.subfolders[f.nextSub++];
    const HDIR* child = f.contents->childAtIndex(index);
    Fd childFd(::openat(f.fd.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (childFd.get() < 0) {
      failedCreate(*child, name);
      folderLost(*child, "their folder could not be opened");
      continue;
    }
    push(child, std::move(childFd), f.all, f.linkDepth, f.savedPath + "/" + name);
  }
  frames.clear();
}

}  // namespace ambrel
