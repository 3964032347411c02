// Keyed-archive decoding of arbitrary bytes: the structural check, libplist's
// parse behind it, and every reader built on top.
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "scaninfo/ArchivedClasses.h"
#include "scaninfo/HDIRArchive.h"
#include "scaninfo/KeyedArchive.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::span<const uint8_t> bytes(data, size);
  std::string error;
  ambrel::KeyedUnarchiver u;
  if (!u.load(bytes)) return 0;
  ambrel::ArchivedObject root = u.root();
  (void)root.value(&error);
  (void)root.className();
  (void)root.arrayItems();
  (void)ambrel::VolumeArchive::decode(root, error);
  (void)ambrel::DMediaArchive::decode(root, error);
  (void)ambrel::unarchiveSignatureDatabase(bytes, error);
  (void)ambrel::unarchiveHDIR(bytes, error);
  return 0;
}
