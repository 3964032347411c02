// The flat registry of files met: versions found by ID in the order added,
// whatever the IDs (sequential, crowded on one slot, or spread).
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "hfs/FileVersions.h"

using namespace ambrel;

namespace {

std::vector<Extent> extentsOf(uint32_t id, uint32_t version) {
  std::vector<Extent> out;
  for (uint32_t i = 0; i < (id + version) % 4; ++i) out.push_back({id * 16 + i, version + 1});
  return out;
}

// Every ID of `ids` with (id % 3) + 1 versions; then each must be found with
// exactly its versions, in order, and an ID never added with none.
// Asked before each add as a scan does, each ID must be met exactly when it
// was added before.
void checkRegistry(const std::vector<uint32_t>& ids) {
  FileVersions met;
  std::map<uint32_t, uint32_t> versions;
  for (uint32_t round = 0; round < 3; ++round)
    for (uint32_t id : ids)
      if (round <= id % 3) {
        EXPECT_EQ(met.anyOf(id, [](auto, auto) { return true; }), versions.count(id) > 0) << id;
        met.add(id, extentsOf(id, round), extentsOf(id + 1, round));
        ++versions[id];
      }
  for (const auto& [id, count] : versions) {
    uint32_t seen = 0;
    met.anyOf(id, [&](FileVersions::Extents data, FileVersions::Extents rsrc) {
      const auto d = extentsOf(id, seen), r = extentsOf(id + 1, seen);
      EXPECT_TRUE(std::equal(data.begin(), data.end(), d.begin(), d.end())) << id << " version " << seen;
      EXPECT_TRUE(std::equal(rsrc.begin(), rsrc.end(), r.begin(), r.end())) << id << " version " << seen;
      ++seen;
      return false;
    });
    EXPECT_EQ(seen, count) << id;
  }
  EXPECT_FALSE(met.anyOf(0xFFFFFFF0u, [](auto, auto) { return true; }));
  size_t all = 0;
  met.forEach([&](uint32_t, FileVersions::Extents, FileVersions::Extents) { ++all; });
  size_t expected = 0;
  for (const auto& [id, count] : versions) expected += count;
  EXPECT_EQ(all, expected);
}

}  // namespace

TEST(FileVersions, VersionsAreFoundByIdInTheOrderAddedWhateverTheIds) {
  std::vector<uint32_t> sequential, crowded, spread;
  for (uint32_t i = 0; i < 20000; ++i) sequential.push_back(16 + i);
  // All on the same slot of any table up to 2^20 slots: forces the switch to scattered positions.
  for (uint32_t i = 1; i <= 3000; ++i) crowded.push_back(i << 20);
  std::mt19937 rng(5);
  for (uint32_t i = 0; i < 20000; ++i) spread.push_back(static_cast<uint32_t>(rng() % 0xFFFFFF00u));
  std::sort(spread.begin(), spread.end());
  spread.erase(std::unique(spread.begin(), spread.end()), spread.end());
  // IDs past the bit table's reach beside ones within it.
  std::vector<uint32_t> high{5, 70, 0x4000000u, 0x4000001u, 0xFFFFFFFEu, 200};
  checkRegistry(sequential);
  checkRegistry(crowded);
  checkRegistry(spread);
  checkRegistry(high);
}
