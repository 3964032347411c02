#include "output/Saver.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unordered_map>

#include "base/Endian.h"
#include "base/ProgressReport.h"
#include "hfs/Volume.h"
#include "compress/Decmpfs.h"
#include "output/AppleDouble.h"
#include "output/Decompress.h"
#include "output/SafeName.h"

namespace ambrel {

namespace {

constexpr long kHfsPlusMagic = 0x482b;
constexpr long kHfsMagic = 0x4244;
// One read never exceeds this many sectors (8 MiB), whatever block size a
// damaged header claims; with real block sizes a read is exactly one group.
constexpr uint64_t kMaxReadSectors = 16384;
// Numbered names tried for one entry before it counts as not creatable.
constexpr uint32_t kMaxNumberTries = 100000;
constexpr const char* kSavingStatus = "Saving Files ...";

std::string entryPath(const HDIR& e) { return e.pathName + "/" + e.fileName(); }

class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() { reset(); }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  Fd(Fd&& o) noexcept : fd_(o.release()) {}
  Fd& operator=(Fd&& o) noexcept {
    if (this != &o) {
      reset();
      fd_ = o.release();
    }
    return *this;
  }
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }
  // close() result: a write the file system defers can fail only here.
  bool reset() {
    if (fd_ < 0) return true;
    const bool ok = ::close(fd_) == 0;
    fd_ = -1;
    return ok;
  }

 private:
  int fd_ = -1;
};

}  // namespace

namespace {

// The attributes tree is opened on the first compressed entry, through the
// source's own reader, and kept by this source (and its copies) alone.
void attachCompressionAttributes(ForkSource& s, Volume& volume) {
  s.compressionAttribute = [&volume, read = s.read, tree = std::shared_ptr<AttributesTree>()](uint32_t fileID) mutable {
    if (!tree) tree = volume.attributesTree(read);
    if (!tree) return std::vector<uint8_t>{};
    return volume.attributeValue(*tree, fileID, kDecmpfsAttributeName, read);
  };
}

}  // namespace

ForkSource saveSourceOf(Volume& volume) {
  ForkSource s;
  s.HPlusVolStart = volume.HPlusVolStart;
  s.blockSize = volume.blockSize;
  s.volumeScanType = volume.volumeScanType;
  s.read = [&volume](uint64_t sector, int32_t count, void* buffer) {
    return volume.readSaveSector(sector, count, buffer);
  };
  attachCompressionAttributes(s, volume);
  return s;
}

ForkSource previewSourceOf(Volume& volume) {
  ForkSource s = saveSourceOf(volume);
  s.read = [&volume](uint64_t sector, int32_t count, void* buffer) {
    return volume.readPreviewSector(sector, count, buffer);
  };
  attachCompressionAttributes(s, volume);
  return s;
}

DestinationInfo destinationInfo(const std::string& path) {
  DestinationInfo info;
  struct stat st {};
  info.exists = ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
  if (!info.exists) return info;
  info.writable = ::access(path.c_str(), W_OK | X_OK) == 0;
  struct statvfs vfs {};
  if (::statvfs(path.c_str(), &vfs) == 0) info.freeBytes = uint64_t{vfs.f_bavail} * vfs.f_frsize;
  struct statfs fs {};
  if (::statfs(path.c_str(), &fs) == 0) {
    info.infoAvailable = true;
    const long type = static_cast<long>(fs.f_type);
    info.canSaveSlashes = type == kHfsPlusMagic || type == kHfsMagic;
  }
  return info;
}

MarkedCount countMarkedDataAndFiles(const HDIR& root) {
  MarkedCount count;
  std::vector<const HDIR*> stack{&root};
  while (!stack.empty()) {
    const HDIR* d = stack.back();
    stack.pop_back();
    if (d->selected() == 1 && d->fileType == kHDIRFile) {
      count.markedData += d->fileSize;
      ++count.markedFiles;
    }
    for (auto it = d->children().rbegin(); it != d->children().rend(); ++it) stack.push_back(it->get());
  }
  return count;
}

std::string markedDataText(const MarkedCount& count) {
  return fmt::format("{} in {} Files", count.markedData == 0 ? std::string("0 KB") : sizeText(count.markedData),
                     count.markedFiles);
}

