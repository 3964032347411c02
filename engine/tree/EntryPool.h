#pragma once
// Memory for objects of one size that a scan makes by the million (the
// tree's entries). They come from slabs of 2 MiB rather than one heap
// allocation each, and the pages of the next slab are made ready by a
// helper thread while the current one fills: a scan otherwise stops for
// the kernel at every fourth kilobyte-page of new entries, a sixth of the
// time of a whole listing.
//
// Freed objects are reused first. Slabs go back to the system when no
// object is left (the last one is kept, so that making and dropping one
// entry does not map and unmap a slab each time). Thread-safe.
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <vector>

namespace ambrel {

class EntryPool {
 public:
  static constexpr size_t kSlabBytes = size_t{2} << 20;

  explicit EntryPool(size_t objectBytes);
  ~EntryPool();
  EntryPool(const EntryPool&) = delete;
  EntryPool& operator=(const EntryPool&) = delete;

  // Throws std::bad_alloc when the system has no memory left.
  void* allocate();
  void release(void* object) noexcept;

  // For pthread_atfork: the pool is held still while a process forks, and
  // the child, which has no helper thread, starts one of its own when it
  // needs slabs.
  void beforeFork();
  void afterForkInParent();
  void afterForkInChild();

  size_t liveObjects() const;
  size_t slabsMapped() const;  // in use, not counting the one made ready ahead

 private:
  struct Free {
    Free* next;
  };
  static char* mapSlab() noexcept;  // nullptr when the system refuses
  void takeSlab();                  // with mutex_ held
  void prepareLoop();

  const size_t size_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  Free* free_ = nullptr;
  char* bump_ = nullptr;
  char* end_ = nullptr;
  std::vector<char*> slabs_;
  size_t live_ = 0;
  // The slab made ready ahead, and whether the helper is asked for one.
  char* ready_ = nullptr;
  bool wanted_ = false;
  bool helperStarted_ = false;
  bool stopping_ = false;
  bool helperDone_ = false;
};

}  // namespace ambrel
