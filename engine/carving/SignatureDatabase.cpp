#include "carving/SignatureDatabase.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>

#include "scaninfo/ArchivedClasses.h"

namespace ambrel {

namespace {

// A database of every file type there is stays far below this; anything
// larger is not read into memory.
constexpr uintmax_t kMaxDatabaseBytes = 64u << 20;
constexpr uint64_t kMaxUserSize = 10ull << 30;

const char* const kErrorTitle = "!Error";
const char* const kNoTypeTitle = "No file type Selected";

bool isFile(const std::string& path) {
  std::error_code ec;
  return !path.empty() && std::filesystem::is_regular_file(path, ec);
}

// Digits to a number; false when it does not fit (then it is larger than
// any limit the checks use).
bool toU64(const std::string& digits, uint64_t& out) {
  const auto r = std::from_chars(digits.data(), digits.data() + digits.size(), out);
  return r.ec == std::errc() && r.ptr == digits.data() + digits.size();
}

}  // namespace

std::string SignatureFiles::working() const { return isFile(userCopy) ? userCopy : installed(); }

SignatureFiles signatureFiles() {
  SignatureFiles f;
  auto holdsDatabase = [](const std::string& dir) { return isFile(dir + "/Signature.dat"); };
  if (const char* env = std::getenv("AMBREL_RESOURCE_DIR"); env && *env) {
    f.resourceDir = env;
  } else {
    std::error_code ec;
    const auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
    const std::string beside = ec ? std::string() : (exe.parent_path().parent_path() / "share" / "ambrel").string();
    if (!beside.empty() && holdsDatabase(beside)) f.resourceDir = beside;
#ifdef AMBREL_BUILD_RESOURCE_DIR
    else if (holdsDatabase(AMBREL_BUILD_RESOURCE_DIR)) f.resourceDir = AMBREL_BUILD_RESOURCE_DIR;
#endif
#ifdef AMBREL_INSTALL_DATA_DIR
    else f.resourceDir = AMBREL_INSTALL_DATA_DIR;
#endif
  }
  std::string dataHome;
  if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg == '/') dataHome = xdg;
  else if (const char* home = std::getenv("HOME"); home && *home) dataHome = std::string(home) + "/.local/share";
  if (!dataHome.empty()) f.userCopy = dataHome + "/ambrel/Signature.dat";
  return f;
}

std::vector<uint8_t> archiveSigRoot(const SigNode::ChildArray& root) {
  std::vector<SigNodeArchive> nodes;
  nodes.reserve(root.size());
  for (const auto& n : root) nodes.push_back(n->toArchive());
  return archiveSignatureDatabase(nodes);
}

std::optional<SigNode::ChildArray> unarchiveSigRoot(std::span<const uint8_t> bytes, std::string& error) {
  auto nodes = unarchiveSignatureDatabase(bytes, error);
  if (!nodes) return std::nullopt;
  SigNode::ChildArray out;
  for (const auto& n : *nodes) {
    auto node = SigNode::fromArchive(n);
    node->parent = nullptr;
    out.push_back(std::move(node));
  }
  return out;
}

std::optional<SigNode::ChildArray> loadSigRootFile(const std::string& path, std::string& error) {
  std::error_code ec;
  const uintmax_t size = std::filesystem::file_size(path, ec);
  if (ec) {
    error = fmt::format("{}: {}", path, ec.message());
    return std::nullopt;
  }
  if (size > kMaxDatabaseBytes) {
    error = fmt::format("{}: {} bytes is too large for a signature database", path, size);
    return std::nullopt;
  }
  std::ifstream in(path, std::ios::binary);
  std::vector<uint8_t> bytes(static_cast<size_t>(size));
  if (!in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(size))) {
    error = fmt::format("{}: cannot be read", path);
    return std::nullopt;
  }
  return unarchiveSigRoot(bytes, error);
}

SignatureDatabase::SignatureDatabase(SignatureFiles files) : files_(std::move(files)) {}

