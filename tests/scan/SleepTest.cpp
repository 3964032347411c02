// A scan keeps the machine awake from its first report to its last, whatever
// path it takes, and every scan of a volume does so again.
#include <gtest/gtest.h>

#include "ImageBuilder.h"
#include "scan/ContentCheck.h"
#include "scan/ScanHelpers.h"

using namespace ambrel;
using namespace ambrel::test;
namespace mk = ambrel::mkimage;

namespace {

// Sleep is requested once before the scan's first report and given back
// once after its last, with nothing given back in between.
void expectHeldThroughout(const ScanController& c, size_t reportsBefore, size_t requestsBefore) {
  ASSERT_EQ(c.sleepRequests.size(), requestsBefore + 2);
  const auto& on = c.sleepRequests[requestsBefore];
  const auto& off = c.sleepRequests[requestsBefore + 1];
  EXPECT_TRUE(on.on);
  EXPECT_EQ(on.afterReports, reportsBefore);
  EXPECT_FALSE(off.on);
  EXPECT_EQ(off.afterReports, c.progressReports.size());
  EXPECT_GT(c.progressReports.size(), reportsBefore);
}

}  // namespace

TEST(ScanSleep, HeldFromTheFirstReportToTheLastOfEveryScan) {
  mk::VolumeSpec v;
  v.nodeSize = 4096;
  v.journal = true;
  v.generate = mk::GenerateSpec{600, 30, 2, 1, 3000, false};
  v.damage.leafChain = mk::LeafChainDamage{mk::LeafChainDamage::Mode::Zero, -1};
  v.damage.oldNodeCopies = 2;
  auto b = buildVolume(v);

  for (const char* mode : {"Normal Scan", "Advanced Scan"}) {
    SCOPED_TRACE(mode);
    ScanController c;
    c.drives.push_back(PlistDict{{"device path", b->image}});
    Volume volume(volumeDict(b->image, 0, b->layout.sizeSectors), &c);
    volume.startMakingTree(&c, mode);
    expectHeldThroughout(c, 0, 0);
    // A second scan of the same volume holds it again.
    const size_t reports = c.progressReports.size();
    volume.startMakingTree(&c, mode);
    expectHeldThroughout(c, reports, 2);
  }
}

TEST(ScanSleep, HeldWhenNoHeaderIsLeftAndWhenTheScanGivesUp) {
  mk::VolumeSpec v;
  v.generate = mk::GenerateSpec{200, 10, 3, 1, 3000, false};
  v.damage.primaryHeader = mk::VolumeDamage::Header::Zeroed;
  v.damage.alternateHeader = mk::VolumeDamage::Header::Zeroed;
  auto b = buildVolume(v);

  ScanResult advanced = scan(b->image, 0, b->layout.sizeSectors, "Advanced Scan");
  expectHeldThroughout(*advanced.controller, 0, 0);

  ScanResult normal = scan(b->image, 0, b->layout.sizeSectors, "Normal Scan");
  ASSERT_EQ(normal.controller->gaveUp, 1);
  const auto& c = *normal.controller;
  ASSERT_EQ(c.sleepRequests.size(), 2u);
  EXPECT_TRUE(c.sleepRequests[0].on);
  EXPECT_EQ(c.sleepRequests[0].afterReports, 0u);
  EXPECT_FALSE(c.sleepRequests[1].on);
  EXPECT_EQ(c.sleepRequests[1].afterReports, c.progressReports.size());
}
