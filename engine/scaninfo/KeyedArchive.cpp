#include "scaninfo/KeyedArchive.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <map>
#include <stdexcept>
#include <unordered_set>

#include <fmt/format.h>
#include <plist/plist.h>

#include "scaninfo/BinaryPlistCheck.h"

namespace ambrel {
namespace {

constexpr uint64_t kArchiveVersion = 100000;
constexpr const char* kArchiverName = "NSKeyedArchiver";
// Nesting of archived objects that value() follows; our archives are a few levels deep.
constexpr int kMaxValueDepth = 256;

plist_t newString(std::string_view s) {
  // libplist takes NUL-terminated text; embedded NULs cannot be stored.
  return plist_new_string(std::string(s).c_str());
}

ClassChain chainFor(const char* name, Containers kind, const char* mutableName) {
  if (kind == Containers::Mutable) return {mutableName, name, "NSObject"};
  return {name, "NSObject"};
}

}  // namespace

struct KeyedArchiver::Impl {
  Containers containers;
  plist_t objects = plist_new_array();
  uint64_t count = 0;
  std::vector<plist_t> current;  // the dictionaries of the instances being encoded
  uint64_t rootUid = 0;
  bool haveRoot = false;

  std::map<std::string, uint64_t, std::less<>> strings;
  std::map<int64_t, uint64_t> integers;
  std::map<uint64_t, uint64_t> bigUnsigned;
  std::map<uint64_t, uint64_t> reals;  // by bit pattern
  uint64_t boolUid[2] = {0, 0};
  std::map<PlistData, uint64_t> datas;
  std::map<ClassChain, uint64_t> classes;
  std::map<const void*, uint64_t> instances;

  explicit Impl(Containers c) : containers(c) { append(newString("$null")); }
  ~Impl() {
    if (objects) plist_free(objects);
  }

  uint64_t append(plist_t node) {
    plist_array_append_item(objects, node);
    return count++;
  }

  plist_t currentDict() {
    if (current.empty()) throw std::logic_error("keyed coder call outside encodeWithCoder");
    return current.back();
  }

  uint64_t classRef(const ClassChain& chain) {
    auto it = classes.find(chain);
    if (it != classes.end()) return it->second;
    plist_t dict = plist_new_dict();
    plist_dict_set_item(dict, "$classname", newString(chain.front()));
    plist_t list = plist_new_array();
    for (const auto& c : chain) plist_array_append_item(list, newString(c));
    plist_dict_set_item(dict, "$classes", list);
    uint64_t uid = append(dict);
    classes.emplace(chain, uid);
    return uid;
  }

  uint64_t stringRef(std::string_view s) {
    auto it = strings.find(s);
    if (it != strings.end()) return it->second;
    uint64_t uid = append(newString(s));
    strings.emplace(std::string(s), uid);
    return uid;
  }

  uint64_t integerRef(int64_t v) {
    auto it = integers.find(v);
    if (it != integers.end()) return it->second;
    uint64_t uid = append(plist_new_uint(static_cast<uint64_t>(v)));
    integers.emplace(v, uid);
    return uid;
  }

  uint64_t instanceRef(const KeyedEncodable* object) {
    if (!object) return 0;
    auto it = instances.find(object);
    if (it != instances.end()) return it->second;
    plist_t dict = plist_new_dict();
    uint64_t uid = append(dict);
    instances.emplace(object, uid);
    current.push_back(dict);
    object->encodeWithCoder(*owner);
    current.pop_back();
    plist_dict_set_item(dict, "$class", plist_new_uid(classRef(object->classChain())));
    return uid;
  }

  // A container instance: its UID first, then its members, then its class.
  template <class Fill>
  uint64_t containerRef(const ClassChain& chain, Fill fill) {
    plist_t dict = plist_new_dict();
    uint64_t uid = append(dict);
    fill(dict);
    plist_dict_set_item(dict, "$class", plist_new_uid(classRef(chain)));
    return uid;
  }

