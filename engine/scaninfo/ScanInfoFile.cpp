#include "scaninfo/ScanInfoFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include "base/Endian.h"
#include "base/ReadOnlyFile.h"
#include "scaninfo/KeyedArchive.h"

namespace ambrel {
namespace {

constexpr size_t kIoBuffer = 1 << 20;
constexpr const char* kErrorTitle = "! Error";
constexpr uint16_t kMaxNameUnits = 0xFFFF;

// ---- text

// UTF-8 to UTF-16 code units, at most kMaxNameUnits of them (never splitting
// a surrogate pair). Bytes that are not UTF-8 become U+FFFD.
void appendUtf16(std::string_view s, std::vector<uint16_t>& out) {
  out.clear();
  size_t i = 0;
  while (i < s.size()) {
    uint32_t c = static_cast<uint8_t>(s[i]);
    size_t n = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 0;
    uint32_t cp = 0xFFFD;
    size_t used = 1;
    if (n == 1) {
      cp = c;
    } else if (n > 1 && i + n <= s.size()) {
      uint32_t v = c & (0x7F >> n);
      bool ok = true;
      for (size_t k = 1; k < n; ++k) {
        uint8_t b = static_cast<uint8_t>(s[i + k]);
        if ((b & 0xC0) != 0x80) { ok = false; break; }
        v = (v << 6) | (b & 0x3F);
      }
      static constexpr uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
      if (ok && v >= kMin[n] && v <= 0x10FFFF && !(v >= 0xD800 && v <= 0xDFFF)) {
        cp = v;
        used = n;
      }
    }
    i += used;
    if (cp >= 0x10000) {
      if (out.size() + 2 > kMaxNameUnits) break;
      cp -= 0x10000;
      out.push_back(static_cast<uint16_t>(0xD800 + (cp >> 10)));
      out.push_back(static_cast<uint16_t>(0xDC00 + (cp & 0x3FF)));
    } else {
      if (out.size() + 1 > kMaxNameUnits) break;
      out.push_back(static_cast<uint16_t>(cp));
    }
  }
}

// Big-endian UTF-16 to UTF-8; an unpaired surrogate becomes U+FFFD.
std::string utf8FromUtf16BE(const uint8_t* p, size_t units) {
  std::string out;
  out.reserve(units);
  for (size_t i = 0; i < units; ++i) {
    uint32_t c = loadBE16(p + 2 * i);
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < units) {
      uint32_t d = loadBE16(p + 2 * (i + 1));
      if (d >= 0xDC00 && d <= 0xDFFF) {
        c = 0x10000 + ((c - 0xD800) << 10) + (d - 0xDC00);
        ++i;
      } else {
        c = 0xFFFD;
      }
    } else if (c >= 0xD800 && c <= 0xDFFF) {
      c = 0xFFFD;
    }
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += static_cast<char>(0xE0 | (c >> 12));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (c >> 18));
      out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

// ---- progress

void report(AppControllerInterface* controller, ProgressReport r) {
  if (controller) controller->updateTreeProgress(r);
}

void barStep(AppControllerInterface* controller, int64_t n) {
  report(controller, ProgressReport{{progress::kBarIncrement, n}});
}

// ---- files

class FileWriter {
 public:
  explicit FileWriter(const std::string& path) {
    fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd_ < 0) error_ = errno;
    buf_.reserve(kIoBuffer);
  }
  ~FileWriter() {
    if (fd_ >= 0) ::close(fd_);
  }
  bool ok() const { return error_ == 0; }
  int error() const { return error_; }

