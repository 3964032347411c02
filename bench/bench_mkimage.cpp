// Image builder: a generated volume of N files over N/50 folders, written to
// a sparse image (the benchmarks' and tests' source of large volumes).
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>

#include "ImageBuilder.h"

using namespace ambrel::mkimage;

static std::filesystem::path benchImagePath() {
  const char* dir = std::getenv("AMBREL_BENCH_DIR");
  std::filesystem::path base = dir ? dir : std::filesystem::temp_directory_path();
  std::filesystem::create_directories(base);
  return base / "bench_mkimage.img";
}

static void BM_GenerateVolume(benchmark::State& state) {
  const auto files = static_cast<uint32_t>(state.range(0));
  DriveSpec d;
  d.table = TableKind::GPT;
  PartitionSpec p;
  VolumeSpec v;
  v.name = "Bench";
  v.blockSize = 512;
  v.nodeSize = 8192;
  v.generate = GenerateSpec{files, files / 50, 1, 0, 512, true};
  p.volume = v;
  d.partitions = {p};
  const auto path = benchImagePath();
  uint64_t bytes = 0;
  for (auto _ : state) {
    DriveLayout layout = buildImage(d, path);
    bytes = layout.sizeBytes;
    benchmark::DoNotOptimize(layout.partitions.size());
  }
  std::filesystem::remove(path);
  state.SetItemsProcessed(state.iterations() * files);
  state.counters["image_MB"] = static_cast<double>(bytes) / 1e6;
}
BENCHMARK(BM_GenerateVolume)->Arg(100000)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_GenerateVolume)->Arg(1000000)->Unit(benchmark::kSecond)->Iterations(1);

BENCHMARK_MAIN();
