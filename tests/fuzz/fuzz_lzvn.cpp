// LZVN streams of any bytes: every decode ends, reads nothing past its input
// and writes nothing past its cap.
#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

#include "compress/Lzvn.h"

using namespace ambrel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const size_t cap = 1 << 20;
  std::vector<uint8_t> out;
  size_t consumed = 0;
  const DecodeStatus s = lzvnDecode(std::span<const uint8_t>(data, size), out, cap, &consumed);
  if (out.size() > cap) std::abort();
  if (s == DecodeStatus::Ok && (consumed == 0 || consumed > size)) std::abort();
  // A small cap over prior output: matches may reach back into it.
  std::vector<uint8_t> prior(64, 'p');
  (void)lzvnDecode(std::span<const uint8_t>(data, size), prior, 100);
  if (prior.size() > 100) std::abort();
  return 0;
}