  void put(const void* p, size_t n) {
    const uint8_t* b = static_cast<const uint8_t*>(p);
    if (buf_.size() + n > kIoBuffer) flush();
    if (n > kIoBuffer) {
      writeAll(b, n);
      return;
    }
    buf_.insert(buf_.end(), b, b + n);
  }
  void putBE32(uint32_t v) {
    uint8_t b[4];
    storeBE32(b, v);
    put(b, 4);
  }
  void flush() {
    if (!buf_.empty()) writeAll(buf_.data(), buf_.size());
    buf_.clear();
  }
  // Rewrites bytes already flushed, at an absolute offset.
  void rewrite(uint64_t at, const std::vector<uint8_t>& bytes) {
    flush();
    size_t done = 0;
    while (ok() && done < bytes.size()) {
      ssize_t w = ::pwrite(fd_, bytes.data() + done, bytes.size() - done, static_cast<off_t>(at + done));
      if (w < 0 && errno == EINTR) continue;
      if (w <= 0) error_ = w < 0 ? errno : EIO;
      else done += static_cast<size_t>(w);
    }
  }
  bool close() {
    flush();
    if (fd_ >= 0 && ::close(fd_) != 0 && ok()) error_ = errno;
    fd_ = -1;
    return ok();
  }

 private:
  void writeAll(const uint8_t* p, size_t n) {
    while (ok() && n > 0) {
      ssize_t w = ::write(fd_, p, n);
      if (w < 0 && errno == EINTR) continue;
      if (w <= 0) {
        error_ = w < 0 ? errno : EIO;
        return;
      }
      p += w;
      n -= static_cast<size_t>(w);
    }
  }

  int fd_ = -1;
  int error_ = 0;
  std::vector<uint8_t> buf_;
};

class FileReader {
 public:
  explicit FileReader(const std::string& path) {
    // Never blocks: a named pipe or the like is refused, not waited on.
    const ReadOnlyFile f = openReadOnlyFile(path, false);
    if (f.wrongKind) wrongKind_ = f.st.st_mode;
    fd_ = f.fd;
    if (fd_ < 0) {
      error_ = f.wrongKind ? EINVAL : f.error;
      return;
    }
    size_ = static_cast<uint64_t>(f.st.st_size);
    buf_.resize(static_cast<size_t>(std::min<uint64_t>(kIoBuffer, std::max<uint64_t>(size_, 1))));
  }
  ~FileReader() {
    if (fd_ >= 0) ::close(fd_);
  }
  bool isOpen() const { return fd_ >= 0 && error_ == 0; }
  int error() const { return error_; }
  // The kind of file refused (a named pipe, a folder, ...), 0 when none was.
  mode_t wrongKind() const { return wrongKind_; }
  uint64_t size() const { return size_; }
  uint64_t position() const { return position_; }
  uint64_t remaining() const { return size_ > position_ ? size_ - position_ : 0; }

  bool seek(uint64_t at) {
    if (at > size_) return false;
    position_ = at;
    begin_ = end_ = 0;
    bufferAt_ = at;
    return true;
  }
  // Exactly n bytes, or false (the file ends or a read fails).
  bool read(void* dst, size_t n) {
    if (n > remaining()) return false;
    uint8_t* out = static_cast<uint8_t*>(dst);
    while (n > 0) {
      if (begin_ == end_ && !fill()) return false;
      size_t take = std::min(n, end_ - begin_);
      std::memcpy(out, buf_.data() + begin_, take);
      begin_ += take;
      out += take;
      n -= take;
      position_ += take;
    }
    return true;
  }
  bool readBE32(uint32_t& v) {
    uint8_t b[4];
    if (!read(b, 4)) return false;
    v = loadBE32(b);
    return true;
  }

 private:
  bool fill() {
    bufferAt_ = position_;
    for (;;) {
      ssize_t r = ::pread(fd_, buf_.data(), buf_.size(), static_cast<off_t>(position_));
      if (r < 0 && errno == EINTR) continue;
      if (r <= 0) {
        if (r < 0) error_ = errno;
        return false;
      }
      begin_ = 0;
      end_ = static_cast<size_t>(r);
      return true;
    }
  }

