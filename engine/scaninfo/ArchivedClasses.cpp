#include "scaninfo/ArchivedClasses.h"

#include <fmt/format.h>

namespace ambrel {
namespace {

// SigNode trees are two levels deep; anything far deeper is not ours.
constexpr int kMaxSigNodeDepth = 16;

// Object-valued string: nil or absent reads as "".
bool readString(const ArchivedObject& o, const char* key, std::string& out, std::string& error) {
  ArchivedObject v = o.decodeObject(key);
  if (!v.exists() || v.isNil()) {
    out.clear();
    return true;
  }
  auto s = v.string();
  if (!s) {
    error = fmt::format("\"{}\" is not a string", key);
    return false;
  }
  out = std::move(*s);
  return true;
}

// Object-valued number (NSNumber): nil or absent reads as 0.
bool readNumber(const ArchivedObject& o, const char* key, uint64_t& out, std::string& error) {
  ArchivedObject v = o.decodeObject(key);
  if (!v.exists() || v.isNil()) {
    out = 0;
    return true;
  }
  auto value = v.value();
  if (!value || !value->isInteger()) {
    error = fmt::format("\"{}\" is not a number", key);
    return false;
  }
  out = value->toU64();
  return true;
}

bool checkClass(const ArchivedObject& o, const char* name, std::string& error) {
  if (!o.exists() || o.isNil()) {
    error = fmt::format("no {} object", name);
    return false;
  }
  if (o.className() != name) {
    error = fmt::format("expected a {}, found \"{}\"", name, o.className());
    return false;
  }
  return true;
}

}  // namespace

void DMediaArchive::encodeWithCoder(KeyedArchiver& coder) const {
  coder.encodeObject("path", PlistValue(path));
  coder.encodeObject("model", PlistValue(model));
  coder.encodeObject("serial", PlistValue(serial));
  coder.encodeObject("revision", PlistValue(revision));
  coder.encodeObject("sizeInSect", PlistValue(sizeInSect));
}

std::optional<DMediaArchive> DMediaArchive::decode(const ArchivedObject& o, std::string& error) {
  if (!o.exists() || o.isNil() || !o.isKindOf("DMedia")) {
    error = "not a DMedia archive";
    return std::nullopt;
  }
  DMediaArchive d;
  if (!readString(o, "path", d.path, error) || !readString(o, "model", d.model, error) ||
      !readString(o, "serial", d.serial, error) || !readString(o, "revision", d.revision, error) ||
      !readNumber(o, "sizeInSect", d.sizeInSect, error))
    return std::nullopt;
  return d;
}

void VolumeArchive::encodeWithCoder(KeyedArchiver& coder) const {
  coder.encodeInt("volumeScanType", volumeScanType);
  if (volumeScanType == 2) {
    coder.encodeObject("volumeName", PlistValue(volumeName));
    coder.encodeObject("rootName", PlistValue(rootName));
    coder.encodeObject("deletedFilesPath", PlistValue(deletedFilesPath));
    coder.encodeObject("path", PlistValue(path));
    coder.encodeObject("sizeInSect", PlistValue(sizeInSect));
  } else {
    coder.encodeObject("startSector", PlistValue(startSector));
    coder.encodeObject("volumeName", PlistValue(volumeName));
    coder.encodeObject("rootName", PlistValue(rootName));
    coder.encodeObject("scanMode", PlistValue(scanMode));
    coder.encodeObject("lostFoldersPath", PlistValue(lostFoldersPath));
    coder.encodeObject("lostFilesPath", PlistValue(lostFilesPath));
    coder.encodeObject("lostFileName", PlistValue(lostFileName));
    coder.encodeObject("deletedFilesPath", PlistValue(deletedFilesPath));
    coder.encodeObject("deletedFileName", PlistValue(deletedFileName));
    coder.encodeObject("path", PlistValue(path));
    coder.encodeObject("model", PlistValue(model));
    coder.encodeObject("serial", PlistValue(serial));
    coder.encodeObject("revision", PlistValue(revision));
    coder.encodeObject("sizeInSect", PlistValue(sizeInSect));
  }
  coder.encodeInt64("HPlusVolStart", static_cast<int64_t>(HPlusVolStart));
  coder.encodeInt("blockSize", blockSize);
  if (!linkEntries.empty()) coder.encodeObject("linkEntries", PlistValue(linkEntries));
}

std::optional<VolumeArchive> VolumeArchive::decode(const ArchivedObject& o, std::string& error) {
  if (!checkClass(o, "Volume", error)) return std::nullopt;
  VolumeArchive v;
  auto type = o.decodeInt64("volumeScanType");
  if (!type) {
    error = "the volume has no volumeScanType";
    return std::nullopt;
  }
  // Every other field's meaning depends on the type: one we do not know
  // cannot be read as if it were another.
  if (*type < 0 || *type > 3) {
    error = fmt::format("scan type {} is not one of 0 to 3", *type);
    return std::nullopt;
  }
  v.volumeScanType = static_cast<int32_t>(*type);
  bool ok = readString(o, "volumeName", v.volumeName, error) && readString(o, "rootName", v.rootName, error) &&
            readString(o, "deletedFilesPath", v.deletedFilesPath, error) && readString(o, "path", v.path, error) &&
            readNumber(o, "sizeInSect", v.sizeInSect, error);
  if (ok && v.volumeScanType != 2) {
    ok = readNumber(o, "startSector", v.startSector, error) && readString(o, "scanMode", v.scanMode, error) &&
         readString(o, "lostFoldersPath", v.lostFoldersPath, error) &&
         readString(o, "lostFilesPath", v.lostFilesPath, error) &&
         readString(o, "lostFileName", v.lostFileName, error) &&
         readString(o, "deletedFileName", v.deletedFileName, error) && readString(o, "model", v.model, error) &&
         readString(o, "serial", v.serial, error) && readString(o, "revision", v.revision, error);
  }
  if (!ok) return std::nullopt;
  v.HPlusVolStart = static_cast<uint64_t>(o.decodeInt64("HPlusVolStart").value_or(0));
  v.blockSize = static_cast<int32_t>(o.decodeInt64("blockSize").value_or(0));
  if (o.containsKey("linkEntries"))
    if (auto links = o.decodeObject("linkEntries").value(); links && links->data()) v.linkEntries = *links->data();
  return v;
}

void SigArchive::encodeWithCoder(KeyedArchiver& coder) const {
  coder.encodeBool("preInstalled", preInstalled);
  coder.encodeBool("skipFileSize", skipFileSize);
  coder.encodeInt("categoryID", categoryID);
  coder.encodeObject("category", PlistValue(category));
  coder.encodeInt32("typeOfFile", static_cast<int32_t>(typeOfFile));
  coder.encodeObject("software", PlistValue(software));
  coder.encodeObject("extension", PlistValue(extension));
  coder.encodeInt("offset", offset);
  coder.encodeInt("headerLength", headerLength);
  coder.encodeInt64("header", static_cast<int64_t>(header));
  coder.encodeInt32("defaultSize", static_cast<int32_t>(defaultSize));
  coder.encodeInt64("userSize", static_cast<int64_t>(userSize));
  coder.encodeInt64("foundSize", static_cast<int64_t>(foundSize));
  coder.encodeInt32("skipSize", static_cast<int32_t>(skipSize));
}

std::optional<SigArchive> SigArchive::decode(const ArchivedObject& o, std::string& error) {
  if (!checkClass(o, "Sig", error)) return std::nullopt;
  SigArchive s;
  s.preInstalled = o.decodeBool("preInstalled").value_or(false);
  s.skipFileSize = o.decodeBool("skipFileSize").value_or(false);
  s.categoryID = static_cast<uint8_t>(o.decodeInt64("categoryID").value_or(0));
  s.typeOfFile = static_cast<uint32_t>(o.decodeInt64("typeOfFile").value_or(0));
  s.offset = static_cast<uint16_t>(o.decodeInt64("offset").value_or(0));
  s.headerLength = static_cast<uint8_t>(o.decodeInt64("headerLength").value_or(0));
  s.header = static_cast<uint64_t>(o.decodeInt64("header").value_or(0));
  s.defaultSize = static_cast<uint32_t>(o.decodeInt64("defaultSize").value_or(0));
  s.userSize = static_cast<uint64_t>(o.decodeInt64("userSize").value_or(0));
  s.foundSize = static_cast<uint64_t>(o.decodeInt64("foundSize").value_or(0));
  s.skipSize = static_cast<uint32_t>(o.decodeInt64("skipSize").value_or(0));
  if (!readString(o, "category", s.category, error) || !readString(o, "software", s.software, error) ||
      !readString(o, "extension", s.extension, error))
    return std::nullopt;
  return s;
}

void SigNodeArchive::encodeWithCoder(KeyedArchiver& coder) const {
  coder.encodeInt("fileType", fileType);
  if (children) {
    std::vector<const KeyedEncodable*> items;
    for (const auto& c : *children) items.push_back(&c);
    coder.encodeObjects("children", items, Containers::Mutable);
  } else {
    coder.encodeObject("children", static_cast<const KeyedEncodable*>(nullptr));
  }
  coder.encodeInt("selected", selected);
  coder.encodeObject("category", PlistValue(category));
  coder.encodeObject("sig", sig ? static_cast<const KeyedEncodable*>(&*sig) : nullptr);
}

std::optional<SigNodeArchive> SigNodeArchive::decode(const ArchivedObject& o, std::string& error, int depth) {
  if (depth > kMaxSigNodeDepth) {
    error = "signature nodes nested too deeply";
    return std::nullopt;
  }
  if (!checkClass(o, "SigNode", error)) return std::nullopt;
  SigNodeArchive n;
  n.fileType = static_cast<uint16_t>(o.decodeInt64("fileType").value_or(0));
  n.selected = static_cast<uint8_t>(o.decodeInt64("selected").value_or(0));
  if (!readString(o, "category", n.category, error)) return std::nullopt;
  ArchivedObject children = o.decodeObject("children");
  if (children.exists() && !children.isNil()) {
    auto items = children.arrayItems();
    if (!items) {
      error = "\"children\" is not an array";
      return std::nullopt;
    }
    n.children.emplace();
    for (const auto& item : *items) {
      auto child = decode(item, error, depth + 1);
      if (!child) return std::nullopt;
      n.children->push_back(std::move(*child));
    }
  }
  ArchivedObject sig = o.decodeObject("sig");
  if (sig.exists() && !sig.isNil()) {
    auto s = SigArchive::decode(sig, error);
    if (!s) return std::nullopt;
    n.sig = std::move(*s);
  }
  return n;
}

namespace {

struct CategoryList : KeyedEncodable {
  const std::vector<SigNodeArchive>& nodes;
  explicit CategoryList(const std::vector<SigNodeArchive>& n) : nodes(n) {}
  ClassChain classChain() const override { return {"NSMutableArray", "NSArray", "NSObject"}; }
  void encodeWithCoder(KeyedArchiver& coder) const override {
    std::vector<const KeyedEncodable*> items;
    for (const auto& n : nodes) items.push_back(&n);
    coder.encodeObjectList("NS.objects", items);
  }
};

}  // namespace

std::vector<uint8_t> archiveSignatureDatabase(const std::vector<SigNodeArchive>& categories) {
  return KeyedArchiver::archivedData(CategoryList(categories));
}

std::optional<std::vector<SigNodeArchive>> unarchiveSignatureDatabase(std::span<const uint8_t> bytes, std::string& error) {
  KeyedUnarchiver u;
  if (!u.load(bytes)) {
    error = u.error();
    return std::nullopt;
  }
  auto items = u.root().arrayItems();
  if (!items) {
    error = "the database's root is not an array";
    return std::nullopt;
  }
  std::vector<SigNodeArchive> out;
  for (const auto& item : *items) {
    auto node = SigNodeArchive::decode(item, error);
    if (!node) return std::nullopt;
    out.push_back(std::move(*node));
  }
  return out;
}

}  // namespace ambrel
