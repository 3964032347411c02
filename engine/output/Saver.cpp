#include "output/Saver.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "base/Endian.h"
#include "base/ProgressReport.h"
#include "hfs/Volume.h"
#include "compress/Decmpfs.h"
#include "output/AppleDouble.h"
#include "output/Decompress.h"
#include "output/SafeName.h"
#include "output/SaveWalk.h"

namespace ambrel {

namespace {

constexpr long kHfsPlusMagic = 0x482b;
constexpr long kHfsMagic = 0x4244;
// One read never exceeds this many sectors (8 MiB), whatever block size a
// damaged header claims; with real block sizes a read is exactly one group.
constexpr uint64_t kMaxReadSectors = 16384;
constexpr size_t kWriteBytes = size_t{1} << 20;
// What one copy inside the kernel moves at most: progress, and a stop, are
// seen in the same steps as the writes.
constexpr uint64_t kKernelCopyBytes = kWriteBytes;
constexpr const char* kSavingStatus = "Saving Files ...";

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
  s.copy = [&volume](uint64_t sector, uint64_t bytes, int outFd) {
    return volume.copySaveSectors(sector, bytes, outFd);
  };
  attachCompressionAttributes(s, volume);
  return s;
}

ForkSource previewSourceOf(Volume& volume) {
  ForkSource s = saveSourceOf(volume);
  s.read = [&volume](uint64_t sector, int32_t count, void* buffer) {
    return volume.readPreviewSector(sector, count, buffer);
  };
  s.copy = nullptr;
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
  if (::statvfs(path.c_str(), &vfs) == 0) {
    info.freeBytes = uint64_t{vfs.f_bavail} * vfs.f_frsize;
    if (vfs.f_frsize > 0) info.blockBytes = vfs.f_frsize;
  }
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

uint64_t bytesToWrite(const HDIR& root, uint64_t blockBytes, const FilteredTree* filter) {
  if (root.selected() != 1) return 0;
  const uint64_t unit = std::max<uint64_t>(blockBytes, 1);
  auto rounded = [unit](uint64_t bytes) { return (bytes + unit - 1) / unit * unit; };
  uint64_t total = unit;  // the root's own folder
  std::vector<const HDIR*> stack{&root};
  while (!stack.empty()) {
    const HDIR* d = stack.back();
    stack.pop_back();
    for (const auto& c : d->children()) {
      if (c->selected() != 1 || (filter && !filter->keeps(*c))) continue;
      if (c->fileType == kHDIRFolder) {
        total += unit;
        stack.push_back(c.get());
      } else if (c->fileType == kHDIRFile) {
        total += rounded(c->dataSize);
        if (c->rscSize != 0) total += rounded(kAppleDoubleHeaderSize + c->rscSize);
      }
    }
  }
  return total;
}

std::string markedDataText(const MarkedCount& count) {
  return fmt::format("{} in {} Files", count.markedData == 0 ? std::string("0 KB") : sizeText(count.markedData),
                     count.markedFiles);
}

std::string savedDataText(uint64_t bytes) { return "Saved: " + sizeText(bytes); }

Saver::Saver(const HDIR& root, ForkSource source, AppControllerInterface* controller)
    : Saver(root, std::move(source), controller, Options{}) {}

Saver::Saver(const HDIR& root, ForkSource source, AppControllerInterface* controller, Options options)
    : root_(root), source_(std::move(source)), controller_(controller), options_(options) {}

int32_t Saver::blockSizeOf(const HDIR& entry) const { return entry.blockSize > 0 ? entry.blockSize : source_.blockSize; }

void Saver::problem(std::string text) {
  if (result_.problems.size() < kMaxListedProblems) result_.problems.push_back(std::move(text));
  else ++result_.unlistedProblems;
}

void Saver::renamedEntry(const HDIR& entry, const std::string& to) {
  ++result_.renamed;
  if (result_.renames.size() < kMaxListedProblems)
    result_.renames.push_back(fmt::format("{} saved as \"{}\"", listedPath(entry), to));
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

bool Saver::readSmallFork(const HDIR& entry, size_t max, std::string& out) {
  if (entry.dataSize == 0 || entry.dataSize > max) return false;
  Fd fd(::memfd_create("ambrel-fork", MFD_CLOEXEC));
  if (fd.get() < 0) return false;
  ForkCopy copy;
  if (copyFork(entry, entry.dataExt, entry.dataSize, fd.get(), copy) != Copy::Done || copy.noGeometry ||
      copy.sectorsUnreadable != 0 || copy.written != entry.dataSize)
    return false;
  out.resize(static_cast<size_t>(copy.written));
  return ::pread(fd.get(), out.data(), out.size(), 0) == static_cast<ssize_t>(out.size());
}

void Saver::readPiece(uint64_t sector, uint64_t count, uint8_t* buffer, ForkCopy& out) {
  const size_t bytes = static_cast<size_t>(count * kSectorSize);
  // A short read near the drive's end counts as a read: what it left is zero.
  std::memset(buffer, 0, bytes);
  if (source_.read(sector, static_cast<int32_t>(count), buffer)) {
    out.sectorsRead += count;
    return;
  }
  std::memset(buffer, 0, bytes);
  uint64_t badRun = 0;
  for (uint64_t k = 0; k < count; ++k) {
    if (count == 1 || badRun >= kMaxBadSectorRun || aborting()) {
      // The first failure was this very sector, or the area is dead: the
      // rest of the piece stays zero.
      out.sectorsUnreadable += count - k;
      return;
    }
    uint8_t* at = buffer + k * kSectorSize;
    if (source_.read(sector + k, 1, at)) {
      ++out.sectorsRead;
      badRun = 0;
    } else {
      std::memset(at, 0, kSectorSize);
      ++out.sectorsUnreadable;
      ++badRun;
    }
  }
}

// Reads a fork through its extents in groups of 8 allocation blocks; in the
// last extent the final blocks are read one at a time so that the last one
// can be cut to the logical size. Nothing beyond the logical size is written.
Saver::Copy Saver::copyFork(const HDIR& entry, std::span<const Extent> extents, uint64_t logicalSize, int fd,
                            ForkCopy& out) {
  const int32_t B = blockSizeOf(entry);
  if (B <= 0) {
    out.noGeometry = true;
    return Copy::Done;
  }
  uint64_t remaining = logicalSize;
  // Progress in steps of kWriteBytes, however the bytes got to the file.
  uint64_t unreported = 0;
  auto wrote = [&](size_t n) {
    out.written += n;
    if ((unreported += n) >= kWriteBytes) reportWrite(std::exchange(unreported, 0));
  };
  // What the reads bring is written in runs of up to kWriteBytes: the reads
  // keep their groups, the writes cost a fraction of the system calls.
  size_t fill = 0;
  auto flush = [&]() -> bool {
    if (fill == 0) return true;
    const size_t n = std::exchange(fill, 0);
    if (!writeAll(fd, buffer_.data(), n)) {
      out.writeError = errno;
      return false;
    }
    wrote(n);
    return true;
  };
  // A piece copied inside the kernel, when the source can; false when it
  // must be read instead (what a failed copy left is written over then).
  bool lostPlace = false;  // a failed copy's bytes could not be stepped back over
  auto copiedInKernel = [&](uint64_t sector, size_t n) -> bool {
    const int64_t c = source_.copy(sector, n, fd);
    if (c == static_cast<int64_t>(n)) {
      wrote(n);
      return true;
    }
    if (c < 0) copyRefused_ = true;
    if (c > 0 && ::lseek(fd, -static_cast<off_t>(c), SEEK_CUR) < 0) {
      out.writeError = errno;
      lostPlace = true;
    }
    return false;
  };

  // Set while a group whose copy stopped is read.
  bool readGroups = false;
  // Reads nBlocks blocks from `block`, keeping up to what is left of the fork.
  auto copyBlocks = [&](uint64_t block, uint64_t nBlocks) -> Copy {
    uint64_t sector = source_.HPlusVolStart + block * uint64_t(B);
    uint64_t sectors = nBlocks * uint64_t(B);
    while (sectors > 0 && remaining > 0) {
      const uint64_t piece = std::min(sectors, kMaxReadSectors);
      const size_t bytes = static_cast<size_t>(piece * kSectorSize);
      const size_t n = static_cast<size_t>(std::min<uint64_t>(bytes, remaining));
      if (source_.copy && !copyRefused_ && !readGroups) {
        if (!flush()) return Copy::WriteFailed;
        if (copiedInKernel(sector, n)) {
          out.sectorsRead += piece;
          remaining -= n;
          sector += piece;
          sectors -= piece;
          continue;
        }
        if (lostPlace) return Copy::WriteFailed;
      }
      if (buffer_.size() < fill + bytes) buffer_.resize(fill + bytes);
      readPiece(sector, piece, buffer_.data() + fill, out);
      remaining -= n;
      fill += n;
      if (fill >= kWriteBytes && !flush()) return Copy::WriteFailed;
      sector += piece;
      sectors -= piece;
    }
    return Copy::Done;
  };
  const Copy copied = [&]() -> Copy {
    for (size_t i = 0; i < extents.size(); ++i) {
      if (aborting()) return Copy::Aborted;
      if (remaining == 0) break;
      const Extent& e = extents[i];
      const bool last = i + 1 == extents.size();
      const uint64_t groups = e.blockCount / 8;
      const uint64_t rest = e.blockCount % 8;
      uint64_t firstGroup = 0;
      // Inside the kernel the extent goes in large pieces: groups only bound
      // what a failing read costs. A copy that stops part-way keeps the
      // whole groups it brought; the group it stopped in is read the
      // ordinary way, and the copies go on after it.
      if (source_.copy && !copyRefused_ && groups > 0) {
        const uint64_t groupBytes = 8 * uint64_t(B) * kSectorSize;
        // Pieces of whole groups, so that progress and a stop are seen.
        const uint64_t pieceBytes = std::max<uint64_t>(1, kKernelCopyBytes / groupBytes) * groupBytes;
        const uint64_t start = source_.HPlusVolStart + uint64_t(e.startBlock) * uint64_t(B);
        // Whole groups only: what follows the last one is left to the blocks below.
        const uint64_t end = std::min(groups * groupBytes, remaining);
        if (!flush()) return Copy::WriteFailed;
        uint64_t done = 0;
        while (done < end && !copyRefused_) {
          if (aborting()) return Copy::Aborted;
          const uint64_t n = std::min(pieceBytes, end - done);
          const int64_t c = source_.copy(start + done / kSectorSize, n, fd);
          if (c == static_cast<int64_t>(n)) {
            out.sectorsRead += (n + kSectorSize - 1) / kSectorSize;
            remaining -= n;
            done += n;
            wrote(static_cast<size_t>(n));
            continue;
          }
          if (c < 0) {
            copyRefused_ = true;
            break;
          }
          const uint64_t kept = static_cast<uint64_t>(c) / groupBytes * groupBytes;
          if (static_cast<uint64_t>(c) > kept &&
              ::lseek(fd, -static_cast<off_t>(static_cast<uint64_t>(c) - kept), SEEK_CUR) < 0) {
            out.writeError = errno;
            return Copy::WriteFailed;
          }
          out.sectorsRead += kept / kSectorSize;
          remaining -= kept;
          done += kept;
          wrote(static_cast<size_t>(kept));
          readGroups = true;
          const Copy r = copyBlocks(uint64_t(e.startBlock) + done / groupBytes * 8, 8);
          readGroups = false;
          if (r != Copy::Done) return r;
          if (!flush()) return Copy::WriteFailed;
          done += groupBytes;
        }
        firstGroup = std::min(groups, done / groupBytes);
        if (remaining == 0) continue;
      }
      for (uint64_t g = firstGroup; g < groups && remaining > 0; ++g) {
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
  }();
  if (copied != Copy::WriteFailed && !flush()) return Copy::WriteFailed;
  if (unreported) reportWrite(unreported);
  return copied;
}

Saver::Copy Saver::copyCompressed(const HDIR& entry, int fd, ForkCopy& out, uint32_t& badChunks, bool& opened,
                                  std::string& why) {
  bool writeFailed = false;
  const DecompressResult r = decompressEntry(
      source_, entry,
      [&](const uint8_t* data, size_t size) {
        if (!writeAll(fd, data, size)) {
          out.writeError = errno;
          writeFailed = true;
          return false;
        }
        out.written += size;
        reportWrite(size);
        return true;
      },
      [this] { return aborting(); });
  badChunks = r.badChunks;
  opened = r.opened;
  why = r.problem;
  if (writeFailed) return Copy::WriteFailed;
  if (r.aborted) return Copy::Aborted;
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
  copyRefused_ = false;

  Walk walk{*this, true, {}, {}};
  walk.canSaveSlashes = options_.canSaveSlashes ? *options_.canSaveSlashes : destinationInfo(destination).canSaveSlashes;
  walk.run(destination);

  result_.aborted = aborting();
  result_.savedData = savedData_.load();
  if (controller_) {
    const char* title = result_.aborted ? "Saving Aborted" : "Saving Completed";
    controller_->updateTreeProgress(ProgressReport{{progress::kBarDoubleValue, 0}, {progress::kProgressStatus, title}});
    if (options_.finalAlert) {
      std::string message = (result_.aborted ? "Saving location was: " : "Saved at: ") + destination;
      const SaveResult& r = result_;
      if (r.anyFailure()) message += fmt::format("\n{} files were saved whole.", r.filesWritten);
      if (r.filesIncomplete)
        message += fmt::format("\n{} files are incomplete and were kept under names ending in \"(incomplete)\".",
                               r.filesIncomplete);
      if (r.filesNotSaved) message += fmt::format("\n{} files could not be saved.", r.filesNotSaved);
      if (r.failedCreates) message += fmt::format("\n{} files or folders could not be created.", r.failedCreates);
      if (r.failedWrites)
        message += fmt::format("\n{} files could not be written; what was written of them was removed.", r.failedWrites);
      if (r.failedReads)
        message += fmt::format("\n{} files could not be read completely ({} sectors unreadable).", r.failedReads,
                               r.unreadableSectors);
      if (r.damagedCompressed)
        message += fmt::format("\n{} compressed files could not be decoded completely.", r.damagedCompressed);
      if (r.uncertain)
        message += fmt::format("\n{} files were saved whose content may not be right (see their confidence).",
                               r.uncertain);
      if (r.renamed) message += fmt::format("\n{} names were changed so that they could be saved safely.", r.renamed);
      controller_->alert(title, message, {"OK"});
    }
  }
  return result_;
}

}  // namespace ambrel