  int fd_ = -1;
  int error_ = 0;
  mode_t wrongKind_ = 0;
  uint64_t size_ = 0;
  uint64_t position_ = 0;
  uint64_t bufferAt_ = 0;
  std::vector<uint8_t> buf_;
  size_t begin_ = 0, end_ = 0;
};

// ---- entries

// The file format has no place for compression: a compressed file is kept
// as it lies on disk (an empty data fork and the resource fork holding the
// coded bytes), which is true to the drive though no longer decoded.
uint64_t storedDataSize(const HDIR& dir) { return dir.compressionType != 0 ? 0 : dir.dataSize; }
uint64_t storedRscSize(const HDIR& dir) {
  if (dir.compressionType == 0) return dir.rscSize;
  return dir.compressionType % 2 == 0 ? dir.compressedSize : 0;
}

class EntryWriter {
 public:
  explicit EntryWriter(FileWriter& out) : out_(out) {}

  void write(const HDIR& dir) {
    HFSPlusDir r;
    convertHDirToHPDir(dir, r);
    appendUtf16(dir.fileName(), name_);
    appendUtf16(dir.pathName, path_);
    r.fileNameLength = bswap16(static_cast<uint16_t>(name_.size()));
    r.pathNameLength = bswap16(static_cast<uint16_t>(path_.size()));
    r.childRecordCount = static_cast<int32_t>(bswap32(static_cast<uint32_t>(dir.children().size())));
    r.dataExtCount = static_cast<int32_t>(bswap32(static_cast<uint32_t>(dir.dataExt.size())));
    r.rscExtCount = static_cast<int32_t>(bswap32(static_cast<uint32_t>(dir.rscExt.size())));
    out_.put(&r, sizeof r);
    putUnits(name_);
    putUnits(path_);
    // The counts are written whatever the sizes; the pairs only for a non-empty fork.
    if (storedDataSize(dir) != 0) putExtents(dir.dataExt);
    if (storedRscSize(dir) != 0) putExtents(dir.rscExt);
  }

 private:
  void putUnits(const std::vector<uint16_t>& units) {
    bytes_.resize(units.size() * 2);
    for (size_t i = 0; i < units.size(); ++i) storeBE16(&bytes_[2 * i], units[i]);
    out_.put(bytes_.data(), bytes_.size());
  }
  void putExtents(const std::vector<Extent>& extents) {
    for (const Extent& e : extents) {
      uint8_t b[8];
      storeBE32(b, e.startBlock);
      storeBE32(b + 4, e.blockCount);
      out_.put(b, 8);
    }
  }

  FileWriter& out_;
  std::vector<uint16_t> name_, path_;
  std::vector<uint8_t> bytes_;
};

std::vector<uint8_t> framedArchive(const std::vector<uint8_t>& archive) {
  std::vector<uint8_t> out(4 + archive.size());
  storeBE32(out.data(), static_cast<uint32_t>(archive.size()));
  std::memcpy(out.data() + 4, archive.data(), archive.size());
  return out;
}

ScanInfoError writeError(const std::string& path, int err) {
  return {"! Error", fmt::format("The scan info file \"{}\" could not be written: {}.", path, std::strerror(err))};
}

ScanInfoError damaged(const std::string& what) {
  return {kErrorTitle, fmt::format("This scan info file is damaged: {}.", what)};
}

}  // namespace

void convertHDirToHPDir(const HDIR& dir, HFSPlusDir& r) {
  std::memset(&r, 0, sizeof r);
  r.fileType = bswap16(dir.fileType);
  r.createDate = bswap32(dir.createDate);
  r.modDate = bswap32(dir.modDate);
  r.parentID = bswap32(dir.parentID);
  r.fileID = bswap32(dir.fileID);
  const bool compressedFile = dir.compressionType != 0 && dir.fileType == kHDIRFile;
  r.fileSize = bswap64(compressedFile ? storedDataSize(dir) + storedRscSize(dir) : dir.fileSize);
  r.dataSize = bswap64(storedDataSize(dir));
  r.rscSize = bswap64(storedRscSize(dir));
  r.fileCount = bswap32(dir.fileCount);
  r.blockSize = byteSwapped(dir.blockSize);
  r.selected = dir.selected();
  r.childrenCount = byteSwapped(dir.childrenCount());
}

