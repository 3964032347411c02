#include "hfs/JournalCopies.h"

#include <xxhash.h>

#include <algorithm>
#include <cstring>
#if defined(__x86_64__)
#include <xxh_x86dispatch.h>
#endif

#include "base/Endian.h"
#include "hfs/Geometry.h"
#include "media/DMedia.h"
#include "media/Records.h"

namespace ambrel {

namespace {

// Sectors read at once from the journal: large reads keep the search at the
// speed of the disk.
constexpr uint64_t kBatchSectors = 2048;
constexpr size_t kPage = 4096;

XXH128_hash_t digestOf(const uint8_t* bytes, size_t n) {
  // The widest vector unit the processor has: the digest must not cost more
  // than the read it follows.
#if defined(__x86_64__)
  return XXH3_128bits_dispatch(bytes, n);
#else
  return XXH3_128bits(bytes, n);
#endif
}

}  // namespace

NodeDigest nodeDigest(const uint8_t* node, size_t bytes) {
  const size_t records = loadBE16(node + 10);
  const size_t table = 2 * (records + 1);
  const size_t freeStart = table <= bytes ? loadBE16(node + bytes - table) : 0;
  if (table > bytes || freeStart < 14 || freeStart > bytes - table) {
    const XXH128_hash_t h = digestOf(node, bytes);
    return {h.low64, h.high64};
  }
  const XXH128_hash_t used = digestOf(node, freeStart);
  const XXH128_hash_t offsets = digestOf(node + bytes - table, table);
  return {used.low64 ^ (offsets.low64 * 0x9E3779B97F4A7C15ull), used.high64 ^ offsets.high64};
}

bool journalLeafDescriptor(const uint8_t* head) {
  BTNodeDescriptor_ d;
  std::memcpy(&d, head, sizeof d);
  convertBTNodeDesc(&d);
  return d.height == 1 && d.kind == kBTLeafNode && d.numRecords >= 1 && d.numRecords <= 254 && d.reserved == 0;
}

DigestSet::DigestSet(size_t expected) {
  size_t n = 64;
  while (n < 2 * expected) n <<= 1;
  slots_.assign(n, NodeDigest{});
}

bool DigestSet::insert(NodeDigest d) {
  if (d == NodeDigest{}) {
    const bool fresh = !zeroSeen_;
    zeroSeen_ = true;
    return fresh;
  }
  if (2 * (count_ + 1) > slots_.size()) grow();
  if (!place(slots_, d)) return false;
  ++count_;
  return true;
}

bool DigestSet::place(std::vector<NodeDigest>& slots, NodeDigest d) {
  const size_t mask = slots.size() - 1;
  for (size_t i = static_cast<size_t>(d.low) & mask;; i = (i + 1) & mask) {
    if (slots[i] == d) return false;
    if (slots[i] == NodeDigest{}) {
      slots[i] = d;
      return true;
    }
  }
}

void DigestSet::grow() {
  std::vector<NodeDigest> bigger(slots_.size() * 2);
  for (const NodeDigest& d : slots_)
    if (!(d == NodeDigest{})) place(bigger, d);
  slots_.swap(bigger);
}

JournalCopyReader::JournalCopyReader(DMedia& media, uint64_t first, uint64_t total, uint64_t nodeSectors,
                                     const std::atomic<bool>& stop)
    : media_(media),
      first_(first),
      total_(total),
      nodeSectors_(std::max<uint64_t>(nodeSectors, 1)),
      batches_((total + kBatchSectors - 1) / kBatchSectors),
      stop_(stop) {
  // A second thread pays only where there is a second core and a second batch.
  if (batches_ < 2 || std::thread::hardware_concurrency() < 2) {
    secondDone_ = true;
    return;
  }
  try {
    second_ = std::thread([this] { secondThread(); });
  } catch (const std::system_error&) {
    secondDone_ = true;  // no thread to be had: every batch is read here
  }
}

JournalCopyReader::~JournalCopyReader() {
  {
    std::lock_guard lock(mutex_);
    quit_ = true;
  }
  changed_.notify_all();
  if (second_.joinable()) second_.join();
}

void JournalCopyReader::prepare(JournalBatch& b, uint64_t index) const {
  b.index = index;
  b.done = index * kBatchSectors;
  b.count = std::min(kBatchSectors, total_ - b.done);
  b.carry = std::min(nodeSectors_ - 1, b.done);
  b.whole = false;
  b.copies.clear();
  if (b.space.empty()) b.space.resize((nodeSectors_ - 1 + kBatchSectors) * kSectorSize + kPage);
  // Reads land on a page: the kernel copies into it fastest.
  b.sectors = reinterpret_cast<uint8_t*>((reinterpret_cast<uintptr_t>(b.space.data()) + kPage - 1) & ~(kPage - 1));
}

void JournalCopyReader::findCopies(JournalBatch& b) const {
  b.copies.clear();
  for (uint64_t s = 0; s < b.count; ++s) {
    const uint64_t end = b.carry + s;  // the node's last sector, in the buffer
    if (!looksLikeNodeEnd(b.sectors + end * kSectorSize) || b.done + s + 1 < nodeSectors_) continue;
    if (stop_.load(std::memory_order_relaxed)) return;
    const size_t offset = (end + 1 - nodeSectors_) * kSectorSize;
    if (!journalLeafDescriptor(b.sectors + offset)) continue;
    b.copies.push_back({offset, nodeDigest(b.sectors + offset, nodeSectors_ * kSectorSize)});
  }
}

void JournalCopyReader::readHere(JournalBatch& b) {
  // A bad sector reads as zeros and costs only itself.
  media_.readSectorsSalvaging(first_ + b.done - b.carry, b.carry + b.count, b.sectors);
  b.whole = true;
  findCopies(b);
}

const JournalBatch& JournalCopyReader::batch(uint64_t i) {
  std::unique_lock lock(mutex_);
  for (int k = 0; k < 2; ++k)
    if (state_[k] == Slot::Lent) state_[k] = Slot::Free;
  changed_.notify_all();
  if (i % 2 == 1) {
    int k = -1;
    changed_.wait(lock, [&] {
      for (int j = 0; j < 2; ++j)
        if (state_[j] == Slot::Ready && theirs_[j].index == i) k = j;
      return k >= 0 || secondDone_;
    });
    if (k >= 0) {
      state_[k] = Slot::Lent;
      lock.unlock();
      JournalBatch& b = theirs_[k];
      if (!b.whole) readHere(b);
      return b;
    }
  }
  lock.unlock();
  prepare(own_, i);
  readHere(own_);
  return own_;
}

void JournalCopyReader::secondThread() {
  try {
    for (uint64_t i = 1; i < batches_; i += 2) {
      int k = -1;
      {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] {
          for (int j = 0; j < 2 && k < 0; ++j)
            if (state_[j] == Slot::Free) k = j;
          return k >= 0 || quit_;
        });
        if (quit_) break;
        state_[k] = Slot::Filling;
      }
      JournalBatch& b = theirs_[k];
      if (stop_.load()) break;
      prepare(b, i);
      // Anything but a whole read is left to the caller's thread.
      b.whole = media_.readSectorsQuietly(first_ + b.done - b.carry, static_cast<int32_t>(b.carry + b.count),
                                          b.sectors);
      if (b.whole) findCopies(b);
      {
        std::lock_guard lock(mutex_);
        state_[k] = Slot::Ready;
      }
      changed_.notify_all();
    }
  } catch (...) {
    // Out of memory here: the caller reads the rest itself.
  }
  {
    std::lock_guard lock(mutex_);
    secondDone_ = true;
  }
  changed_.notify_all();
}

}  // namespace ambrel