SigButtons SignatureDatabase::loadSigData() {
  const std::string path = sigDataLoadCount_ > 1 ? files_.backup() : files_.working();
  lastLoadError_.clear();
  auto root = loadSigRootFile(path, lastLoadError_);
  sigRootArray_ = root ? std::move(*root) : SigNode::ChildArray{};
  for (auto& category : sigRootArray_)
    for (const auto& child : category->children()) child->parent = category.get();
  SigButtons b;
  const bool any = !sigRootArray_.empty();
  b.selectAll = b.deselectAll = b.remove = b.add = b.next = any;
  b.loadFileTypes = !any;
  return b;
}

SigButtons SignatureDatabase::reloadSigData() {
  ++sigDataLoadCount_;
  SigButtons b = loadSigData();
  if (!sigRootArray_.empty()) {
    b.loadFileTypes = false;
  } else {
    emptySigNodeText_ = sigDataLoadCount_ == 1
                            ? "Still no file types showing here. Click on \"Load File Types\" button to reload backup."
                            : "Still no file types showing here. Contact support.";
  }
  return b;
}

std::optional<SigAlert> SignatureDatabase::addNewSigOKClicked(const NewSigInput& in) {
  auto error = [](std::string message) { return SigAlert{kErrorTitle, std::move(message), {"OK"}}; };
  if (in.category.empty()) return error("Category cannot be nil");
  if (in.name.empty()) return error("File Type Name cannot be nil");
  if (in.extension.empty()) return error("Extension cannot be nil");
  if (in.signature.empty()) return error("Signature cannot be nil");
  if (in.offset.empty()) return error("Offset cannot be nil");
  if (in.extension[0] == '.') return error("Please remove dot \".\" from the beggining of the extension");
  if (!stringIsHex(in.signature)) return error("Please enter correct signature: A-F, a-f, 0-9");
  if (in.signature.size() % 2 != 0) return error("Incorrect signature: enter even number of characters");
  if (in.signature.size() > 16) return error("Incorrect signature: enter only a maximum of 8 bytes");
  if (!stringIsNumeric(in.offset)) return error("Please enter numeric value in offset");
  uint64_t offset = 0;
  if (!toU64(in.offset, offset) || offset > 1024) return error("Offset cannot be more then 1024");
  for (const auto& category : sigRootArray_) {
    if (category->category != in.category) continue;
    for (const auto& child : category->children())
      if (child->sig && child->sig->software == in.name)
        return error(fmt::format("File Type \"{}\" under category \"{}\" already exists. Please enter different names",
                                 in.name, in.category));
  }
  const uint64_t header = getHeaderFromString(in.signature);
  // The header length takes no part: 00FF and FF at one offset are one pair.
  for (const auto& category : sigRootArray_)
    for (const auto& child : category->children())
      if (child->sig && child->sig->header == header && child->sig->offset == offset)
        return error(fmt::format("This signature/offset pair already exists in file type \"{}\" under category \"{}\".",
                                 child->sig->software, child->sig->category));

  auto node = std::make_unique<SigNode>();
  node->fileType = kSigFileTypeNode;
  node->category = in.category;
  node->sig = std::make_shared<Sig>();
  node->sig->category = in.category;
  node->sig->extension = in.extension;
  node->sig->header = header;
  node->sig->headerLength = static_cast<uint8_t>(in.signature.size() / 2);
  node->sig->offset = static_cast<uint16_t>(offset);
  node->sig->preInstalled = false;
  node->sig->software = in.name;
  node->sig->typeOfFile = 0;
  SigNode* target = nullptr;
  for (const auto& category : sigRootArray_)
    if (category->category == in.category) {
      target = category.get();
      break;
    }
  if (!target) {
    auto category = std::make_unique<SigNode>();
    category->fileType = kSigCategoryNode;
    category->category = in.category;
    sigRootArray_.push_back(std::move(category));
    target = sigRootArray_.back().get();
  }
  node->parent = target;
  target->addChild(std::move(node));
  writeWorkingDatabase();  // a failed write after an add is not reported
  return std::nullopt;
}

bool SignatureDatabase::canRemove(const SigNode* node) {
  if (!node) return false;
  if (node->sig) return !node->sig->preInstalled;
  return node->fileType == kSigCategoryNode && node->children().empty();
}

