// A scan keeps the machine awake from its first report to its last, whatever
// path it takes, and every scan of a volume does so again.
#include <gtest/gtest.h>

#include "ImageBuilder.h"
#include "scan/ContentCheck.h"
#include "scan/ScanHelpers.h"

using namespace ambrel;
using namespace ambrel::test;
namespace mk = ambrel::mkimage;

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
