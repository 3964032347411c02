#pragma once
// Byte order helpers. The host is little-endian; HFS+, HFS and the Apple
// partition map are big-endian on disk, MBR and GPT little-endian.
#include <bit>
#include <cstdint>
#include <cstring>

static_assert(std::endian::native == std::endian::little, "the engine assumes a little-endian host");

namespace ambrel {

constexpr uint16_t bswap16(uint16_t v) { return static_cast<uint16_t>((v >> 8) | (v << 8)); }
constexpr uint32_t bswap32(uint32_t v) { return __builtin_bswap32(v); }
constexpr uint64_t bswap64(uint64_t v) { return __builtin_bswap64(v); }

// Unaligned loads and stores; records are packed, so fields may sit at odd offsets.
inline uint16_t loadBE16(const void* p) { uint16_t v; std::memcpy(&v, p, 2); return bswap16(v); }
inline uint32_t loadBE32(const void* p) { uint32_t v; std::memcpy(&v, p, 4); return bswap32(v); }
inline uint64_t loadBE64(const void* p) { uint64_t v; std::memcpy(&v, p, 8); return bswap64(v); }
inline uint16_t loadLE16(const void* p) { uint16_t v; std::memcpy(&v, p, 2); return v; }
inline uint32_t loadLE32(const void* p) { uint32_t v; std::memcpy(&v, p, 4); return v; }
inline uint64_t loadLE64(const void* p) { uint64_t v; std::memcpy(&v, p, 8); return v; }

inline void storeBE16(void* p, uint16_t v) { v = bswap16(v); std::memcpy(p, &v, 2); }
inline void storeBE32(void* p, uint32_t v) { v = bswap32(v); std::memcpy(p, &v, 4); }
inline void storeBE64(void* p, uint64_t v) { v = bswap64(v); std::memcpy(p, &v, 8); }
inline void storeLE16(void* p, uint16_t v) { std::memcpy(p, &v, 2); }
inline void storeLE32(void* p, uint32_t v) { std::memcpy(p, &v, 4); }
inline void storeLE64(void* p, uint64_t v) { std::memcpy(p, &v, 8); }

// The value with its bytes reversed; used as `field = byteSwapped(field)` so
// that it works on fields of packed records.
template <class T>
constexpr T byteSwapped(T v) {
  static_assert(sizeof(T) == 1 || sizeof(T) == 2 || sizeof(T) == 4 || sizeof(T) == 8);
  if constexpr (sizeof(T) == 1) return v;
  else if constexpr (sizeof(T) == 2) return static_cast<T>(bswap16(static_cast<uint16_t>(v)));
  else if constexpr (sizeof(T) == 4) return static_cast<T>(bswap32(static_cast<uint32_t>(v)));
  else return static_cast<T>(bswap64(static_cast<uint64_t>(v)));
}

}  // namespace ambrel