void convertHPDirToHDir(const HFSPlusDir& r, HDIR& dir) {
  dir.fileType = byteSwapped(r.fileType);
  dir.createDate = byteSwapped(r.createDate);
  dir.modDate = byteSwapped(r.modDate);
  dir.parentID = byteSwapped(r.parentID);
  dir.fileID = byteSwapped(r.fileID);
  dir.fileSize = byteSwapped(r.fileSize);
  dir.dataSize = byteSwapped(r.dataSize);
  dir.rscSize = byteSwapped(r.rscSize);
  dir.fileCount = byteSwapped(r.fileCount);
  dir.blockSize = byteSwapped(r.blockSize);
  dir.setSelected(r.selected);
  dir.setChildrenCount(byteSwapped(r.childrenCount));
}

std::optional<ScanInfoError> writeScanInfo(const std::string& path, const ScanInfo& info, const HDIR& root,
                                           AppControllerInterface* controller, uint64_t* entriesWritten) {
  if (entriesWritten) *entriesWritten = 0;
  report(controller, ProgressReport{{progress::kBarMinValue, int64_t{0}},
                                    {progress::kBarMaxValue, int64_t{root.childrenCount()} + 5},
                                    {progress::kProgressStatus, "Saving Scan Info"}});
  const auto incomplete = framedArchive(KeyedArchiver::archivedData(PlistValue(kScanInfoIncomplete)));
  auto header = framedArchive(KeyedArchiver::archivedData(PlistValue(kScanInfoComplete)));
  const auto version = framedArchive(KeyedArchiver::archivedData(PlistValue(kScanInfoVersion)));
  // "Complete" must overwrite "UnComple" in place, and the version fit behind it.
  if (header.size() != incomplete.size() || header.size() + version.size() > kScanInfoHeaderSize)
    return ScanInfoError{"! Error", "The scan info header does not fit its area."};
  header.insert(header.end(), version.begin(), version.end());

  FileWriter out(path);
  if (!out.ok()) return writeError(path, out.error());
  std::vector<uint8_t> area(kScanInfoHeaderSize, 0);
  std::memcpy(area.data(), incomplete.data(), incomplete.size());
  out.put(area.data(), area.size());
  barStep(controller, 1);

  auto volume = framedArchive(KeyedArchiver::archivedData(info.volume));
  out.put(volume.data(), volume.size());
  barStep(controller, 1);

  const int32_t type = info.volume.volumeScanType;
  if (type == 0 || type == 1) {
    auto list = framedArchive(KeyedArchiver::archivedData(PlistValue(info.partitionList), Containers::Mutable));
    out.put(list.data(), list.size());
    barStep(controller, 1);
  }
  if (type != 2) {
    std::vector<uint8_t> sectors(kScanInfoDriveBytes, 0);
    std::memcpy(sectors.data(), info.first5Sectors.data(), std::min(sectors.size(), info.first5Sectors.size()));
    out.put(sectors.data(), sectors.size());
  }

  // Pre-order without recursion: a chain of a million folders is a tree too.
  EntryWriter entries(out);
  uint64_t count = 0;
  struct Frame {
    const HDIR* dir;
    size_t next;
  };
  std::vector<Frame> stack;
  entries.write(root);
  ++count;
  stack.push_back({&root, 0});
  while (!stack.empty() && out.ok()) {
    Frame& f = stack.back();
    if (f.next >= f.dir->children().size()) {
      stack.pop_back();
      continue;
    }
    const HDIR* child = f.dir->children()[f.next++].get();
    entries.write(*child);
    if (++count % kScanInfoProgressStep == 0) barStep(controller, static_cast<int64_t>(kScanInfoProgressStep));
    stack.push_back({child, 0});
  }
  out.rewrite(0, header);
  if (!out.close()) return writeError(path, out.error());
  barStep(controller, 1);
  if (entriesWritten) *entriesWritten = count;
  report(controller, ProgressReport{{progress::kProgressStatus, "Scan Info Saved"}, {progress::kBarDoubleValue, 0.0}});
  return std::nullopt;
}