  uint64_t valueRef(const PlistValue& v) {
    switch (v.kind()) {
      case PlistValue::Kind::Null:
        return 0;
      case PlistValue::Kind::Bool: {
        int b = v.toBool() ? 1 : 0;
        if (boolUid[b] == 0) boolUid[b] = append(plist_new_bool(b));
        return boolUid[b];
      }
      case PlistValue::Kind::Int:
        return integerRef(v.toI64());
      case PlistValue::Kind::UInt: {
        uint64_t u = v.toU64();
        if (u <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return integerRef(static_cast<int64_t>(u));
        auto it = bigUnsigned.find(u);
        if (it != bigUnsigned.end()) return it->second;
        uint64_t uid = append(plist_new_uint(u));
        bigUnsigned.emplace(u, uid);
        return uid;
      }
      case PlistValue::Kind::Real: {
        double d = v.toDouble();
        uint64_t bits;
        std::memcpy(&bits, &d, 8);
        auto it = reals.find(bits);
        if (it != reals.end()) return it->second;
        uint64_t uid = append(plist_new_real(d));
        reals.emplace(bits, uid);
        return uid;
      }
      case PlistValue::Kind::String:
        return stringRef(*v.string());
      case PlistValue::Kind::Data: {
        const PlistData& bytes = *v.data();
        auto it = datas.find(bytes);
        if (it != datas.end()) return it->second;
        uint64_t uid = append(plist_new_data(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
        datas.emplace(bytes, uid);
        return uid;
      }
      case PlistValue::Kind::Array:
        return containerRef(chainFor("NSArray", containers, "NSMutableArray"), [&](plist_t dict) {
          std::vector<uint64_t> uids;
          for (const auto& item : *v.array()) uids.push_back(valueRef(item));
          plist_dict_set_item(dict, "NS.objects", uidArray(uids));
        });
      case PlistValue::Kind::Dict:
        return containerRef(chainFor("NSDictionary", containers, "NSMutableDictionary"), [&](plist_t dict) {
          std::vector<uint64_t> keys, values;
          for (const auto& [k, item] : *v.dict()) keys.push_back(stringRef(k));
          for (const auto& [k, item] : *v.dict()) values.push_back(valueRef(item));
          plist_dict_set_item(dict, "NS.keys", uidArray(keys));
          plist_dict_set_item(dict, "NS.objects", uidArray(values));
        });
    }
    return 0;
  }

  static plist_t uidArray(const std::vector<uint64_t>& uids) {
    plist_t array = plist_new_array();
    for (uint64_t u : uids) plist_array_append_item(array, plist_new_uid(u));
    return array;
  }

  std::vector<uint8_t> finish() {
    plist_t top = plist_new_dict();
    plist_dict_set_item(top, "$version", plist_new_uint(kArchiveVersion));
    plist_dict_set_item(top, "$archiver", plist_new_string(kArchiverName));
    plist_t topKeys = plist_new_dict();
    plist_dict_set_item(topKeys, "root", plist_new_uid(rootUid));
    plist_dict_set_item(top, "$top", topKeys);
    plist_dict_set_item(top, "$objects", objects);
    objects = nullptr;  // now owned by `top`
    char* bin = nullptr;
    uint32_t length = 0;
    plist_to_bin(top, &bin, &length);
    std::vector<uint8_t> out(reinterpret_cast<uint8_t*>(bin), reinterpret_cast<uint8_t*>(bin) + length);
    plist_to_bin_free(bin);
    plist_free(top);
    return out;
  }

  KeyedArchiver* owner = nullptr;
};

KeyedArchiver::KeyedArchiver(Containers containers) : d_(std::make_unique<Impl>(containers)) { d_->owner = this; }
KeyedArchiver::~KeyedArchiver() = default;

std::vector<uint8_t> KeyedArchiver::archivedData(const KeyedEncodable& root) {
  KeyedArchiver a;
  a.setRoot(root);
  return a.finish();
}

std::vector<uint8_t> KeyedArchiver::archivedData(const PlistValue& root, Containers containers) {
  KeyedArchiver a(containers);
  a.setRoot(root);
  return a.finish();
}

void KeyedArchiver::encodeObject(std::string_view key, const KeyedEncodable* object) {
  plist_t dict = d_->currentDict();
  uint64_t uid = d_->instanceRef(object);
  plist_dict_set_item(dict, std::string(key).c_str(), plist_new_uid(uid));
}

void KeyedArchiver::encodeObject(std::string_view key, const PlistValue& value) {
  plist_t dict = d_->currentDict();
  uint64_t uid = d_->valueRef(value);
  plist_dict_set_item(dict, std::string(key).c_str(), plist_new_uid(uid));
}

void KeyedArchiver::encodeObjects(std::string_view key, const std::vector<const KeyedEncodable*>& items, Containers kind) {
  plist_t dict = d_->currentDict();
  uint64_t uid = d_->containerRef(chainFor("NSArray", kind, "NSMutableArray"), [&](plist_t array) {
    std::vector<uint64_t> uids;
    for (const KeyedEncodable* item : items) uids.push_back(d_->instanceRef(item));
    plist_dict_set_item(array, "NS.objects", Impl::uidArray(uids));
  });
  plist_dict_set_item(dict, std::string(key).c_str(), plist_new_uid(uid));
}

void KeyedArchiver::encodeObjectList(std::string_view key, const std::vector<const KeyedEncodable*>& items) {
  plist_t dict = d_->currentDict();
  std::vector<uint64_t> uids;
  for (const KeyedEncodable* item : items) uids.push_back(d_->instanceRef(item));
  plist_dict_set_item(dict, std::string(key).c_str(), Impl::uidArray(uids));
}

void KeyedArchiver::encodeInteger(std::string_view key, int64_t value) {
  plist_dict_set_item(d_->currentDict(), std::string(key).c_str(), plist_new_uint(static_cast<uint64_t>(value)));
}

void KeyedArchiver::encodeBool(std::string_view key, bool value) {
  plist_dict_set_item(d_->currentDict(), std::string(key).c_str(), plist_new_bool(value ? 1 : 0));
}

void KeyedArchiver::setRoot(const KeyedEncodable& root) {
  d_->rootUid = d_->instanceRef(&root);
  d_->haveRoot = true;
}

void KeyedArchiver::setRoot(const PlistValue& root) {
  d_->rootUid = d_->valueRef(root);
  d_->haveRoot = true;
}

std::vector<uint8_t> KeyedArchiver::finish() {
  if (!d_->objects) throw std::logic_error("keyed archive finished twice");
  return d_->finish();
}

// ---- reading

KeyedUnarchiver::KeyedUnarchiver() = default;
KeyedUnarchiver::~KeyedUnarchiver() {
  if (plist_) plist_free(static_cast<plist_t>(plist_));
}

bool KeyedUnarchiver::load(std::span<const uint8_t> bytes) {
  if (plist_) {
    plist_free(static_cast<plist_t>(plist_));
    plist_ = nullptr;
  }
  objects_ = nullptr;
  objectCount_ = 0;
  error_.clear();
  byteCount_ = bytes.size();
  if (bytes.size() > std::numeric_limits<uint32_t>::max()) {
    error_ = "archive too large";
    return false;
  }
  std::string why;
  if (!checkBinaryPlist(bytes, why)) {
    error_ = "not a keyed archive: " + why;
    return false;
  }
  plist_t root = nullptr;
  plist_from_bin(reinterpret_cast<const char*>(bytes.data()), static_cast<uint32_t>(bytes.size()), &root);
  if (!root) {
    error_ = "not a keyed archive: the property list does not parse";
    return false;
  }
  plist_ = root;
  if (plist_get_node_type(root) != PLIST_DICT) {
    error_ = "not a keyed archive: the top level is not a dictionary";
    return false;
  }
  plist_t archiver = plist_dict_get_item(root, "$archiver");
  if (!archiver || plist_get_node_type(archiver) != PLIST_STRING || plist_string_val_compare(archiver, kArchiverName) != 0) {
    error_ = "not a keyed archive: $archiver is not NSKeyedArchiver";
    return false;
  }
  plist_t version = plist_dict_get_item(root, "$version");
  uint64_t v = 0;
  if (version && plist_get_node_type(version) == PLIST_UINT) plist_get_uint_val(version, &v);
  if (v != kArchiveVersion) {
    error_ = "not a keyed archive: $version is not 100000";
    return false;
  }
  plist_t top = plist_dict_get_item(root, "$top");
  if (!top || plist_get_node_type(top) != PLIST_DICT) {
    error_ = "not a keyed archive: no $top dictionary";
    return false;
  }
  plist_t objects = plist_dict_get_item(root, "$objects");
  if (!objects || plist_get_node_type(objects) != PLIST_ARRAY) {
    error_ = "not a keyed archive: no $objects array";
    return false;
  }
  objects_ = objects;
  objectCount_ = plist_array_get_size(objects);
  return true;
}

bool KeyedUnarchiver::checkReferences() {
  std::vector<plist_t> pending{objects_};
  while (!pending.empty()) {
    plist_t n = pending.back();
    pending.pop_back();
    switch (plist_get_node_type(n)) {
      case PLIST_UID: {
        uint64_t index = 0;
        plist_get_uid_val(n, &index);
        if (index >= objectCount_) {
          error_ = fmt::format("broken: a reference names object {}, past the archive's {} objects", index, objectCount_);
          return false;
        }
        break;
      }
      case PLIST_ARRAY:
        for (uint32_t i = 0, count = plist_array_get_size(n); i < count; ++i)
          pending.push_back(plist_array_get_item(n, i));
        break;
      case PLIST_DICT: {
        plist_dict_iter it = nullptr;
        plist_dict_new_iter(n, &it);
        for (plist_t value = nullptr;;) {
          plist_dict_next_item(n, it, nullptr, &value);
          if (!value) break;
          pending.push_back(value);
        }
        std::free(it);
        break;
      }
      default:
        break;
    }
  }
  return true;
}

void* KeyedUnarchiver::objectAt(uint64_t index) const {
  if (!objects_ || index >= objectCount_) return nullptr;
  return plist_array_get_item(static_cast<plist_t>(objects_), static_cast<uint32_t>(index));
}

void* KeyedUnarchiver::resolve(void* uidNode) const {
  if (!uidNode || plist_get_node_type(static_cast<plist_t>(uidNode)) != PLIST_UID) return nullptr;
  uint64_t index = 0;
  plist_get_uid_val(static_cast<plist_t>(uidNode), &index);
  return objectAt(index);
}

ArchivedObject KeyedUnarchiver::top(std::string_view key) const {
  if (!plist_ || !objects_) return {};
  plist_t t = plist_dict_get_item(static_cast<plist_t>(plist_), "$top");
  if (!t) return {};
  return ArchivedObject(this, resolve(plist_dict_get_item(t, std::string(key).c_str())));
}

std::optional<PlistValue> KeyedUnarchiver::unarchivedValue(std::span<const uint8_t> bytes, std::string* error) {
  KeyedUnarchiver u;
  if (!u.load(bytes)) {
    if (error) *error = u.error();
    return std::nullopt;
  }
  ArchivedObject r = u.root();
  if (!r.exists()) {
    if (error) *error = "the archive has no root object";
    return std::nullopt;
  }
  return r.value(error);
}

// ---- archived objects

namespace {

bool isNullString(plist_t node) {
  return plist_get_node_type(node) == PLIST_STRING && plist_string_val_compare(node, "$null") == 0;
}

std::string stringOf(plist_t node) {
  uint64_t len = 0;
  const char* p = plist_get_string_ptr(node, &len);
  return p ? std::string(p, len) : std::string();
}

}  // namespace

bool ArchivedObject::isNil() const {
  return node_ && node_ == owner_->objectAt(0) && isNullString(static_cast<plist_t>(node_));
}

void* ArchivedObject::field(std::string_view key) const {
  if (!node_ || plist_get_node_type(static_cast<plist_t>(node_)) != PLIST_DICT) return nullptr;
  return plist_dict_get_item(static_cast<plist_t>(node_), std::string(key).c_str());
}

std::string ArchivedObject::className() const {
  plist_t cls = static_cast<plist_t>(owner_ ? owner_->resolve(field("$class")) : nullptr);
  if (!cls || plist_get_node_type(cls) != PLIST_DICT) return {};
  plist_t name = plist_dict_get_item(cls, "$classname");
  if (!name || plist_get_node_type(name) != PLIST_STRING) return {};
  return stringOf(name);
}

ClassChain ArchivedObject::classChain() const {
  ClassChain out;
  plist_t cls = static_cast<plist_t>(owner_ ? owner_->resolve(field("$class")) : nullptr);
  if (!cls || plist_get_node_type(cls) != PLIST_DICT) return out;
  plist_t list = plist_dict_get_item(cls, "$classes");
  if (!list || plist_get_node_type(list) != PLIST_ARRAY) return out;
  uint32_t n = plist_array_get_size(list);
  for (uint32_t i = 0; i < n; ++i) {
    plist_t item = plist_array_get_item(list, i);
    if (plist_get_node_type(item) == PLIST_STRING) out.push_back(stringOf(item));
  }
  return out;
}

bool ArchivedObject::isKindOf(std::string_view name) const {
  for (const auto& c : classChain())
    if (c == name) return true;
  return className() == name;
}

bool ArchivedObject::containsKey(std::string_view key) const { return field(key) != nullptr; }

std::optional<int64_t> ArchivedObject::decodeInt64(std::string_view key) const {
  plist_t f = static_cast<plist_t>(field(key));
  if (!f) return std::nullopt;
  if (plist_get_node_type(f) == PLIST_UINT) {
    uint64_t v = 0;
    plist_get_uint_val(f, &v);
    return static_cast<int64_t>(v);
  }
  if (plist_get_node_type(f) == PLIST_BOOLEAN) {
    uint8_t b = 0;
    plist_get_bool_val(f, &b);
    return b ? 1 : 0;
  }
  return std::nullopt;
}

std::optional<bool> ArchivedObject::decodeBool(std::string_view key) const {
  plist_t f = static_cast<plist_t>(field(key));
  if (!f) return std::nullopt;
  if (plist_get_node_type(f) == PLIST_BOOLEAN) {
    uint8_t b = 0;
    plist_get_bool_val(f, &b);
    return b != 0;
  }
  if (plist_get_node_type(f) == PLIST_UINT) {
    uint64_t v = 0;
    plist_get_uint_val(f, &v);
    return v != 0;
  }
  return std::nullopt;
}

std::optional<double> ArchivedObject::decodeDouble(std::string_view key) const {
  plist_t f = static_cast<plist_t>(field(key));
  if (!f) return std::nullopt;
  if (plist_get_node_type(f) == PLIST_REAL) {
    double d = 0;
    plist_get_real_val(f, &d);
    return d;
  }
  if (auto i = decodeInt64(key)) return static_cast<double>(*i);
  return std::nullopt;
}

ArchivedObject ArchivedObject::decodeObject(std::string_view key) const {
  if (!owner_) return {};
  return ArchivedObject(owner_, owner_->resolve(field(key)));
}

std::optional<std::string> ArchivedObject::string() const {
  if (!node_ || isNil()) return std::nullopt;
  plist_t n = static_cast<plist_t>(node_);
  if (plist_get_node_type(n) == PLIST_STRING) return stringOf(n);
  if (plist_get_node_type(n) == PLIST_DICT && isKindOf("NSString")) {
    ArchivedObject s = decodeObject("NS.string");
    plist_t sn = static_cast<plist_t>(s.node_);
    if (sn && plist_get_node_type(sn) == PLIST_STRING) return stringOf(sn);
    plist_t inlineString = static_cast<plist_t>(field("NS.string"));
    if (inlineString && plist_get_node_type(inlineString) == PLIST_STRING) return stringOf(inlineString);
  }
  return std::nullopt;
}

std::optional<std::vector<ArchivedObject>> ArchivedObject::arrayItems() const {
  if (!node_ || plist_get_node_type(static_cast<plist_t>(node_)) != PLIST_DICT) return std::nullopt;
  if (!isKindOf("NSArray") && !isKindOf("NSSet") && !isKindOf("NSOrderedSet")) return std::nullopt;
  plist_t list = static_cast<plist_t>(field("NS.objects"));
  std::vector<ArchivedObject> out;
  if (!list) return out;  // an empty array may omit its members
  if (plist_get_node_type(list) != PLIST_ARRAY) return std::nullopt;
  uint32_t n = plist_array_get_size(list);
  for (uint32_t i = 0; i < n; ++i) {
    void* target = owner_->resolve(plist_array_get_item(list, i));
    if (!target) return std::nullopt;
    out.push_back(ArchivedObject(owner_, target));
  }
  return out;
}

namespace {

// Plain property-list nodes stored directly in $objects.
std::optional<PlistValue> scalarOf(plist_t n) {
  switch (plist_get_node_type(n)) {
    case PLIST_BOOLEAN: {
      uint8_t b = 0;
      plist_get_bool_val(n, &b);
      return PlistValue(b != 0);
    }
    case PLIST_UINT: {
      uint64_t v = 0;
      plist_get_uint_val(n, &v);
      return PlistValue(static_cast<int64_t>(v));
    }
    case PLIST_REAL: {
      double d = 0;
      plist_get_real_val(n, &d);
      return PlistValue(d);
    }
    case PLIST_STRING:
      return PlistValue(stringOf(n));
    case PLIST_DATA: {
      uint64_t len = 0;
      const char* p = plist_get_data_ptr(n, &len);
      return PlistValue(PlistData(reinterpret_cast<const uint8_t*>(p), reinterpret_cast<const uint8_t*>(p) + len));
    }
    default:
      return std::nullopt;
  }
}

}  // namespace

class ArchiveValueReader {
 public:
  ArchiveValueReader(size_t budget, std::string* error) : budget_(budget), error_(error) {}

  std::optional<PlistValue> read(const ArchivedObject& o, int depth);

 private:
  void fail(const std::string& why) {
    if (error_ && error_->empty()) *error_ = why;
  }

  size_t budget_;
  std::string* error_;
  std::unordered_set<const void*> path_;
};

std::optional<PlistValue> ArchivedObject::value(std::string* error) const {
  if (error) error->clear();
  if (!exists()) {
    if (error) *error = "no such object";
    return std::nullopt;
  }
  ArchiveValueReader reader(owner_->byteCount_ + 16, error);
  return reader.read(*this, 0);
}

std::optional<PlistValue> ArchiveValueReader::read(const ArchivedObject& o, int depth) {
  if (!o.exists()) {
    fail("a reference names no object");
    return std::nullopt;
  }
  if (o.isNil()) return PlistValue();
  if (budget_ == 0) {
    fail("the object graph expands beyond the archive's size");
    return std::nullopt;
  }
  --budget_;
  if (depth > kMaxValueDepth) {
    fail("objects nested too deeply");
    return std::nullopt;
  }
  plist_t n = static_cast<plist_t>(o.node_);
  if (plist_get_node_type(n) != PLIST_DICT) {
    auto v = scalarOf(n);
    if (!v) fail("an object of an unknown kind");
    return v;
  }
  if (path_.count(o.node_)) {
    fail("the object graph has a loop");
    return std::nullopt;
  }
  struct PathGuard {
    std::unordered_set<const void*>& path;
    const void* node;
    ~PathGuard() { path.erase(node); }
  } guard{path_, o.node_};
  path_.insert(o.node_);

  std::string cls = o.className();
  if (cls.empty()) {
    fail("an instance without a class");
    return std::nullopt;
  }
  if (o.isKindOf("NSDictionary")) {
    plist_t keys = static_cast<plist_t>(o.field("NS.keys"));
    plist_t values = static_cast<plist_t>(o.field("NS.objects"));
    PlistDict out;
    if (!keys && !values) return PlistValue(out);
    if (!keys || !values || plist_get_node_type(keys) != PLIST_ARRAY || plist_get_node_type(values) != PLIST_ARRAY ||
        plist_array_get_size(keys) != plist_array_get_size(values)) {
      fail("a dictionary whose keys and objects do not match");
      return std::nullopt;
    }
    uint32_t count = plist_array_get_size(keys);
    for (uint32_t i = 0; i < count; ++i) {
      ArchivedObject k(o.owner_, o.owner_->resolve(plist_array_get_item(keys, i)));
      auto key = k.string();
      if (!key) {
        fail("a dictionary key that is not a string");
        return std::nullopt;
      }
      ArchivedObject item(o.owner_, o.owner_->resolve(plist_array_get_item(values, i)));
      auto v = read(item, depth + 1);
      if (!v) return std::nullopt;
      out.set(*key, std::move(*v));
    }
    return PlistValue(std::move(out));
  }
  if (o.isKindOf("NSArray") || o.isKindOf("NSSet") || o.isKindOf("NSOrderedSet")) {
    auto items = o.arrayItems();
    if (!items) {
      fail("an array with a bad member list");
      return std::nullopt;
    }
    PlistArray out;
    for (const auto& item : *items) {
      auto v = read(item, depth + 1);
      if (!v) return std::nullopt;
      out.push_back(std::move(*v));
    }
    return PlistValue(std::move(out));
  }
  if (o.isKindOf("NSString")) {
    if (auto s = o.string()) return PlistValue(*s);
    fail("a string instance without text");
    return std::nullopt;
  }
  if (o.isKindOf("NSData")) {
    ArchivedObject bytes = o.decodeObject("NS.data");
    plist_t inlineData = static_cast<plist_t>(o.field("NS.data"));
    plist_t d = bytes.exists() ? static_cast<plist_t>(bytes.node_) : inlineData;
    if (d && plist_get_node_type(d) == PLIST_DATA) return scalarOf(d);
    fail("a data instance without bytes");
    return std::nullopt;
  }
  if (o.isKindOf("NSDate")) {
    if (auto t = o.decodeDouble("NS.time")) return PlistValue(*t);
    fail("a date instance without a time");
    return std::nullopt;
  }
  if (o.isKindOf("NSNull")) return PlistValue();
  fail(fmt::format("an instance of {}, not a property-list value", cls));
  return std::nullopt;
}

}  // namespace ambrel
