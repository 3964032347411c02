#pragma once
// Keyed archives: object graphs stored as binary property lists in the form
// NSKeyedArchiver writes, so that files move freely between this program and
// the platform whose archiver defined the format.
//
//   { "$version": 100000, "$archiver": "NSKeyedArchiver",
//     "$top": { "root": UID }, "$objects": [ "$null", ... ] }
//
// Every object lives once in $objects and is referred to by its index (a UID).
// Strings, numbers and data are stored as plain values; a class instance is a
// dictionary of its keys plus "$class", the UID of a class dictionary
// ({ "$classname", "$classes": the whole chain down to NSObject }). As the
// platform's encoder does, an object takes its UID before its contents are
// encoded and its class dictionary after them, equal strings, numbers, data
// and class dictionaries are written once, and nil is UID 0 ("$null").
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/PlistValue.h"

namespace ambrel {

// The class chain as archived: the class itself first, "NSObject" last.
using ClassChain = std::vector<std::string>;

class KeyedArchiver;

// An object that archives itself by keys (encodeWithCoder:).
class KeyedEncodable {
 public:
  virtual ~KeyedEncodable() = default;
  virtual ClassChain classChain() const = 0;
  virtual void encodeWithCoder(KeyedArchiver& coder) const = 0;

  // Lets the archived structs compare by their fields.
  bool operator==(const KeyedEncodable&) const = default;
};

// How PlistArray and PlistDict values are archived.
enum class Containers { Immutable, Mutable };

class KeyedArchiver {
 public:
  explicit KeyedArchiver(Containers containers = Containers::Immutable);
  ~KeyedArchiver();
  KeyedArchiver(const KeyedArchiver&) = delete;
  KeyedArchiver& operator=(const KeyedArchiver&) = delete;

  // The archive of one root object (archivedDataWithRootObject:).
  static std::vector<uint8_t> archivedData(const KeyedEncodable& root);
  static std::vector<uint8_t> archivedData(const PlistValue& root, Containers containers = Containers::Immutable);

  // Coder calls, valid inside encodeWithCoder:. A null PlistValue or a null
  // pointer is archived as nil.
  void encodeObject(std::string_view key, const KeyedEncodable* object);
  void encodeObject(std::string_view key, const PlistValue& value);
  // An array of class instances; a null element is archived as nil.
  void encodeObjects(std::string_view key, const std::vector<const KeyedEncodable*>& items, Containers kind);
  // A bare array of UIDs under `key`: what an NSArray writes as "NS.objects".
  void encodeObjectList(std::string_view key, const std::vector<const KeyedEncodable*>& items);
  void encodeInt(std::string_view key, int32_t value) { encodeInteger(key, value); }
  void encodeInt32(std::string_view key, int32_t value) { encodeInteger(key, value); }
  void encodeInt64(std::string_view key, int64_t value) { encodeInteger(key, value); }
  void encodeBool(std::string_view key, bool value);

  // Finishing by hand: set the root, then take the bytes.
  void setRoot(const KeyedEncodable& root);
  void setRoot(const PlistValue& root);
  std::vector<uint8_t> finish();

 private:
  struct Impl;
  void encodeInteger(std::string_view key, int64_t value);
  std::unique_ptr<Impl> d_;
};

class KeyedUnarchiver;
class ArchiveValueReader;

// One object of a loaded archive, or nothing (a missing key). Valid while its
// unarchiver lives. Reads never fail loudly: a missing key or a value of
// another type gives nullopt, as the platform's decoder gives 0 or nil.
class ArchivedObject {
 public:
  ArchivedObject() = default;

  bool exists() const { return node_ != nullptr; }
  // UID 0, "$null": a nil object.
  bool isNil() const;

  // The class of a class instance ("$classname"), and its chain ("$classes").
  // Empty for plain values.
  std::string className() const;
  ClassChain classChain() const;
  bool isKindOf(std::string_view name) const;

  bool containsKey(std::string_view key) const;
  std::optional<int64_t> decodeInt64(std::string_view key) const;
  std::optional<bool> decodeBool(std::string_view key) const;
  std::optional<double> decodeDouble(std::string_view key) const;
  ArchivedObject decodeObject(std::string_view key) const;

  // A string object (NSString, or NSMutableString with "NS.string").
  std::optional<std::string> string() const;
  // The elements of an NSArray / NSMutableArray / NSSet.
  std::optional<std::vector<ArchivedObject>> arrayItems() const;
  // A Foundation value (nil, string, number, data, array, set as array,
  // dictionary with string keys) as a PlistValue. nullopt for class
  // instances of other classes, loops, or graphs larger than the archive;
  // `error` says which.
  std::optional<PlistValue> value(std::string* error = nullptr) const;

 private:
  friend class KeyedUnarchiver;
  friend class ArchiveValueReader;
  ArchivedObject(const KeyedUnarchiver* owner, void* node) : owner_(owner), node_(node) {}
  void* field(std::string_view key) const;

  const KeyedUnarchiver* owner_ = nullptr;
  void* node_ = nullptr;  // a plist_t inside the owner's tree
};

class KeyedUnarchiver {
 public:
  KeyedUnarchiver();
  ~KeyedUnarchiver();
  KeyedUnarchiver(const KeyedUnarchiver&) = delete;
  KeyedUnarchiver& operator=(const KeyedUnarchiver&) = delete;

  // Parses and checks the top level ($archiver, $version, $top, $objects).
  // False with error() set when the bytes are not a keyed archive.
  bool load(std::span<const uint8_t> bytes);
  const std::string& error() const { return error_; }
  // Every reference in the archive names one of its objects. Files we write
  // and read back as a whole (scan info) must pass: a dangling reference
  // would read as a missing value (a zero, an empty name) without a word.
  // Other archives are read leniently, as the decoders of the platform do.
  bool checkReferences();

  // $top's "root", or another top-level key.
  ArchivedObject root() const { return top("root"); }
  ArchivedObject top(std::string_view key) const;
  size_t objectCount() const { return objectCount_; }

  // Convenience: the root of an archive of a plain value (a string marker, a
  // dictionary list), nullopt with `error` set otherwise.
  static std::optional<PlistValue> unarchivedValue(std::span<const uint8_t> bytes, std::string* error = nullptr);

 private:
  friend class ArchivedObject;
  friend class ArchiveValueReader;
  // The object a UID names; null when out of range.
  void* resolve(void* uidNode) const;
  void* objectAt(uint64_t index) const;

  void* plist_ = nullptr;
  void* objects_ = nullptr;
  size_t objectCount_ = 0;
  size_t byteCount_ = 0;
  std::string error_;
};

}  // namespace ambrel
