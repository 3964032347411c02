// LZFSE streams of any bytes: block headers, frequency tables and the FSE
// streams themselves are distrusted; every decode ends within its cap.
#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

#include "compress/Lzfse.h"

using namespace ambrel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const size_t cap = 1 << 20;
  std::vector<uint8_t> out;
  (void)lzfseDecode(std::span<const uint8_t>(data, size), out, cap);
  if (out.size() > cap) std::abort();
  return 0;
}
