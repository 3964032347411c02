// Keyed tables: inserts and look-ups of 1,000,000 random catalog node IDs.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "tree/KeyedTable.h"

using namespace ambrel;

static std::vector<uint32_t> randomKeys(size_t n) {
  std::mt19937 rng(42);
  std::vector<uint32_t> keys(n);
  for (auto& k : keys) k = rng();
  return keys;
}

static void BM_Insert(benchmark::State& state) {
  const auto keys = randomKeys(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    BTreeTableClass table;
    for (uint32_t k : keys) table.insert(k, nullptr);
    benchmark::DoNotOptimize(table.numNodes());
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Insert)->Arg(1000000)->Unit(benchmark::kMillisecond);

static void BM_Retrieve(benchmark::State& state) {
  const auto keys = randomKeys(static_cast<size_t>(state.range(0)));
  BTreeTableClass table;
  for (uint32_t k : keys) table.insert(k, nullptr);
  for (auto _ : state) {
    size_t found = 0;
    for (uint32_t k : keys) found += table.retrieveKeyField(k) != nullptr;
    benchmark::DoNotOptimize(found);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Retrieve)->Arg(1000000)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
