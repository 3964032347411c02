#include "carving/SignatureTable.h"

#include <charconv>
#include <fmt/format.h>

#include "carving/Sig.h"
#include "carving/Validator.h"

namespace ambrel {

namespace {

std::string trim(const std::string& s) {
  const size_t a = s.find_first_not_of(" \t\r");
  if (a == std::string::npos) return {};
  const size_t b = s.find_last_not_of(" \t\r");
  return s.substr(a, b - a + 1);
}

std::vector<std::string> split(const std::string& line, char sep) {
  std::vector<std::string> out;
  size_t from = 0;
  for (;;) {
    const size_t at = line.find(sep, from);
    out.push_back(trim(line.substr(from, at == std::string::npos ? std::string::npos : at - from)));
    if (at == std::string::npos) return out;
    from = at + 1;
  }
}

template <class T>
bool number(const std::string& text, T& out) {
  const auto r = std::from_chars(text.data(), text.data() + text.size(), out);
  return r.ec == std::errc() && r.ptr == text.data() + text.size() && !text.empty();
}

}  // namespace

SignatureTableResult parseSignatureTable(const std::string& text) {
  SignatureTableResult result;
  size_t lineNo = 0;
  size_t from = 0;
  while (from <= text.size()) {
    const size_t nl = text.find('\n', from);
    const std::string line = trim(text.substr(from, nl == std::string::npos ? std::string::npos : nl - from));
    from = nl == std::string::npos ? text.size() + 1 : nl + 1;
    ++lineNo;
    if (line.empty() || line[0] == '#') continue;
    auto fail = [&](const std::string& what) { result.errors.push_back(fmt::format("line {}: {}", lineNo, what)); };
    const auto cols = split(line, '|');
    if (cols.size() != 8) {
      fail(fmt::format("{} columns, 8 expected", cols.size()));
      continue;
    }
    const std::string &category = cols[0], &name = cols[1], &extension = cols[2], &hex = cols[3];
    uint32_t offset = 0, code = 0, defaultSize = 0, skipSize = 0;
    if (category.empty() || name.empty() || extension.empty()) fail("category, name and extension must not be empty");
    else if (extension[0] == '.') fail("the extension starts with a dot");
    else if (hex.empty() || hex.size() % 2 != 0 || hex.size() > 16 || !stringIsHex(hex))
      fail("the signature must be 1 to 8 bytes of hex");
    else if (!number(cols[4], offset) || offset > 1024) fail("the offset must be a number from 0 to 1024");
    else if (!number(cols[5], code) || code > kHighestValidatorCode) fail("unknown file-type code");
    else if (!number(cols[6], defaultSize) || !number(cols[7], skipSize)) fail("sizes must be numbers");
    else {
      SigNodeArchive* cat = nullptr;
      for (auto& c : result.categories)
        if (c.category == category) cat = &c;
      if (!cat) {
        SigNodeArchive c;
        c.fileType = kSigCategoryNode;
        c.category = category;
        c.children.emplace();
        result.categories.push_back(std::move(c));
        cat = &result.categories.back();
      }
      SigArchive s;
      s.preInstalled = true;
      s.categoryID = static_cast<uint8_t>(&*cat - result.categories.data() + 1);
      s.category = category;
      s.typeOfFile = code;
      s.software = name;
      s.extension = extension;
      s.offset = static_cast<uint16_t>(offset);
      s.headerLength = static_cast<uint8_t>(hex.size() / 2);
      s.header = getHeaderFromString(hex);
      s.defaultSize = defaultSize;
      s.skipSize = skipSize;
      s.skipFileSize = skipSize != 0;
      SigNodeArchive node;
      node.fileType = kSigFileTypeNode;
      node.category = category;
      node.sig = s;
      cat->children->push_back(std::move(node));
    }
  }
  return result;
}

}  // namespace ambrel
