// Nodes read in runs bring the same bytes as nodes read one by one, in any
// order the walk asks for them, and a bad sector still costs only its node.
#include "hfs/NodeReadAhead.h"

#include <gtest/gtest.h>

#include <vector>

#include "support/TempDir.h"

using namespace ambrel;

namespace {

constexpr int32_t kNodeSectors = 8;
constexpr uint32_t kNodes = 100;

struct ReadAheadFixture : ::testing::Test {
  test::TempDir dir;
  std::string path = (dir / "nodes.img").string();
  std::vector<uint8_t> bytes;

  void SetUp() override {
    bytes.resize(size_t{kNodes} * kNodeSectors * 512);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i / 512 * 7 + i % 13);
    test::writeFile(path, bytes);
  }
  PlistDict drive() const { return PlistDict{{"device path", path}, {"device size", uint64_t{bytes.size()}}}; }
  bool sameAsFile(uint32_t node, const std::vector<uint8_t>& got) const {
    return std::equal(got.begin(), got.end(), bytes.begin() + size_t{node} * kNodeSectors * 512);
  }
};

// Nodes 0-49 lie in order; 50-99 are placed backwards (node n at the place
// of node 149 - n), so runs must stop where the nodes stop following each other.
int64_t sectorOf(uint32_t n) {
  if (n >= kNodes) return -1;
  const uint32_t place = n < 50 ? n : 149 - n;
  return int64_t{place} * kNodeSectors;
}

TEST_F(ReadAheadFixture, RunsBringTheSameBytesInAnyOrder) {
  DMedia media(drive(), nullptr);
  ASSERT_TRUE(media.isOpen());
  NodeReadAhead reader(media, kNodeSectors, 16);
  std::vector<uint8_t> node(kNodeSectors * 512);
  std::vector<uint32_t> order;
  for (uint32_t n = 0; n < kNodes; ++n) order.push_back(n);  // forwards
  for (uint32_t n = kNodes; n-- > 0;) order.push_back(n);    // backwards
  for (uint32_t n : {3u, 40u, 4u, 41u, 99u, 50u, 17u, 17u}) order.push_back(n);  // jumps and repeats
  for (uint32_t n : order) {
    ASSERT_TRUE(reader.read(n, uint64_t(sectorOf(n)), node.data(), sectorOf)) << n;
    ASSERT_TRUE(sameAsFile(uint32_t(sectorOf(n) / kNodeSectors), node)) << n;
  }
  EXPECT_FALSE(media.readErrors.any());
}

TEST_F(ReadAheadFixture, ABadSectorCostsItsNodeOnly) {
  DMedia media(drive(), nullptr);
  auto faults = std::make_shared<SectorFaults>();
  faults->add(SectorFaults::Kind::IOError, 20 * kNodeSectors + 3);  // inside node 20
  media.setSectorFaults(faults);
  NodeReadAhead reader(media, kNodeSectors, 16);
  std::vector<uint8_t> node(kNodeSectors * 512);
  for (uint32_t n = 0; n < 50; ++n) {
    const bool read = reader.read(n, uint64_t(sectorOf(n)), node.data(), sectorOf);
    EXPECT_EQ(read, n != 20) << n;
    if (read) EXPECT_TRUE(sameAsFile(n, node)) << n;
  }
  EXPECT_EQ(media.readErrors.nodes(), 1u);
  ASSERT_EQ(media.readErrors.listed().size(), 1u);
  EXPECT_EQ(media.readErrors.listed()[0], 20u * kNodeSectors);
}

}  // namespace