namespace {

// The archive framed at the reader's position: a length, then that many bytes.
// nullopt when the length runs past `limit` or the file.
std::optional<std::vector<uint8_t>> readFramed(FileReader& in, uint64_t limit) {
  uint32_t length = 0;
  if (!in.readBE32(length)) return std::nullopt;
  if (length > in.remaining() || in.position() + length > limit) return std::nullopt;
  std::vector<uint8_t> bytes(length);
  if (!in.read(bytes.data(), length)) return std::nullopt;
  return bytes;
}

std::optional<ScanInfoError> checkHeader(FileReader& in) {
  const ScanInfoError incomplete{kErrorTitle, "This scan info file is incomplete."};
  const uint64_t limit = std::min<uint64_t>(kScanInfoHeaderSize, in.size());
  if (!in.seek(0)) return incomplete;
  auto marker = readFramed(in, limit);
  if (!marker) return incomplete;
  auto value = KeyedUnarchiver::unarchivedValue(*marker);
  if (!value || !value->string() || *value->string() != kScanInfoComplete) return incomplete;

  std::optional<PlistValue> version;
  if (auto bytes = readFramed(in, limit)) version = KeyedUnarchiver::unarchivedValue(*bytes);
  if (!version || !version->string() || *version->string() != kScanInfoVersion) {
    std::string found = version ? version->describe() : "(null)";
    return ScanInfoError{kErrorTitle, fmt::format("This scan info file belongs to {}. Can not process.", found)};
  }
  return std::nullopt;
}

ScanInfoError openError(const std::string& path, const FileReader& in) {
  if (in.wrongKind())
    return {kErrorTitle, fmt::format("The scan info file \"{}\" could not be opened: it is {}, not a regular file.",
                                     path, fileKindName(in.wrongKind()))};
  return {kErrorTitle, fmt::format("The scan info file \"{}\" could not be opened: {}.", path, std::strerror(in.error()))};
}

class EntryReader {
 public:
  explicit EntryReader(FileReader& in) : in_(in) {}

  // One entry block; its childRecordCount in `children`.
  std::unique_ptr<HDIR> read(uint64_t index, int32_t& children, std::string& error) {
    HFSPlusDir r;
    if (!in_.read(&r, sizeof r)) {
      error = fmt::format("it ends inside entry {}", index + 1);
      return nullptr;
    }
    auto dir = std::make_unique<HDIR>();
    convertHPDirToHDir(r, *dir);
    const uint16_t nameUnits = byteSwapped(r.fileNameLength);
    const uint16_t pathUnits = byteSwapped(r.pathNameLength);
    children = byteSwapped(r.childRecordCount);
    const int32_t dataPairs = byteSwapped(r.dataExtCount);
    const int32_t rscPairs = byteSwapped(r.rscExtCount);
    if (children < 0 || dataPairs < 0 || rscPairs < 0) {
      error = fmt::format("entry {} has a negative count", index + 1);
      return nullptr;
    }
    // Every child needs at least a record: a count the rest of the file cannot hold is a lie.
    if (static_cast<uint64_t>(children) > in_.remaining() / sizeof(HFSPlusDir)) {
      error = fmt::format("entry {} claims {} children, more than the file holds", index + 1, children);
      return nullptr;
    }
    std::string name, path;
    if (!readText(nameUnits, name) || !readText(pathUnits, path)) {
      error = fmt::format("it ends inside the name of entry {}", index + 1);
      return nullptr;
    }
    dir->setFileName(nameUnits == 0 ? std::string("Untitled") : std::move(name));
    dir->pathName = std::move(path);
    if ((dir->dataSize != 0 && !readExtents(dataPairs, dir->dataExt)) ||
        (dir->rscSize != 0 && !readExtents(rscPairs, dir->rscExt))) {
      error = fmt::format("entry {} has more extents than the file holds", index + 1);
      return nullptr;
    }
    return dir;
  }

