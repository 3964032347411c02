#include "media/ReadAhead.h"

#include <algorithm>
#include <cstring>

#include "media/DMedia.h"

namespace ambrel {

namespace {
constexpr uintptr_t kPage = 4096;
}

SectorReadAhead::SectorReadAhead(ReadFn read, uint64_t first, uint64_t total, uint64_t batchSectors,
                                 uint64_t carrySectors)
    : read_(std::move(read)),
      first_(first),
      total_(total),
      // The carry comes from one batch, so a batch is never shorter than it.
      batchSectors_(std::max<uint64_t>({batchSectors, carrySectors, 1})),
      carrySectors_(carrySectors) {
  for (Slot& s : slots_) {
    // The batch itself starts on a page: the kernel copies into it fastest.
    s.space.assign((carrySectors_ + batchSectors_) * kSectorSize + 2 * kPage, 0);
    const uintptr_t at =
        (reinterpret_cast<uintptr_t>(s.space.data()) + carrySectors_ * kSectorSize + kPage - 1) & ~(kPage - 1);
    s.batch = reinterpret_cast<uint8_t*>(at);
  }
  if (total_ > 0) reader_ = std::thread([this] { run(); });
}

SectorReadAhead::~SectorReadAhead() {
  {
    std::lock_guard lock(mutex_);
    stop_ = true;
  }
  changed_.notify_all();
  if (reader_.joinable()) reader_.join();
}

void SectorReadAhead::run() {
  for (uint64_t i = 0, offset = 0; offset < total_; ++i, offset += batchSectors_) {
    Slot& slot = slots_[i % 2];
    {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [&] { return stop_ || !slot.full; });
      if (stop_) return;
    }
    const uint64_t count = std::min(batchSectors_, total_ - offset);
    try {
      read_(first_ + offset, count, slot.batch);
    } catch (...) {
      std::lock_guard lock(mutex_);
      failure_ = std::current_exception();
      stop_ = true;
      changed_.notify_all();
      return;
    }
    {
      std::lock_guard lock(mutex_);
      slot.offset = offset;
      slot.count = count;
      slot.full = true;
    }
    changed_.notify_all();
  }
}

bool SectorReadAhead::next(Batch& batch) {
  const uint64_t batches = (total_ + batchSectors_ - 1) / batchSectors_;
  if (handed_ >= batches) return false;
  Slot& slot = slots_[handed_ % 2];
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return slot.full || stop_; });
  if (failure_) std::rethrow_exception(failure_);
  if (!slot.full) return false;
  if (handed_ > 0) {
    // The batch before keeps its slot until its tail is carried over.
    Slot& before = slots_[(handed_ - 1) % 2];
    std::memcpy(slot.batch - carrySectors_ * kSectorSize,
                before.batch + (before.count - carrySectors_) * kSectorSize, carrySectors_ * kSectorSize);
    before.full = false;
    lock.unlock();
    changed_.notify_all();
  }
  batch = Batch{slot.batch, slot.offset, slot.count};
  ++handed_;
  return true;
}

}  // namespace ambrel
