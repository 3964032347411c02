#include "carving/Sig.h"

namespace ambrel {

namespace {

// Text read from a database file as valid UTF-8: a byte that begins no
// well-formed sequence becomes U+FFFD, so that what was read can always be
// written back and read again.
std::string validUtf8(const std::string& in) {
  std::string out;
  out.reserve(in.size());
  for (size_t i = 0; i < in.size();) {
    const auto b = static_cast<uint8_t>(in[i]);
    size_t n = b < 0x80 ? 1 : (b >> 5) == 0x6 ? 2 : (b >> 4) == 0xE ? 3 : (b >> 3) == 0x1E ? 4 : 0;
    bool ok = n > 0 && i + n <= in.size();
    uint32_t cp = n == 1 ? b : n == 2 ? (b & 0x1F) : n == 3 ? (b & 0x0F) : (b & 0x07);
    for (size_t k = 1; ok && k < n; ++k) {
      const auto c = static_cast<uint8_t>(in[i + k]);
      ok = (c & 0xC0) == 0x80;
      cp = (cp << 6) | (c & 0x3F);
    }
    // Overlong forms, surrogates and values past U+10FFFF are not text either.
    if (ok && ((n == 2 && cp < 0x80) || (n == 3 && cp < 0x800) || (n == 4 && cp < 0x10000) ||
               (cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF || cp == 0))
      ok = false;
    if (ok) {
      out.append(in, i, n);
      i += n;
    } else {
      out += "\xEF\xBF\xBD";
      ++i;
    }
  }
  return out;
}

}  // namespace

void Sig::addToExtraExts(const Sig* sig) {
  if (sig) extraExts_.push_back(sig->mutableCopy());
}

std::unique_ptr<Sig> Sig::mutableCopy() const {
  auto s = std::make_unique<Sig>();
  s->preInstalled = preInstalled;
  s->categoryID = categoryID;
  s->category = category;
  s->typeOfFile = typeOfFile;
  s->software = software;
  s->extension = extension;
  s->offset = offset;
  s->headerLength = headerLength;
  s->header = header;
  s->defaultSize = defaultSize;
  s->userSize = userSize;
  s->foundSize = foundSize;
  s->skipSize = skipSize;
  s->skipFileSize = skipFileSize;
  return s;
}

SigArchive Sig::toArchive() const {
  SigArchive a;
  a.preInstalled = preInstalled;
  a.skipFileSize = skipFileSize;
  a.categoryID = categoryID;
  a.category = category;
  a.typeOfFile = typeOfFile;
  a.software = software;
  a.extension = extension;
  a.offset = offset;
  a.headerLength = headerLength;
  a.header = header;
  a.defaultSize = defaultSize;
  a.userSize = userSize;
  a.foundSize = foundSize;
  a.skipSize = skipSize;
  return a;
}

std::unique_ptr<Sig> Sig::fromArchive(const SigArchive& a) {
  auto s = std::make_unique<Sig>();
  s->preInstalled = a.preInstalled;
  s->skipFileSize = a.skipFileSize;
  s->categoryID = a.categoryID;
  s->category = validUtf8(a.category);
  s->typeOfFile = a.typeOfFile;
  s->software = validUtf8(a.software);
  s->extension = validUtf8(a.extension);
  s->offset = a.offset;
  s->headerLength = a.headerLength;
  s->header = a.header;
  s->defaultSize = a.defaultSize;
  s->userSize = a.userSize;
  s->foundSize = a.foundSize;
  s->skipSize = a.skipSize;
  return s;
}

SigNode* SigNode::addChild(std::unique_ptr<SigNode> child) {
  hasChildArray_ = true;
  children_.push_back(std::move(child));
  return children_.back().get();
}

std::unique_ptr<SigNode> SigNode::removeChildAtIndex(size_t index) {
  if (index >= children_.size()) return nullptr;
  auto out = std::move(children_[index]);
  children_.erase(children_.begin() + static_cast<std::ptrdiff_t>(index));
  return out;
}

int32_t SigNode::childrenCount() const {
  int32_t n = 0;
  // Iterative: a malformed database may nest deeper than two levels.
  std::vector<const SigNode*> stack{this};
  while (!stack.empty()) {
    const SigNode* node = stack.back();
    stack.pop_back();
    for (const auto& c : node->children_) {
      ++n;
      stack.push_back(c.get());
    }
  }
  return n;
}

int32_t SigNode::childrenSelected() const {
  int32_t n = 0;
  for (const auto& c : children_)
    if (c->selected == 1) ++n;
  return n;
}

std::unique_ptr<SigNode> SigNode::mutableCopy() const {
  auto n = std::make_unique<SigNode>();
  n->fileType = fileType;
  n->selected = selected;
  n->category = category;
  if (sig) n->sig = std::shared_ptr<Sig>(sig->mutableCopy());
  n->parent = parent;
  n->hasChildArray_ = hasChildArray_;
  for (const auto& c : children_) {
    auto copy = c->mutableCopy();
    copy->parent = n.get();
    n->children_.push_back(std::move(copy));
  }
  return n;
}

SigNodeArchive SigNode::toArchive() const {
  SigNodeArchive a;
  a.fileType = fileType;
  a.selected = selected;
  a.category = category;
  if (hasChildArray_ || !children_.empty()) {
    a.children.emplace();
    for (const auto& c : children_) a.children->push_back(c->toArchive());
  }
  if (sig) a.sig = sig->toArchive();
  return a;
}

std::unique_ptr<SigNode> SigNode::fromArchive(const SigNodeArchive& a) {
  auto n = std::make_unique<SigNode>();
  n->fileType = a.fileType;
  n->selected = a.selected;
  n->category = validUtf8(a.category);
  if (a.sig) n->sig = std::shared_ptr<Sig>(Sig::fromArchive(*a.sig));
  if (a.children) {
    n->hasChildArray_ = true;
    for (const auto& c : *a.children) {
      auto child = fromArchive(c);
      child->parent = n.get();
      n->children_.push_back(std::move(child));
    }
  }
  return n;
}

void CheckControllerSig::markAllChildrenSigArray(const SigNode::ChildArray& array, uint8_t value) {
  for (const auto& c : array) {
    c->selected = value;
    markAllChildrenSigArray(c->children(), value);
  }
}

void CheckControllerSig::setSelected() {
  if (!sigNode_) return;
  if (flag_ == 1) {
    sigNode_->selected = 1;
    for (SigNode* p = sigNode_->parent; p; p = p->parent) p->selected = 1;
    if (!sigNode_->children().empty()) markAllChildrenSigArray(sigNode_->children(), 1);
  } else {
    sigNode_->selected = 0;
    markAllChildrenSigArray(sigNode_->children(), 0);
    for (SigNode* p = sigNode_->parent; p; p = p->parent)
      if (p->childrenSelected() == 0) p->selected = 0;
  }
}

namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return 0;
}

}  // namespace

uint64_t getHeaderFromString(const std::string& text) {
  const size_t n = text.size() / 2;
  uint64_t value = 0;
  for (size_t k = 0; k < n; ++k) {
    const uint64_t byte = static_cast<uint64_t>(hexValue(text[2 * k]) * 16 + hexValue(text[2 * k + 1]));
    const size_t shift = (n - 1 - k) * 8;
    // More than eight pairs shift bytes out of the 64-bit value, as a
    // 64-bit shift of that width would; only the add dialog's length check
    // keeps such text away.
    if (shift < 64) value += byte << shift;
  }
  return value;
}

bool stringIsHex(const std::string& text) {
  for (char c : text)
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'))) return false;
  return true;
}

bool stringIsNumeric(const std::string& text) {
  for (char c : text)
    if (c < '0' || c > '9') return false;
  return true;
}

}  // namespace ambrel
