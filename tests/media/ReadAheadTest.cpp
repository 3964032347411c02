// The read-ahead that overlaps a search with the read of its next batch: every
// sector comes once and in order, the carry in front of a batch is the tail
// of the batch before, and stopping or failing early neither hangs nor loses
// the reader's error.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "media/DMedia.h"
#include "media/ReadAhead.h"

using namespace ambrel;

namespace {

// Each sector holds its own number in every 8-byte word.
void fillNumbered(uint64_t sector, uint64_t count, uint8_t* into) {
  for (uint64_t s = 0; s < count; ++s)
    for (uint32_t w = 0; w < kSectorSize / 8; ++w) {
      const uint64_t n = sector + s;
      std::memcpy(into + s * kSectorSize + w * 8, &n, 8);
    }
}

uint64_t numberAt(const uint8_t* sector) {
  uint64_t n;
  std::memcpy(&n, sector + kSectorSize - 8, 8);
  return n;
}

}  // namespace

TEST(ReadAhead, EverySectorOnceInOrderWithTheCarryOfTheBatchBefore) {
  // 1000 sectors from 77 in batches of 64: the last batch is short (40).
  const uint64_t first = 77, total = 1000, batchSectors = 64, carry = 15;
  SectorReadAhead ahead(fillNumbered, first, total, batchSectors, carry);
  SectorReadAhead::Batch b;
  uint64_t expect = 0, batches = 0;
  while (ahead.next(b)) {
    ASSERT_EQ(b.offset, expect);
    for (uint64_t s = 0; s < b.count; ++s) ASSERT_EQ(numberAt(b.data + s * kSectorSize), first + expect + s);
    // The carry: the sectors just before this batch, zeros before the first.
    for (uint64_t c = 1; c <= carry; ++c) {
      const uint8_t* before = b.data - c * kSectorSize;
      if (expect == 0)
        EXPECT_EQ(numberAt(before), 0u);
      else
        ASSERT_EQ(numberAt(before), first + expect - c) << "batch at " << expect << ", carry " << c;
    }
    expect += b.count;
    ++batches;
  }
  EXPECT_EQ(expect, total);
  EXPECT_EQ(batches, 16u);
  EXPECT_FALSE(ahead.next(b));
}

TEST(ReadAhead, NothingToReadAndACarryLongerThanTheBatch) {
  int reads = 0;
  {
    SectorReadAhead none([&](uint64_t, uint64_t, uint8_t*) { ++reads; }, 0, 0, 64, 15);
    SectorReadAhead::Batch b;
    EXPECT_FALSE(none.next(b));
  }
  EXPECT_EQ(reads, 0);
  // A batch shorter than the carry would leave the carry half made up.
  SectorReadAhead ahead(fillNumbered, 0, 100, 4, 15);
  SectorReadAhead::Batch b;
  ASSERT_TRUE(ahead.next(b));
  ASSERT_TRUE(ahead.next(b));
  for (uint64_t c = 1; c <= 15; ++c) EXPECT_EQ(numberAt(b.data - c * kSectorSize), b.offset - c);
}

TEST(ReadAhead, StoppingEarlyEndsTheReaderAndAReadersFailureReachesTheCaller) {
  std::atomic<uint64_t> reads{0};
  {
    SectorReadAhead ahead(
        [&](uint64_t s, uint64_t n, uint8_t* into) {
          ++reads;
          fillNumbered(s, n, into);
        },
        0, 1u << 20, 64, 0);
    SectorReadAhead::Batch b;
    ASSERT_TRUE(ahead.next(b));
  }  // destroyed with 16,383 batches unread: must not hang
  EXPECT_LE(reads.load(), 3u);  // one handed out, at most two read ahead

  SectorReadAhead failing(
      [](uint64_t s, uint64_t n, uint8_t* into) {
        if (s >= 128) throw std::runtime_error("reader failed");
        fillNumbered(s, n, into);
      },
      0, 1000, 64, 0);
  SectorReadAhead::Batch b;
  ASSERT_TRUE(failing.next(b));
  ASSERT_TRUE(failing.next(b));
  EXPECT_THROW(failing.next(b), std::runtime_error);
}