std::string savedDataText(uint64_t bytes) { return "Saved: " + sizeText(bytes); }

// One folder being written: its entry, its open descriptor (closed while deep
// below it, and opened again through ".." of the child on the way back), and
// the subfolders to enter once its own children are written.
struct Saver::Walk {
  struct Frame {
    const HDIR* dir = nullptr;
    Fd fd;
    dev_t dev = 0;
    ino_t ino = 0;
    std::vector<std::pair<size_t, std::string>> subfolders;  // child index, name written
    size_t nextSub = 0;
    bool childrenDone = false;
    bool lost = false;  // could not be opened again: the rest of it is given up
  };

  // Names given so far in one folder, so that the n-th wanting a name starts
  // at its number rather than trying all the earlier ones again.
  struct Names {
    std::unordered_map<std::string, uint32_t> next;
    size_t maxBytes = kDefaultNameMax;
  };

  enum class Kind { Folder, File, FileWithSidecar };
  struct Created {
    std::string name;
    Fd data, sidecar;
  };

  Saver& saver;
  bool canSaveSlashes = true;
  std::vector<Frame> frames;

  static size_t nameMax(int dirFd) {
    const long n = ::fpathconf(dirFd, _PC_NAME_MAX);
    return n > 2 ? static_cast<size_t>(n) : kDefaultNameMax;
  }

