#include "base/PlistValue.h"

#include <fmt/format.h>

#include "base/Text.h"

namespace ambrel {

PlistArray::PlistArray() = default;
PlistArray::PlistArray(std::initializer_list<PlistValue> init) : items(init) {}
void PlistArray::push_back(PlistValue v) { items.push_back(std::move(v)); }
bool PlistArray::operator==(const PlistArray& o) const { return items == o.items; }

PlistDict::PlistDict() = default;
PlistDict::PlistDict(std::initializer_list<std::pair<std::string, PlistValue>> init) {
  for (const auto& [k, v] : init) set(k, v);
}

const PlistValue* PlistDict::find(std::string_view key) const {
  for (const auto& e : entries)
    if (e.first == key) return &e.second;
  return nullptr;
}

PlistValue* PlistDict::find(std::string_view key) {
  for (auto& e : entries)
    if (e.first == key) return &e.second;
  return nullptr;
}

void PlistDict::set(std::string key, PlistValue value) {
  if (PlistValue* existing = find(key)) {
    *existing = std::move(value);
    return;
  }
  entries.emplace_back(std::move(key), std::move(value));
}

bool PlistDict::erase(std::string_view key) {
  for (auto it = entries.begin(); it != entries.end(); ++it) {
    if (it->first == key) {
      entries.erase(it);
      return true;
    }
  }
  return false;
}

std::string PlistDict::string(std::string_view key, std::string fallback) const {
  const PlistValue* v = find(key);
  if (!v || !v->string()) return fallback;
  return *v->string();
}

uint64_t PlistDict::u64(std::string_view key, uint64_t fallback) const {
  const PlistValue* v = find(key);
  return v && v->isNumber() ? v->toU64() : fallback;
}

int64_t PlistDict::i64(std::string_view key, int64_t fallback) const {
  const PlistValue* v = find(key);
  return v && v->isNumber() ? v->toI64() : fallback;
}

bool PlistDict::boolean(std::string_view key, bool fallback) const {
  const PlistValue* v = find(key);
  return v && v->isNumber() ? v->toBool() : fallback;
}

// Order matters for archives only through insertion; equality ignores it.
bool PlistDict::operator==(const PlistDict& o) const {
  if (entries.size() != o.entries.size()) return false;
  for (const auto& [k, v] : entries) {
    const PlistValue* other = o.find(k);
    if (!other || !(*other == v)) return false;
  }
  return true;
}

uint64_t PlistValue::toU64() const {
  switch (kind()) {
    case Kind::Bool: return std::get<bool>(v_) ? 1 : 0;
    case Kind::Int: return static_cast<uint64_t>(std::get<int64_t>(v_));
    case Kind::UInt: return std::get<uint64_t>(v_);
    case Kind::Real: {
      double d = std::get<double>(v_);
      return d <= 0 ? 0 : d >= 18446744073709551615.0 ? UINT64_MAX : static_cast<uint64_t>(d);
    }
    default: return 0;
  }
}

int64_t PlistValue::toI64() const {
  switch (kind()) {
    case Kind::Real: {
      double d = std::get<double>(v_);
      return d <= -9.2e18 ? INT64_MIN : d >= 9.2e18 ? INT64_MAX : static_cast<int64_t>(d);
    }
    default: return static_cast<int64_t>(toU64());
  }
}

double PlistValue::toDouble() const {
  switch (kind()) {
    case Kind::Int: return static_cast<double>(std::get<int64_t>(v_));
    case Kind::UInt: return static_cast<double>(std::get<uint64_t>(v_));
    case Kind::Real: return std::get<double>(v_);
    case Kind::Bool: return std::get<bool>(v_) ? 1 : 0;
    default: return 0;
  }
}

bool PlistValue::toBool() const { return kind() == Kind::Real ? toDouble() != 0 : toU64() != 0; }

static std::string hex(const PlistData& d) {
  std::string out;
  out.reserve(d.size() * 2);
  for (uint8_t b : d) out += fmt::format("{:02x}", b);
  return out;
}

std::string PlistValue::describe() const {
  switch (kind()) {
    case Kind::Null: return "(null)";
    case Kind::Bool: return std::get<bool>(v_) ? "1" : "0";
    case Kind::Int: return fmt::format("{}", std::get<int64_t>(v_));
    case Kind::UInt: return fmt::format("{}", std::get<uint64_t>(v_));
    case Kind::Real: return fmt::format("{}", std::get<double>(v_));
    case Kind::String: return std::get<std::string>(v_);
    case Kind::Data: return "<" + hex(std::get<PlistData>(v_)) + ">";
    case Kind::Array:
    case Kind::Dict: return toJson();
  }
  return {};
}

std::string jsonQuote(std::string_view text) {
  // JSON is UTF-8: bytes that are not (a raw name from disk, a file name)
  // become U+FFFD rather than making the whole document unreadable.
  const std::string valid = validUtf8(text);
  std::string out = "\"";
  for (unsigned char c : valid) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20 || c == 0x7F) out += fmt::format("\\u{:04x}", c);
        else out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

std::string PlistValue::toJson() const {
  switch (kind()) {
    case Kind::Null: return "null";
    case Kind::Bool: return std::get<bool>(v_) ? "true" : "false";
    case Kind::Int:
    case Kind::UInt:
    case Kind::Real: return describe();
    case Kind::String: return jsonQuote(std::get<std::string>(v_));
    case Kind::Data: return jsonQuote(hex(std::get<PlistData>(v_)));
    case Kind::Array: {
      std::string out = "[";
      bool first = true;
      for (const auto& v : std::get<PlistArray>(v_)) {
        if (!first) out += ",";
        first = false;
        out += v.toJson();
      }
      return out + "]";
    }
    case Kind::Dict: {
      std::string out = "{";
      bool first = true;
      for (const auto& [k, v] : std::get<PlistDict>(v_)) {
        if (!first) out += ",";
        first = false;
        out += jsonQuote(k) + ":" + v.toJson();
      }
      return out + "}";
    }
  }
  return {};
}

}  // namespace ambrel
