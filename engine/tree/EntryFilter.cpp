#include "tree/EntryFilter.h"

#include <fnmatch.h>

#include <cctype>
#include <cmath>
#include <unordered_map>

#include "tree/CheckController.h"
#include "tree/Links.h"

namespace ambrel {

namespace {

std::string lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

std::string trimmed(const std::string& s) {
  size_t b = 0, e = s.size();
  while (b < e && std::isspace(static_cast<unsigned char>(s[b]))) ++b;
  while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1]))) --e;
  return s.substr(b, e - b);
}

}  // namespace

bool EntryFilter::passes(const HDIR& file) const {
  if (minSize && file.fileSize < *minSize) return false;
  if (maxSize && file.fileSize > *maxSize) return false;
  const std::string_view name = file.fileName();
  if (!names.empty()) {
    const int flags = matchCase ? 0 : FNM_CASEFOLD;
    const std::string terminated(name);  // fnmatch wants a C string
    bool any = false;
    for (const auto& p : names)
      if (::fnmatch(p.c_str(), terminated.c_str(), flags) == 0) {
        any = true;
        break;
      }
    if (!any) return false;
  }
  if (!extensions.empty()) {
    const size_t dot = name.rfind('.');
    // ".profile" has no extension; neither has "name.".
    if (dot == std::string::npos || dot == 0 || dot + 1 == name.size()) return false;
    const std::string ext = lower(std::string(name.substr(dot + 1)));
    bool any = false;
    for (const auto& x : extensions) any = any || x == ext;
    if (!any) return false;
  }
  return true;
}

std::optional<uint64_t> parseSizeText(const std::string& text) {
  std::string t = lower(trimmed(text));
  uint64_t unit = 1;
  struct Suffix {
    const char* text;
    uint64_t unit;
  };
  static const Suffix kSuffixes[] = {{"tb", 1000000000000ull}, {"gb", 1000000000ull}, {"mb", 1000000ull},
                                     {"kb", 1000ull},          {"b", 1ull}};
  for (const auto& s : kSuffixes) {
    const size_t n = std::char_traits<char>::length(s.text);
    if (t.size() > n && t.compare(t.size() - n, n, s.text) == 0) {
      t.resize(t.size() - n);
      unit = s.unit;
      break;
    }
  }
  t = trimmed(t);
  if (t.empty()) return std::nullopt;
  size_t dots = 0;
  for (char c : t) {
    if (c == '.') ++dots;
    else if (!std::isdigit(static_cast<unsigned char>(c))) return std::nullopt;
  }
  if (dots > 1 || t == ".") return std::nullopt;
  if (dots == 0) {
    // Whole numbers exactly, without the rounding of a double.
    if (t.size() > 19) return std::nullopt;
    const uint64_t n = std::stoull(t);
    if (n > UINT64_MAX / unit) return std::nullopt;
    return n * unit;
  }
  // Fractions only for sizes a signed rounding can hold (8 EB and more are no file's size).
  const long double v = std::stold(t) * static_cast<long double>(unit);
  if (!(v < 9.0e18L)) return std::nullopt;
  return static_cast<uint64_t>(std::llroundl(v));
}

std::vector<std::string> parseExtensionList(const std::string& text) {
  std::vector<std::string> out;
  for (size_t from = 0; from <= text.size();) {
    const size_t comma = text.find(',', from);
    std::string x = lower(trimmed(text.substr(from, comma == std::string::npos ? std::string::npos : comma - from)));
    if (!x.empty() && x[0] == '.') x.erase(0, 1);
    if (!x.empty()) out.push_back(std::move(x));
    if (comma == std::string::npos) break;
    from = comma + 1;
  }
  return out;
}

FilteredTree::FilteredTree(const HDIR& root, EntryFilter filter) : filter_(std::move(filter)), root_(&root) {
  if (!filter_.active()) return;
  // First every passing file and every folder link (by the folder it shows),
  // then keep each passing file's holders, and the holders of every link to
  // a kept folder, each entry once: links that loop end there.
  std::unordered_map<const HDIR*, std::vector<const HDIR*>> linksTo;
  std::vector<const HDIR*> work;
  std::vector<const HDIR*> stack{&root};
  while (!stack.empty()) {
    const HDIR* e = stack.back();
    stack.pop_back();
    if (e->isFolder()) {
      if (const HDIR* target = linkedFolder(*e)) linksTo[target].push_back(e);
    } else if (e->fileType == kHDIRFile && filter_.passes(*e)) {
      work.push_back(e);
    }
    for (const auto& c : e->children()) stack.push_back(c.get());
  }
  while (!work.empty()) {
    const HDIR* e = work.back();
    work.pop_back();
    for (; e && kept_.insert(e).second; e = e->holder()) {
      auto it = linksTo.find(e);
      if (it != linksTo.end()) work.insert(work.end(), it->second.begin(), it->second.end());
    }
  }
}

bool FilteredTree::keeps(const HDIR& entry) const {
  if (!filter_.active() || &entry == root_) return true;
  return kept_.count(&entry) != 0;
}

void unmarkFilteredOut(HDIR& root, const FilteredTree& filtered) {
  if (!filtered.filter().active()) return;
  std::vector<HDIR*> out;
  forEachWithPath(root, [&](HDIR& e, const std::string&) {
    if (filtered.keeps(e)) return true;
    if (e.selected() == 1 || e.childrenSelected() > 0) out.push_back(&e);
    return false;
  });
  for (HDIR* e : out) CheckController(e, false).run();
}

}  // namespace ambrel
