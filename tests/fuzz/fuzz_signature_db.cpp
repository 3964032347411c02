// The signature database reader over arbitrary bytes, and a search's groups
// built from whatever it read: a missing class, a category without
// children, header lengths of 0 or 9, nesting, all give a tree or nothing.
#include <cstdint>

#include "carving/SignatureDatabase.h"
#include "carving/SignatureTable.h"

using namespace ambrel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string error;
  if (auto root = unarchiveSigRoot(std::span<const uint8_t>(data, size), error)) {
    int32_t types = 0;
    for (const auto& c : *root) {
      types += c->childrenCount();
      (void)c->childrenSelected();
      CheckControllerSig(c.get(), 1).run();
      CheckControllerSig(c.get(), 0).run();
    }
    // What was read writes back and reads again the same.
    const auto again = archiveSigRoot(*root);
    auto back = unarchiveSigRoot(again, error);
    if (!back || back->size() != root->size()) __builtin_trap();
    (void)types;
  }
  // The table reader on the same bytes as text.
  const auto table = parseSignatureTable(std::string(reinterpret_cast<const char*>(data), size));
  for (const auto& c : table.categories)
    if (!c.children || c.children->empty()) __builtin_trap();
  return 0;
}