 private:
  bool readText(uint16_t units, std::string& out) {
    if (units == 0) return true;
    if (size_t{units} * 2 > in_.remaining()) return false;
    bytes_.resize(size_t{units} * 2);
    if (!in_.read(bytes_.data(), bytes_.size())) return false;
    out = utf8FromUtf16BE(bytes_.data(), units);
    return true;
  }
  bool readExtents(int32_t pairs, std::vector<Extent>& out) {
    if (static_cast<uint64_t>(pairs) > in_.remaining() / 8) return false;
    out.reserve(static_cast<size_t>(pairs));
    for (int32_t i = 0; i < pairs; ++i) {
      uint8_t b[8];
      if (!in_.read(b, 8)) return false;
      out.push_back(Extent{loadBE32(b), loadBE32(b + 4)});
    }
    return true;
  }

  FileReader& in_;
  std::vector<uint8_t> bytes_;
};

}  // namespace

std::optional<ScanInfoError> checkScanInfoHeader(const std::string& path) {
  FileReader in(path);
  if (!in.isOpen()) return openError(path, in);
  return checkHeader(in);
}

ScanInfoReadResult readScanInfo(const std::string& path, AppControllerInterface* controller) {
  ScanInfoReadResult result;
  FileReader in(path);
  if (!in.isOpen()) {
    result.error = openError(path, in);
    return result;
  }
  if (auto refusal = checkHeader(in)) {
    result.error = *refusal;
    return result;
  }
  auto fail = [&](const std::string& what) {
    result.error = damaged(what);
    return std::move(result);
  };

  ScanInfoContents contents;
  in.seek(kScanInfoHeaderSize);
  auto volumeBytes = readFramed(in, in.size());
  if (!volumeBytes) return fail("the volume record is cut short");
  {
    KeyedUnarchiver u;
    if (!u.load(*volumeBytes)) return fail("the volume record is " + u.error());
    std::string why;
    auto volume = VolumeArchive::decode(u.root(), why);
    if (!volume) return fail("the volume record is unusable (" + why + ")");
    contents.info.volume = std::move(*volume);
  }
  volumeBytes.reset();
  const int32_t type = contents.info.volume.volumeScanType;
  if (type == 0 || type == 1) {
    auto listBytes = readFramed(in, in.size());
    if (!listBytes) return fail("the partition list is cut short");
    std::string why;
    auto list = KeyedUnarchiver::unarchivedValue(*listBytes, &why);
    if (!list || !list->array()) return fail("the partition list is unusable" + (why.empty() ? std::string() : " (" + why + ")"));
    contents.info.partitionList = std::move(*list->array());
  }
  if (type != 2) {
    contents.info.first5Sectors.resize(kScanInfoDriveBytes);
    if (!in.read(contents.info.first5Sectors.data(), kScanInfoDriveBytes)) return fail("the drive's sectors are cut short");
  }

  EntryReader entries(in);
  std::string why;
  int32_t rootChildren = 0;
  contents.root = entries.read(0, rootChildren, why);
  if (!contents.root) return fail(why);
  contents.entryCount = 1;
  report(controller, ProgressReport{{progress::kProgressStatus, "Opening Scan Info"},
                                    {progress::kBarMaxValue, int64_t{contents.root->childrenCount()}}});

  // The folders still being filled, each with the number of children it has yet to read.
  struct Frame {
    HDIR* dir;
    int32_t left;
  };
  std::vector<Frame> stack;
  if (rootChildren > 0) stack.push_back({contents.root.get(), rootChildren});
  while (!stack.empty()) {
    Frame& f = stack.back();
    if (f.left == 0) {
      stack.pop_back();
      continue;
    }
    --f.left;
    HDIR* folder = f.dir;
    int32_t children = 0;
    auto child = entries.read(contents.entryCount, children, why);
    if (!child) return fail(why);
    // The root is not counted in the steps, as the children are read after it.
    if (contents.entryCount++ % kScanInfoProgressStep == 0) barStep(controller, static_cast<int64_t>(kScanInfoProgressStep));
    child->parent = folder;
    HDIR* added = folder->addChildFromScanFile(std::move(child));
    if (children > 0) stack.push_back({added, children});
  }
  report(controller, ProgressReport{{progress::kProgressStatus, " "}, {progress::kBarDoubleValue, 0.0}});
  result.contents = std::move(contents);
  return result;
}

}  // namespace ambrel
