#include "scaninfo/HDIRArchive.h"

#include <fmt/format.h>

#include "scaninfo/KeyedArchive.h"

namespace ambrel {
namespace {

struct ExtentCoder : KeyedEncodable {
  Extent extent;
  explicit ExtentCoder(const Extent& e) : extent(e) {}
  ClassChain classChain() const override { return {"Extent", "NSObject"}; }
  void encodeWithCoder(KeyedArchiver& coder) const override {
    coder.encodeInt32("startBlock", static_cast<int32_t>(extent.startBlock));
    coder.encodeInt32("blockCount", static_cast<int32_t>(extent.blockCount));
  }
};

// Wraps one entry while it is archived. The wrappers of its extents and
// children live as long as it does, so no two archived objects share an
// address during one archiving.
struct HDIRCoder : KeyedEncodable {
  const HDIR& dir;
  mutable std::vector<std::unique_ptr<KeyedEncodable>> parts;

  explicit HDIRCoder(const HDIR& d) : dir(d) {}
  ClassChain classChain() const override { return {"HDIR", "NSObject"}; }

  void encodeExtents(KeyedArchiver& coder, const char* key, std::span<const Extent> extents) const {
    if (extents.empty()) {
      coder.encodeObject(key, static_cast<const KeyedEncodable*>(nullptr));
      return;
    }
    std::vector<const KeyedEncodable*> items;
    for (const Extent& e : extents) {
      parts.push_back(std::make_unique<ExtentCoder>(e));
      items.push_back(parts.back().get());
    }
    coder.encodeObjects(key, items, Containers::Mutable);
  }

  void encodeWithCoder(KeyedArchiver& coder) const override {
    coder.encodeObject("fileName", PlistValue(std::string(dir.fileName())));
    coder.encodeObject("pathName", PlistValue(pathNameOf(dir)));
    coder.encodeInt("fileType", dir.fileType);
    coder.encodeInt32("createDate", static_cast<int32_t>(dir.createDate));
    coder.encodeInt32("modDate", static_cast<int32_t>(dir.modDate));
    coder.encodeInt32("parentID", static_cast<int32_t>(dir.parentID));
    coder.encodeInt32("fileID", static_cast<int32_t>(dir.fileID));
    coder.encodeInt64("fileSize", static_cast<int64_t>(dir.fileSize));
    coder.encodeInt64("dataSize", static_cast<int64_t>(dir.dataSize));
    coder.encodeInt64("rscSize", static_cast<int64_t>(dir.rscSize));
    coder.encodeInt32("fileCount", static_cast<int32_t>(dir.fileCount));
    encodeExtents(coder, "dataExt", dir.dataExt);
    encodeExtents(coder, "rscExt", dir.rscExt);
    coder.encodeInt("blockSize", dir.blockSize);
    if (dir.compressionType != 0) {
      coder.encodeInt64("compressionType", dir.compressionType);
      coder.encodeInt64("compressedSize", static_cast<int64_t>(dir.compressedSize));
    }
    coder.encodeInt("selected", dir.selected());
    coder.encodeInt("childrenCount", dir.childrenCount());
    if (dir.children().empty()) {
      coder.encodeObject("children", static_cast<const KeyedEncodable*>(nullptr));
    } else {
      std::vector<const KeyedEncodable*> items;
      for (const auto& child : dir.children()) {
        parts.push_back(std::make_unique<HDIRCoder>(*child));
        items.push_back(parts.back().get());
      }
      coder.encodeObjects("children", items, Containers::Mutable);
    }
  }
};

class HDIRDecoder {
 public:
  HDIRDecoder(size_t budget, std::string& error) : budget_(budget), error_(error) {}

