#pragma once
// Where benchmarks keep their (large) images between runs: $AMBREL_BENCH_DIR.
#include <cstdlib>
#include <filesystem>

namespace ambrel::bench {

inline std::filesystem::path benchDir() {
  const char* dir = std::getenv("AMBREL_BENCH_DIR");
  std::filesystem::path p = dir ? dir : std::filesystem::temp_directory_path() / "ambrel-bench";
  std::filesystem::create_directories(p);
  // Absolute: some benchmarks run their peers from another folder.
  return std::filesystem::absolute(p);
}

}  // namespace ambrel::bench