bool SignatureDatabase::removeFileType(const SigNode* selected) {
  if (!selected || !canRemove(selected)) return true;
  const std::string category = selected->category;
  const Sig* sig = selected->sig.get();
  const bool fileTypeNode = sig != nullptr;
  for (size_t i = 0; i < sigRootArray_.size();) {
    SigNode& c = *sigRootArray_[i];
    if (c.category != category) {
      ++i;
      continue;
    }
    if (fileTypeNode) {
      for (size_t k = 0; k < c.children().size(); ++k)
        if (c.children()[k]->sig.get() == sig) {
          c.removeChildAtIndex(k);
          break;
        }
      ++i;
    } else {
      sigRootArray_.erase(sigRootArray_.begin() + static_cast<std::ptrdiff_t>(i));
    }
  }
  return writeWorkingDatabase();
}

void SignatureDatabase::selectAllSig() {
  for (auto& c : sigRootArray_) CheckControllerSig(c.get(), 1).run();
}

void SignatureDatabase::deselectAllSig() {
  for (auto& c : sigRootArray_) CheckControllerSig(c.get(), 0).run();
}

bool SignatureDatabase::writeWorkingDatabase() {
  if (files_.userCopy.empty()) return false;
  const std::filesystem::path target = files_.userCopy;
  std::error_code ec;
  std::filesystem::create_directories(target.parent_path(), ec);
  if (ec) return false;
  const std::vector<uint8_t> bytes = archiveSigRoot(sigRootArray_);
  // Written beside and renamed over: a crash never leaves half a database.
  const std::string temp = files_.userCopy + ".tmp";
  const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  const bool ok = done == bytes.size() && ::fsync(fd) == 0;
  if (::close(fd) != 0 || !ok || ::rename(temp.c_str(), files_.userCopy.c_str()) != 0) {
    ::unlink(temp.c_str());
    return false;
  }
  return true;
}

std::vector<SigNode*> SignatureDatabase::selectedFileTypes() const {
  std::vector<SigNode*> out;
  for (const auto& category : sigRootArray_)
    for (const auto& child : category->children())
      if (child->selected == 1 && child->sig) out.push_back(child.get());
  return out;
}

SigSelection SignatureDatabase::sigSelNextClicked(int32_t scanType, bool journaled, const std::string& maxSizeText,
                                                  int unitIndex) {
  SigSelection s;
  if (scanType != 2 && scanType != 3) return s;
  s.sigSelArray = selectedFileTypes();
  if (s.sigSelArray.empty()) {
    if (scanType == 2 && journaled) {
      s.outcome = SigSelection::Outcome::AskNoSignatures;
      s.alert = {kNoTypeTitle, "Do you want to proceed recovering deleted files without signature search option enabled?",
                 {"OK", "Go Back"}};
    } else {
      s.outcome = SigSelection::Outcome::Refused;
      s.alert = {kNoTypeTitle,
                 "At least one file type should be selected to recover lost/ deleted files based on signature search.",
                 {"OK"}};
    }
    return s;
  }
  auto refuse = [&](const char* message) {
    s.outcome = SigSelection::Outcome::Refused;
    s.alert = {kErrorTitle, message, {"OK"}};
    s.sigSelArray.clear();
    return s;
  };
  if (maxSizeText.empty()) return refuse("Maximum size to recover cannot be nil");
  if (!stringIsNumeric(maxSizeText)) return refuse("Please enter numeric value in maximum file size field");
  const int shift = unitIndex == 0 ? 20 : 30;
  uint64_t value = 0;
  if (!toU64(maxSizeText, value) || value > (kMaxUserSize >> shift))
    return refuse("Maximum file size to recover can not be more than 10 GB");
  s.userSize = value << shift;
  for (SigNode* n : s.sigSelArray) n->sig->userSize = s.userSize;
  s.rawSearchMode = scanType == 3 ? 3 : journaled ? 1 : 2;
  s.outcome = SigSelection::Outcome::Proceed;
  return s;
}

}  // namespace ambrel
