// The fault table that the other tests of this suite damage drives with: it
// must fail exactly the reads a bad sector, an early end or a lost drive
// would fail, and pass every other read through untouched.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "media/SectorFaults.h"
#include "support/TempDir.h"

using namespace ambrel;

namespace {

struct Sectors : ::testing::Test {
  test::TempDir dir;
  int fd = -1;
  std::vector<uint8_t> buf = std::vector<uint8_t>(16 * 512, 0xEE);

  void SetUp() override {
    std::vector<uint8_t> bytes(16 * 512);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i / 512 + 1);
    test::writeFile(dir / "d.img", bytes);
    fd = ::open((dir / "d.img").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
  }
  void TearDown() override { ::close(fd); }
  ssize_t read(SectorFaults& f, uint64_t sector, uint64_t count) {
    errno = 0;
    return f.pread(fd, buf.data(), count * 512, static_cast<off_t>(sector * 512));
  }
};

TEST_F(Sectors, BadSectorFailsReadsStartingThereAndShortensReadsReachingIt) {
  SectorFaults f;
  f.add(SectorFaults::Kind::IOError, 5, 2);
  EXPECT_EQ(read(f, 0, 4), 4 * 512);  // before it: untouched
  EXPECT_EQ(buf[3 * 512], 4);
  EXPECT_EQ(read(f, 2, 8), 3 * 512);  // the sectors before the bad one
  EXPECT_EQ(buf[2 * 512], 5);
  EXPECT_EQ(read(f, 6, 1), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(read(f, 7, 2), 2 * 512);  // past it: readable again
  EXPECT_EQ(buf[0], 8);
  EXPECT_EQ(f.faultsMet(), 1u);
  EXPECT_EQ(f.reads(), 4u);

  f.setWholeReadFails(true);
  EXPECT_EQ(read(f, 2, 8), -1);
  EXPECT_EQ(errno, EIO);
}

TEST_F(Sectors, ShortEndsTheDriveAndVanishLosesIt) {
  SectorFaults early;
  early.add(SectorFaults::Kind::Short, 10, 6);
  EXPECT_EQ(read(early, 8, 4), 2 * 512);
  EXPECT_EQ(read(early, 10, 1), 0);

  SectorFaults lost;
  lost.add(SectorFaults::Kind::Vanish, 12);
  EXPECT_EQ(read(lost, 0, 2), 2 * 512);
  EXPECT_EQ(read(lost, 12, 1), -1);
  EXPECT_EQ(errno, ENXIO);
  EXPECT_TRUE(lost.vanished());
  EXPECT_EQ(read(lost, 0, 1), -1);  // everything, from then on

  SectorFaults counted;
  counted.vanishAfterReads(2);
  counted.setVanishError(EIO);
  EXPECT_EQ(read(counted, 0, 1), 512);
  EXPECT_EQ(read(counted, 1, 1), 512);
  EXPECT_EQ(read(counted, 2, 1), -1);
  EXPECT_EQ(errno, EIO);
}

TEST(SectorFaultsText, ReadsEveryItemAndRefusesTheRest) {
  std::string error;
  auto f = SectorFaults::fromText("eio:3+2,short:9,vanish-after:100,gone-error:eio,whole", error);
  ASSERT_TRUE(f) << error;
  test::TempDir dir;
  test::writeFile(dir / "d.img", std::vector<uint8_t>(16 * 512, 1));
  const int fd = ::open((dir / "d.img").c_str(), O_RDONLY);
  std::vector<uint8_t> buf(16 * 512);
  EXPECT_EQ(f->pread(fd, buf.data(), 512, 2 * 512), 512);
  EXPECT_EQ(f->pread(fd, buf.data(), 2 * 512, 2 * 512), -1);  // "whole": no short count
  EXPECT_EQ(f->pread(fd, buf.data(), 512, 4 * 512), -1);
  EXPECT_EQ(f->pread(fd, buf.data(), 512, 5 * 512), 512);
  EXPECT_EQ(f->pread(fd, buf.data(), 2 * 512, 8 * 512), 512);
  ::close(fd);

  for (const char* bad : {"eio", "eio:x", "eio:1+", "vanish-after:3+1", "gone-error:later", "bad:1"}) {
    error.clear();
    EXPECT_FALSE(SectorFaults::fromText(bad, error)) << bad;
    EXPECT_FALSE(error.empty()) << bad;
  }
}

}  // namespace
