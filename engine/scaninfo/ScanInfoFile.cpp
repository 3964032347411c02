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
#include "scaninfo/ScanInfoIo.h"

namespace ambrel {
namespace {

constexpr const char* kErrorTitle = "! Error";

// ---- progress

void report(AppControllerInterface* controller, ProgressReport r) {
  if (controller) controller->updateTreeProgress(r);
}

void barStep(AppControllerInterface* controller, int64_t n) {
  report(controller, ProgressReport{{progress::kBarIncrement, n}});
}

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
  explicit EntryWriter(scaninfo::FileWriter& out) : out_(out) {}

  // `path` is the entry's pathName in UTF-16, built by the caller's walk.
  void write(const HDIR& dir, const std::vector<uint16_t>& path) {
    HFSPlusDir r;
    convertHDirToHPDir(dir, r);
    name_.clear();
    scaninfo::appendUtf16(dir.fileName(), name_);
    r.fileNameLength = bswap16(static_cast<uint16_t>(name_.size()));
    r.pathNameLength = bswap16(static_cast<uint16_t>(path.size()));
    r.childRecordCount = static_cast<int32_t>(bswap32(static_cast<uint32_t>(dir.children().size())));
    r.dataExtCount = static_cast<int32_t>(bswap32(static_cast<uint32_t>(dir.dataExt.size())));
    r.rscExtCount = static_cast<int32_t>(bswap32(static_cast<uint32_t>(dir.rscExt.size())));
    out_.put(&r, sizeof r);
    putUnits(name_);
    putUnits(path);
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
  void putExtents(std::span<const Extent> extents) {
    for (const Extent& e : extents) {
      uint8_t b[8];
      storeBE32(b, e.startBlock);
      storeBE32(b + 4, e.blockCount);
      out_.put(b, 8);
    }
  }

  scaninfo::FileWriter& out_;
  std::vector<uint16_t> name_;
  std::vector<uint8_t> bytes_;
};

// The pathName of the children of an entry whose own pathName is `path`.
void appendComponent(std::vector<uint16_t>& path, const HDIR& dir) {
  if (path.size() >= scaninfo::kMaxNameUnits) return;
  path.push_back(u'/');
  scaninfo::appendUtf16(pathComponent(dir.fileName()), path);
}

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
  std::string target;
  if (auto refusal = checkScanInfoDestination(path, info.volume.path, &target)) return refusal;
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

  // Written beside the target and renamed over it once whole: a failed or
  // interrupted write never leaves a file at `path` that looks usable.
  std::string temp;
  const int fd = scaninfo::createTemporaryBeside(target, temp);
  if (fd < 0) return writeError(path, errno);
  scaninfo::FileWriter out(fd);
  auto fail = [&](int err) {
    out.close();
    ::unlink(temp.c_str());
    return writeError(path, err);
  };
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
  // The path grows and shrinks with the walk; no entry keeps one.
  EntryWriter entries(out);
  uint64_t count = 0;
  struct Frame {
    const HDIR* dir;
    size_t next;
    size_t pathUnits;  // of the pathName of dir's children
  };
  std::vector<uint16_t> pathUnits;
  scaninfo::appendUtf16(pathNameOf(root), pathUnits);
  std::vector<Frame> stack;
  entries.write(root, pathUnits);
  ++count;
  appendComponent(pathUnits, root);
  stack.push_back({&root, 0, pathUnits.size()});
  while (!stack.empty() && out.ok()) {
    Frame& f = stack.back();
    if (f.next >= f.dir->children().size()) {
      stack.pop_back();
      continue;
    }
    const HDIR* child = f.dir->children()[f.next++].get();
    pathUnits.resize(f.pathUnits);
    entries.write(*child, pathUnits);
    if (++count % kScanInfoProgressStep == 0) barStep(controller, static_cast<int64_t>(kScanInfoProgressStep));
    if (!child->children().empty()) {
      appendComponent(pathUnits, *child);
      stack.push_back({child, 0, pathUnits.size()});
    }
  }
  out.rewrite(0, header);
  if (!out.close()) return fail(out.error());
  if (::rename(temp.c_str(), target.c_str()) != 0) return fail(errno);
  barStep(controller, 1);
  if (entriesWritten) *entriesWritten = count;
  report(controller, ProgressReport{{progress::kProgressStatus, "Scan Info Saved"}, {progress::kBarDoubleValue, 0.0}});
  return std::nullopt;
}

namespace {

using scaninfo::FileReader;

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
    std::string name;
    // The stored path is passed over: an entry's path comes from its folders.
    if (!readText(nameUnits, name) || !in_.skip(uint64_t{pathUnits} * 2)) {
      error = fmt::format("it ends inside the name of entry {}", index + 1);
      return nullptr;
    }
    dir->setFileName(nameUnits == 0 ? std::string("Untitled") : std::move(name));
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
    out = scaninfo::utf8FromUtf16BE(bytes_.data(), units);
    return true;
  }
  bool readExtents(int32_t pairs, ExtentList& out) {
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
  if (!in.seek(kScanInfoHeaderSize)) return fail("it is cut short inside its header");
  auto volumeBytes = readFramed(in, in.size());
  if (!volumeBytes) return fail("the volume record is cut short");
  {
    KeyedUnarchiver u;
    if (!u.load(*volumeBytes) || !u.checkReferences()) return fail("the volume record is " + u.error());
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
    // Marks are counted once the whole tree is in: carrying each one up to
    // the root as it comes would cost the depth per entry.
    HDIR* added = folder->appendUncounted(std::move(child));
    if (children > 0) stack.push_back({added, children});
  }
  // The tree must end where the file does: bytes behind it mean a count
  // above was damaged and entries would be lost without a word.
  if (const uint64_t left = in.remaining(); left != 0)
    return fail(fmt::format("{} {} the last entry", left, left == 1 ? "byte follows" : "bytes follow"));
  HDIR::recountMarks(*contents.root);
  report(controller, ProgressReport{{progress::kProgressStatus, " "}, {progress::kBarDoubleValue, 0.0}});
  result.contents = std::move(contents);
  return result;
}

}  // namespace ambrel
