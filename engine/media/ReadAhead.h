// A run of sectors read batch by batch on a second thread, one batch ahead of
// the caller: the caller's work on a batch overlaps the kernel's copy of the
// next, so a search costs about what the read costs, not the sum of both.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace ambrel {

class SectorReadAhead {
 public:
  // Fills `into` with `count` sectors from `sector`; whatever could not be
  // read must come back as zeros (the reader counts and reports it).
  using ReadFn = std::function<void(uint64_t sector, uint64_t count, uint8_t* into)>;

  // Sectors [first, first + total) in batches of `batchSectors`. Each batch
  // is returned with the `carrySectors` before it (the last sectors of the
  // batch before; zeros ahead of the first batch) in front of it, so that a
  // record that crosses a batch boundary is whole in one buffer.
  SectorReadAhead(ReadFn read, uint64_t first, uint64_t total, uint64_t batchSectors, uint64_t carrySectors);
  ~SectorReadAhead();  // stops the reader and waits for it
  SectorReadAhead(const SectorReadAhead&) = delete;
  SectorReadAhead& operator=(const SectorReadAhead&) = delete;

  struct Batch {
    const uint8_t* data = nullptr;  // first sector of the batch; the carry sits before it
    uint64_t offset = 0;            // sectors from `first` to the batch's first sector
    uint64_t count = 0;             // sectors in the batch
  };
  // The next batch, valid until the next call; false once every batch was given.
  bool next(Batch& batch);

 private:
  struct Slot {
    std::vector<uint8_t> space;
    uint8_t* batch = nullptr;  // page-aligned, with room for the carry before it
    uint64_t offset = 0, count = 0;
    bool full = false;
  };
  void run();

  ReadFn read_;
  const uint64_t first_, total_, batchSectors_, carrySectors_;
  Slot slots_[2];
  uint64_t handed_ = 0;  // batches given to the caller
  std::mutex mutex_;
  std::condition_variable changed_;
  bool stop_ = false;
  std::exception_ptr failure_;
  std::thread reader_;
};

}  // namespace ambrel
