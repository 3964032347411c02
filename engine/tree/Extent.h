#pragma once
#include <cstdint>

namespace ambrel {

// One run of allocation blocks of a fork.
struct Extent {
  uint32_t startBlock = 0;
  uint32_t blockCount = 0;

  bool operator==(const Extent&) const = default;
};

}  // namespace ambrel
