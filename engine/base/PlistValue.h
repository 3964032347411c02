#pragma once
// A small property-list value: the drive, volume and partition dictionaries
// travel as these, so that scan info files can archive them losslessly.
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace ambrel {

class PlistValue;
using PlistData = std::vector<uint8_t>;

struct PlistArray {
  using Items = std::vector<PlistValue>;
  Items items;

  PlistArray();
  PlistArray(std::initializer_list<PlistValue> init);
  size_t size() const;
  bool empty() const;
  const PlistValue& operator[](size_t i) const;
  PlistValue& operator[](size_t i);
  void push_back(PlistValue v);
  Items::const_iterator begin() const;
  Items::const_iterator end() const;
  Items::iterator begin();
  Items::iterator end();
  bool operator==(const PlistArray&) const;
};

// Keys keep the order they were first set in; dictionaries here are small.
struct PlistDict {
  using Entries = std::vector<std::pair<std::string, PlistValue>>;
  Entries entries;

  PlistDict();
  PlistDict(std::initializer_list<std::pair<std::string, PlistValue>> init);
  bool contains(std::string_view key) const { return find(key) != nullptr; }
  const PlistValue* find(std::string_view key) const;
  PlistValue* find(std::string_view key);
  void set(std::string key, PlistValue value);
  bool erase(std::string_view key);
  size_t size() const;
  bool empty() const;
  Entries::const_iterator begin() const;
  Entries::const_iterator end() const;

  // Typed look-ups with a fallback for a missing or differently typed value.
  std::string string(std::string_view key, std::string fallback = {}) const;
  uint64_t u64(std::string_view key, uint64_t fallback = 0) const;
  int64_t i64(std::string_view key, int64_t fallback = 0) const;
  bool boolean(std::string_view key, bool fallback = false) const;

  bool operator==(const PlistDict&) const;
};

class PlistValue {
 public:
  enum class Kind { Null, Bool, Int, UInt, Real, String, Data, Array, Dict };

  PlistValue() = default;
  PlistValue(bool v) : v_(v) {}
  PlistValue(int v) : v_(int64_t{v}) {}
  PlistValue(long v) : v_(int64_t{v}) {}
  PlistValue(long long v) : v_(int64_t{v}) {}
  PlistValue(unsigned v) : v_(uint64_t{v}) {}
  PlistValue(unsigned long v) : v_(uint64_t{v}) {}
  PlistValue(unsigned long long v) : v_(uint64_t{v}) {}
  PlistValue(double v) : v_(v) {}
  PlistValue(const char* v) : v_(std::string(v)) {}
  PlistValue(std::string v) : v_(std::move(v)) {}
  PlistValue(std::string_view v) : v_(std::string(v)) {}
  PlistValue(PlistData v) : v_(std::move(v)) {}
  PlistValue(PlistArray v) : v_(std::move(v)) {}
  PlistValue(PlistDict v) : v_(std::move(v)) {}

  Kind kind() const { return static_cast<Kind>(v_.index()); }
  bool isNull() const { return kind() == Kind::Null; }
  bool isInteger() const { return kind() == Kind::Int || kind() == Kind::UInt; }
  bool isNumber() const { return isInteger() || kind() == Kind::Real || kind() == Kind::Bool; }
  bool isString() const { return kind() == Kind::String; }

  // Numeric readings convert between the number kinds; non-numbers give 0.
  uint64_t toU64() const;
  int64_t toI64() const;
  double toDouble() const;
  bool toBool() const;

  const std::string* string() const { return std::get_if<std::string>(&v_); }
  const PlistData* data() const { return std::get_if<PlistData>(&v_); }
  const PlistArray* array() const { return std::get_if<PlistArray>(&v_); }
  PlistArray* array() { return std::get_if<PlistArray>(&v_); }
  const PlistDict* dict() const { return std::get_if<PlistDict>(&v_); }
  PlistDict* dict() { return std::get_if<PlistDict>(&v_); }

  // The "%@" reading of a value: strings as they are, numbers in decimal,
  // a missing value as "(null)".
  std::string describe() const;
  // Compact JSON; data as a lowercase hex string.
  std::string toJson() const;

  bool operator==(const PlistValue& other) const { return v_ == other.v_; }

 private:
  std::variant<std::monostate, bool, int64_t, uint64_t, double, std::string, PlistData, PlistArray, PlistDict> v_;
};

inline size_t PlistArray::size() const { return items.size(); }
inline bool PlistArray::empty() const { return items.empty(); }
inline const PlistValue& PlistArray::operator[](size_t i) const { return items[i]; }
inline PlistValue& PlistArray::operator[](size_t i) { return items[i]; }
inline PlistArray::Items::const_iterator PlistArray::begin() const { return items.begin(); }
inline PlistArray::Items::const_iterator PlistArray::end() const { return items.end(); }
inline PlistArray::Items::iterator PlistArray::begin() { return items.begin(); }
inline PlistArray::Items::iterator PlistArray::end() { return items.end(); }
inline size_t PlistDict::size() const { return entries.size(); }
inline bool PlistDict::empty() const { return entries.empty(); }
inline PlistDict::Entries::const_iterator PlistDict::begin() const { return entries.begin(); }
inline PlistDict::Entries::const_iterator PlistDict::end() const { return entries.end(); }

// JSON string literal (with quotes) of UTF-8 text.
std::string jsonQuote(std::string_view text);

}  // namespace ambrel