  std::unique_ptr<HDIR> decode(const ArchivedObject& o, int depth) {
    if (depth > kMaxArchivedHDIRDepth) return fail("entries nested too deeply");
    if (budget_ == 0) return fail("entries shared beyond the archive's size");
    --budget_;
    if (!o.exists() || o.isNil() || o.className() != "HDIR")
      return fail(fmt::format("expected an HDIR, found \"{}\"", o.exists() ? o.className() : std::string()));
    auto d = std::make_unique<HDIR>();
    auto name = o.decodeObject("fileName").string();
    d->setFileName(name.value_or(std::string()));
    // "pathName" is not read: an entry's path comes from the folders above it.
    d->fileType = static_cast<uint16_t>(o.decodeInt64("fileType").value_or(0));
    d->createDate = static_cast<uint32_t>(o.decodeInt64("createDate").value_or(0));
    d->modDate = static_cast<uint32_t>(o.decodeInt64("modDate").value_or(0));
    d->parentID = static_cast<uint32_t>(o.decodeInt64("parentID").value_or(0));
    d->fileID = static_cast<uint32_t>(o.decodeInt64("fileID").value_or(0));
    d->fileSize = static_cast<uint64_t>(o.decodeInt64("fileSize").value_or(0));
    d->dataSize = static_cast<uint64_t>(o.decodeInt64("dataSize").value_or(0));
    d->rscSize = static_cast<uint64_t>(o.decodeInt64("rscSize").value_or(0));
    d->fileCount = static_cast<uint32_t>(o.decodeInt64("fileCount").value_or(0));
    d->blockSize = static_cast<int32_t>(o.decodeInt64("blockSize").value_or(0));
    d->compressionType = static_cast<uint32_t>(o.decodeInt64("compressionType").value_or(0));
    d->compressedSize = static_cast<uint64_t>(o.decodeInt64("compressedSize").value_or(0));
    if (!extents(o.decodeObject("dataExt"), d->dataExt) || !extents(o.decodeObject("rscExt"), d->rscExt)) return nullptr;
    d->setSelected(static_cast<uint8_t>(o.decodeInt64("selected").value_or(0)));
    d->setChildrenCount(static_cast<int32_t>(o.decodeInt64("childrenCount").value_or(0)));
    ArchivedObject children = o.decodeObject("children");
    if (children.exists() && !children.isNil()) {
      auto items = children.arrayItems();
      if (!items) return fail("\"children\" is not an array");
      for (const auto& item : *items) {
        auto child = decode(item, depth + 1);
        if (!child) return nullptr;
        child->parent = d.get();
        d->addChildFromScanFile(std::move(child));
      }
    }
    return d;
  }

 private:
  std::unique_ptr<HDIR> fail(const std::string& why) {
    if (error_.empty()) error_ = why;
    return nullptr;
  }
  bool extents(const ArchivedObject& list, ExtentList& out) {
    if (!list.exists() || list.isNil()) return true;
    auto items = list.arrayItems();
    if (!items) return fail("an extent list is not an array"), false;
    for (const auto& e : *items) {
      if (e.className() != "Extent") return fail("an extent list holds something else"), false;
      out.push_back(Extent{static_cast<uint32_t>(e.decodeInt64("startBlock").value_or(0)),
                           static_cast<uint32_t>(e.decodeInt64("blockCount").value_or(0))});
    }
    return true;
  }

  size_t budget_;
  std::string& error_;
};

}  // namespace

std::optional<std::vector<uint8_t>> archiveHDIR(const HDIR& root) {
  // Archiving recurses once per level; measure the depth first, without recursing.
  std::vector<std::pair<const HDIR*, int>> stack{{&root, 0}};
  while (!stack.empty()) {
    auto [d, level] = stack.back();
    stack.pop_back();
    if (level > kMaxArchivedHDIRDepth) return std::nullopt;
    for (const auto& child : d->children()) stack.push_back({child.get(), level + 1});
  }
  return KeyedArchiver::archivedData(HDIRCoder(root));
}

std::unique_ptr<HDIR> unarchiveHDIR(std::span<const uint8_t> bytes, std::string& error) {
  error.clear();
  KeyedUnarchiver u;
  if (!u.load(bytes) || !u.checkReferences()) {
    error = u.error();
    return nullptr;
  }
  HDIRDecoder decoder(u.objectCount(), error);
  return decoder.decode(u.root(), 0);
}

}  // namespace ambrel
