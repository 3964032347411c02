// The recovered tree at 1,000,000 entries: building it with duplicate names,
// marking and unmarking all of it, and removing empty folders; one flat
// folder and a deep tree (a chain of 100 folders, 10,000 entries in each).
#include <benchmark/benchmark.h>

#include <fmt/format.h>

#include <algorithm>

#include "hfs/Volume.h"
#include "tree/CheckController.h"

using namespace ambrel;

namespace {

constexpr uint32_t kEntries = 1000000;

std::unique_ptr<Volume> makeVolume() {
  auto v = std::make_unique<Volume>(
      PlistDict{{"Path", "/nonexistent"}, {"Volume Name", "Bench"}, {"Volume Size In Sectors", uint64_t{1} << 30}},
      nullptr);
  auto root = std::make_unique<HDIR>();
  root->fileType = kHDIRFolder;
  root->fileID = kRootFolderID;
  root->setFileName("Root");
  root->setBtreeHDIR(v->btree.get());
  v->dirRoot = std::move(root);
  v->btree->insert(kRootFolderID, v->dirRoot.get());
  return v;
}

// Places an entry as the scans do: suggested name, parent, counts upward.
HDIR* place(Volume& v, HDIR* parent, uint16_t type, uint32_t id, const std::string& name, uint64_t size) {
  auto e = std::make_unique<HDIR>();
  e->fileType = type;
  e->fileID = id;
  e->fileSize = size;
  e->setFileName(v.suggestedRepeatFileName(name, parent));
  e->parent = parent;
  e->setBtreeHDIR(v.btree.get());
  for (HDIR* a = parent; a; a = a->parent) {
    a->addToChildrenCount(1);
    a->addToFileSize(size);
  }
  return parent->addChild(std::move(e));
}

// Every tenth entry an empty folder; names repeat ten times each.
void buildFlat(Volume& v) {
  HDIR* root = v.dirRoot.get();
  for (uint32_t i = 0; i < kEntries; ++i) {
    const bool folder = i % 10 == 0;
    place(v, root, folder ? kHDIRFolder : kHDIRFile, 16 + i, fmt::format("entry{}.dat", i / 10), folder ? 0 : 1);
  }
}

// A chain of 100 folders with 9,999 entries each beside the next link; the
// last 10 links hold only empty folders, so the clean-up cuts the chain.
void buildDeep(Volume& v) {
  HDIR* at = v.dirRoot.get();
  uint32_t id = 16;
  for (uint32_t level = 0; level < 100; ++level) {
    HDIR* next = place(v, at, kHDIRFolder, id++, "level", 0);
    const bool empty = level >= 90;
    for (uint32_t i = 0; i < 9999; ++i)
      place(v, next, empty ? kHDIRFolder : kHDIRFile, id++, fmt::format("item{}.txt", i / 3), empty ? 0 : 1);
    at = next;
  }
}

void BM_BuildFlat(benchmark::State& state) {
  for (auto _ : state) {
    auto v = makeVolume();
    buildFlat(*v);
    benchmark::DoNotOptimize(v->dirRoot->childrenCount());
    state.PauseTiming();
    v.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kEntries);
}

void BM_BuildDeep(benchmark::State& state) {
  for (auto _ : state) {
    auto v = makeVolume();
    buildDeep(*v);
    benchmark::DoNotOptimize(v->dirRoot->childrenCount());
    state.PauseTiming();
    v.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kEntries);
}

template <void (*Build)(Volume&)>
void BM_MarkUnmarkAll(benchmark::State& state) {
  auto v = makeVolume();
  Build(*v);
  HDIR* root = v->dirRoot.get();
  for (auto _ : state) {
    CheckController(root, true).run();
    CheckController(root, false).run();
    benchmark::DoNotOptimize(root->childrenSelected());
  }
  state.SetItemsProcessed(state.iterations() * kEntries * 2);
}

// Unmarking single deep entries one by one: each walks only its ancestors.
void BM_UnmarkEachDeepFile(benchmark::State& state) {
  auto v = makeVolume();
  buildDeep(*v);
  std::vector<HDIR*> deepest;
  HDIR* at = v->dirRoot.get();
  while (!at->children().empty() && at->childAtIndex(0)->isFolder() && at->childAtIndex(0)->fileName() == "level")
    at = at->childAtIndex(0);
  for (const auto& c : at->children()) deepest.push_back(c.get());
  for (auto _ : state) {
    CheckController(v->dirRoot.get(), true).run();
    for (HDIR* e : deepest) CheckController(e, false).run();
    benchmark::DoNotOptimize(v->dirRoot->selected());
  }
  state.SetItemsProcessed(state.iterations() * deepest.size());
}

template <void (*Build)(Volume&)>
void BM_RemoveEmptyFolders(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    auto v = makeVolume();
    Build(*v);
    state.ResumeTiming();
    v->processDuplicateEntries();
    benchmark::DoNotOptimize(v->dirRoot->childrenCount());
    state.PauseTiming();
    v.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kEntries);
}

// Orphans given children first: a pass can place only one more level, so
// about twenty passes over a tree twenty levels deep.
void BM_OrphanPasses(benchmark::State& state) {
  const uint32_t n = static_cast<uint32_t>(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    auto v = makeVolume();
    for (uint32_t i = 0; i < n; ++i) {
      auto e = std::make_unique<HDIR>();
      const bool folder = i % 2 == 0;
      e->fileType = folder ? kHDIRFolder : kHDIRFile;
      e->fileID = 16 + i;
      // Entry i hangs under folder i / 2 (rounded down to a folder).
      e->parentID = i < 2 ? kRootFolderID : 16 + ((i / 2) & ~1u);
      e->fileSize = folder ? 0 : 1;
      e->setFileName(fmt::format("o{}", i % 50));
      v->orphanEntryArray.push_back(std::move(e));
    }
    std::reverse(v->orphanEntryArray.begin(), v->orphanEntryArray.end());
    state.ResumeTiming();
    v->processOrphanEntriesWithIncrement(true, true);
    benchmark::DoNotOptimize(v->dirRoot->childrenCount());
    state.PauseTiming();
    v.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * n);
}

}  // namespace

BENCHMARK(BM_BuildFlat)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BuildDeep)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_MarkUnmarkAll, buildFlat)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_MarkUnmarkAll, buildDeep)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_UnmarkEachDeepFile)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_RemoveEmptyFolders, buildFlat)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BM_RemoveEmptyFolders, buildDeep)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OrphanPasses)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