  // Creates the entry under the first free numbered name. Nothing that exists
  // is opened or replaced: folders by mkdirat, files with O_EXCL (which also
  // refuses a symbolic link in the way).
  std::optional<Created> create(int dirFd, Names& names, const HDIR& entry, Kind kind) {
    const size_t limit = kind == Kind::FileWithSidecar ? names.maxBytes - 2 : names.maxBytes;
    bool changed = false;
    const std::string base = safeName(madeName(entry.fileName(), canSaveSlashes), limit, &changed);
    uint32_t& n = names.next[base];
    if (n == 0) n = 1;
    for (uint32_t tries = 0; tries < kMaxNumberTries; ++tries, ++n) {
      Created c;
      c.name = numberedName(base, n, limit);
      if (kind == Kind::Folder) {
        if (::mkdirat(dirFd, c.name.c_str(), 0777) != 0) {
          if (errno == EEXIST) continue;
          return failedCreate(entry, c.name);
        }
      } else {
        c.data = Fd(::openat(dirFd, c.name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0755));
        if (c.data.get() < 0) {
          if (errno == EEXIST) continue;
          return failedCreate(entry, c.name);
        }
        if (kind == Kind::FileWithSidecar) {
          const std::string side = "._" + c.name;
          c.sidecar = Fd(::openat(dirFd, side.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
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
      if (changed || c.name != madeName(entry.fileName(), canSaveSlashes)) saver.renamedEntry(entryPath(entry), c.name);
      return c;
    }
    errno = EEXIST;
    return failedCreate(entry, base);
  }

  std::optional<Created> failedCreate(const HDIR& entry, const std::string& name) {
    const int err = errno;
    ++saver.result_.failedCreates;
    saver.problem(fmt::format("could not create \"{}\" for {}: {}", name, entryPath(entry), std::strerror(err)));
    return std::nullopt;
  }

  // Step 4 for one folder: its marked children, files written and folders
  // made. False when a read failed (the rest of this level is abandoned).
  bool saveChildren(Frame& f) {
    Names names;
    names.maxBytes = nameMax(f.fd.get());
    const auto& children = f.dir->children();
    for (size_t i = 0; i < children.size(); ++i) {
      if (saver.aborting()) return true;
      const HDIR& c = *children[i];
      if (c.selected() != 1) continue;
      if (c.fileType == kHDIRFolder) {
        auto made = create(f.fd.get(), names, c, Kind::Folder);
        if (!made) continue;
        ++saver.result_.foldersCreated;
        if (!c.children().empty()) f.subfolders.emplace_back(i, std::move(made->name));
      } else if (c.fileType == kHDIRFile) {
        ++saver.result_.saveCount;
        // Counted but not created: a file with no bytes in either fork.
        if (c.dataSize == 0 && c.rscSize == 0) continue;
        if (!saveFile(f, names, c)) return false;
      }
    }
    return true;
  }

  // False only when a read failed.
  bool saveFile(Frame& f, Names& names, const HDIR& c) {
    auto made = create(f.fd.get(), names, c, c.rscSize != 0 ? Kind::FileWithSidecar : Kind::File);
    if (!made) return true;
    bool failed = false;
    if (c.dataSize != 0) {
      uint64_t written = 0;
      const uint32_t damagedBefore = saver.result_.damagedCompressed;
      const Copy r = c.compressionType != 0 ? saver.copyCompressed(c, made->data.get(), &written)
                                            : saver.copyFork(c, c.dataExt, c.dataSize, made->data.get(), &written);
      if (r == Copy::ReadFailed) return readFailed(c);
      if (r == Copy::Aborted) return true;
      failed = r == Copy::WriteFailed || saver.result_.damagedCompressed != damagedBefore;
    }
    if (!made->data.reset()) failed = writeFailed(c, made->name);
    if (c.rscSize != 0) {
      const int fd = made->sidecar.get();
      const auto header = appleDoubleHeader(c.rscSize);
      if (!saver.writeAll(fd, header.data(), header.size())) {
        failed = writeFailed(c, "._" + made->name);
      } else {
        uint64_t written = 0;
        const Copy r = saver.copyFork(c, c.rscExt, c.rscSize, fd, &written);
        if (r == Copy::ReadFailed) return readFailed(c);
        if (r == Copy::Aborted) return true;
        if (r == Copy::WriteFailed) failed = true;
        // Extents shorter than the logical size: the header tells what is there.
        if (r == Copy::Done && written != c.rscSize) {
          uint8_t len[4];
          storeBE32(len, written > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(written));
          if (::pwrite(fd, len, 4, kAppleDoubleRsrcLengthOffset) != 4) failed = writeFailed(c, "._" + made->name);
        }
      }
      if (!made->sidecar.reset()) failed = writeFailed(c, "._" + made->name);
    }
    if (!failed) ++saver.result_.filesWritten;
    return true;
  }

  bool readFailed(const HDIR& c) {
    ++saver.result_.failedReads;
    saver.problem(fmt::format("could not read {}; the rest of its folder was skipped", entryPath(c)));
    return false;
  }

  bool writeFailed(const HDIR& c, const std::string& name) {
    const int err = errno;
    ++saver.result_.failedWrites;
    saver.problem(fmt::format("could not write \"{}\" for {}: {}", name, entryPath(c), std::strerror(err)));
    return true;
  }

  void push(const HDIR* dir, Fd fd) {
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0) {
      ++saver.result_.failedCreates;
      saver.problem(fmt::format("could not open the folder written for {}: {}", entryPath(*dir), std::strerror(errno)));
      return;
    }
    Frame f;
    f.dir = dir;
    f.fd = std::move(fd);
    f.dev = st.st_dev;
    f.ino = st.st_ino;
    frames.push_back(std::move(f));
    // Deep trees: keep only the innermost folders open.
    if (frames.size() > kMaxOpenFolders) frames[frames.size() - 1 - kMaxOpenFolders].fd.reset();
  }

  void pop() {
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
                              entryPath(*parent.dir)));
  }

  void run(const std::string& destination) {
    const HDIR& root = saver.root_;
    if (root.selected() != 1) return;
    Fd dest(::open(destination.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dest.get() < 0) {
      ++saver.result_.failedCreates;
      saver.problem(fmt::format("could not open the destination {}: {}", destination, std::strerror(errno)));
      return;
    }
    Names destNames;
    destNames.maxBytes = nameMax(dest.get());
    auto made = create(dest.get(), destNames, root, Kind::Folder);
    if (!made) return;
    ++saver.result_.foldersCreated;
    Fd rootFd(::openat(dest.get(), made->name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (rootFd.get() < 0) {
      failedCreate(root, made->name);
      return;
    }
    push(&root, std::move(rootFd));
    while (!frames.empty() && !saver.aborting()) {
      Frame& f = frames.back();
      if (f.lost) {
        pop();
        continue;
      }
      if (!f.childrenDone) {
        f.childrenDone = true;
        if (!saveChildren(f)) {
          pop();
          continue;
        }
        if (saver.aborting()) break;
      }
      if (f.nextSub >= f.subfolders.size()) {
        pop();
        continue;
      }
      const auto& [index, name] = f.subfolders[f.nextSub++];
      const HDIR* child = f.dir->childAtIndex(index);
      Fd childFd(::openat(f.fd.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
      if (childFd.get() < 0) {
        failedCreate(*child, name);
        continue;
      }
      push(child, std::move(childFd));
    }
    frames.clear();
  }
};

Saver::Saver(const HDIR& root, ForkSource source, AppControllerInterface* controller)
    : Saver(root, std::move(source), controller, Options{}) {}

Saver::Saver(const HDIR& root, ForkSource source, AppControllerInterface* controller, Options options)
    : root_(root), source_(std::move(source)), controller_(controller), options_(options) {}

int32_t Saver::blockSizeOf(const HDIR& entry) const { return entry.blockSize > 0 ? entry.blockSize : source_.blockSize; }

void Saver::problem(std::string text) {
  if (result_.problems.size() < kMaxListedProblems) result_.problems.push_back(std::move(text));
}

void Saver::renamedEntry(const std::string& from, const std::string& to) {
  ++result_.renamed;
  if (result_.renames.size() < kMaxListedProblems) result_.renames.push_back(fmt::format("{} saved as \"{}\"", from, to));
}

bool Saver::writeAll(int fd, const uint8_t* data, size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (n == 0) {
      errno = ENOSPC;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

void Saver::reportWrite(uint64_t bytes) {
  const uint64_t total = savedData_.fetch_add(bytes) + bytes;
  result_.savedData = total;
  if (!controller_) return;
  controller_->updateTreeProgress(ProgressReport{{progress::kSavedData, total},
                                                 {progress::kBarIncrement, bytes},
                                                 {progress::kProgressStatus, kSavingStatus}});
}

// Reads a fork through its extents in groups of 8 allocation blocks; in the
// last extent the final blocks are read one at a time so that the last one
// can be cut to the logical size. Nothing beyond the logical size is written.
Saver::Copy Saver::copyFork(const HDIR& entry, const std::vector<Extent>& extents, uint64_t logicalSize, int fd,
                            uint64_t* written) {
  const int32_t B = blockSizeOf(entry);
  if (B <= 0) return Copy::ReadFailed;
  uint64_t remaining = logicalSize;
  *written = 0;

  // Reads nBlocks blocks from `block` and writes up to what is left of the fork.
  auto copyBlocks = [&](uint64_t block, uint64_t nBlocks) -> Copy {
    uint64_t sector = source_.HPlusVolStart + block * uint64_t(B);
    uint64_t sectors = nBlocks * uint64_t(B);
    while (sectors > 0 && remaining > 0) {
      const uint64_t piece = std::min(sectors, kMaxReadSectors);
      const size_t bytes = static_cast<size_t>(piece * kSectorSize);
      if (buffer_.size() < bytes) buffer_.resize(bytes);
      // A short read near the drive's end counts as a read: what it left is zero.
      std::memset(buffer_.data(), 0, bytes);
      if (!source_.read(sector, static_cast<int32_t>(piece), buffer_.data())) return Copy::ReadFailed;
      const size_t n = static_cast<size_t>(std::min<uint64_t>(bytes, remaining));
      if (!writeAll(fd, buffer_.data(), n)) {
        const int err = errno;
        ++result_.failedWrites;
        problem(fmt::format("could not write {}: {}", entryPath(entry), std::strerror(err)));
        return Copy::WriteFailed;
      }
      remaining -= n;
      *written += n;
      reportWrite(n);
      sector += piece;
      sectors -= piece;
    }
    return Copy::Done;
  };

  for (size_t i = 0; i < extents.size(); ++i) {
    if (aborting()) return Copy::Aborted;
    if (remaining == 0) break;
    const Extent& e = extents[i];
    const bool last = i + 1 == extents.size();
    const uint64_t groups = e.blockCount / 8;
    const uint64_t rest = e.blockCount % 8;
    for (uint64_t g = 0; g < groups && remaining > 0; ++g) {
      if (aborting()) return Copy::Aborted;
      const uint64_t first = uint64_t(e.startBlock) + 8 * g;
      if (last && rest == 0 && g + 1 == groups) {
        for (uint64_t k = 0; k < 8 && remaining > 0; ++k) {
          if (aborting()) return Copy::Aborted;
          if (Copy r = copyBlocks(first + k, 1); r != Copy::Done) return r;
        }
      } else if (Copy r = copyBlocks(first, 8); r != Copy::Done) {
        return r;
      }
    }
    if (rest > 0 && remaining > 0) {
      const uint64_t first = uint64_t(e.startBlock) + 8 * groups;
      if (!last) {
        if (aborting()) return Copy::Aborted;
        if (Copy r = copyBlocks(first, rest); r != Copy::Done) return r;
      } else {
        for (uint64_t k = 0; k < rest && remaining > 0; ++k) {
          if (aborting()) return Copy::Aborted;
          if (Copy r = copyBlocks(first + k, 1); r != Copy::Done) return r;
        }
      }
    }
  }
  return Copy::Done;
}

Saver::Copy Saver::copyCompressed(const HDIR& entry, int fd, uint64_t* written) {
  *written = 0;
  bool writeFailed = false;
  const DecompressResult r = decompressEntry(
      source_, entry,
      [&](const uint8_t* data, size_t size) {
        if (!writeAll(fd, data, size)) {
          const int err = errno;
          ++result_.failedWrites;
          problem(fmt::format("could not write {}: {}", entryPath(entry), std::strerror(err)));
          writeFailed = true;
          return false;
        }
        *written += size;
        reportWrite(size);
        return true;
      },
      [this] { return aborting(); });
  if (r.aborted) return Copy::Aborted;
  if (writeFailed) return Copy::WriteFailed;
  if (!r.opened || r.badChunks > 0) {
    ++result_.damagedCompressed;
    problem(r.opened && entry.compressionType % 2 == 0
                ? fmt::format("{} is compressed and {} of its parts could not be decoded ({}); they were saved as zeros",
                              entryPath(entry), r.badChunks, r.problem)
                : fmt::format("{} is compressed and could not be decoded: {}; it was saved empty", entryPath(entry),
                              r.problem));
  }
  return Copy::Done;
}

SaveResult Saver::saveFilesAndFolders(const std::string& destination) {
  result_ = SaveResult{};
  savedData_.store(0);
  const MarkedCount marked = countMarkedDataAndFiles(root_);
  if (controller_)
    controller_->updateTreeProgress(ProgressReport{{progress::kBarMinValue, 0},
                                                   {progress::kBarMaxValue, marked.markedData},
                                                   {progress::kProgressStatus, kSavingStatus}});
  abortSaving_.store(false);

  Walk walk{*this, true, {}};
  walk.canSaveSlashes = options_.canSaveSlashes ? *options_.canSaveSlashes : destinationInfo(destination).canSaveSlashes;
  walk.run(destination);

  result_.aborted = aborting();
  result_.savedData = savedData_.load();
  if (controller_) {
    const char* title = result_.aborted ? "Saving Aborted" : "Saving Completed";
    controller_->updateTreeProgress(ProgressReport{{progress::kBarDoubleValue, 0}, {progress::kProgressStatus, title}});
    if (options_.finalAlert) {
      std::string message = (result_.aborted ? "Saving location was: " : "Saved at: ") + destination;
      if (result_.failedCreates)
        message += fmt::format("\n{} files or folders could not be created.", result_.failedCreates);
      if (result_.failedWrites) message += fmt::format("\n{} files could not be written completely.", result_.failedWrites);
      if (result_.failedReads)
        message += fmt::format("\n{} folders were left incomplete because the drive could not be read.",
                               result_.failedReads);
      if (result_.damagedCompressed)
        message += fmt::format("\n{} compressed files could not be decoded completely.", result_.damagedCompressed);
      if (result_.renamed)
        message += fmt::format("\n{} names were changed so that they could be saved safely.", result_.renamed);
      controller_->alert(title, message, {"OK"});
    }
  }
  return result_;
}

}  // namespace ambrel
