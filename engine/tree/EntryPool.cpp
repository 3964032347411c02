#include "tree/EntryPool.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define AMBREL_POISON(p, n) ASAN_POISON_MEMORY_REGION(p, n)
#define AMBREL_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION(p, n)
#else
#define AMBREL_POISON(p, n) ((void)(p), (void)(n))
#define AMBREL_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23
#endif

namespace ambrel {

EntryPool::EntryPool(size_t objectBytes)
    : size_((std::max(objectBytes, sizeof(Free)) + alignof(std::max_align_t) - 1) / alignof(std::max_align_t) *
            alignof(std::max_align_t)) {}

EntryPool::~EntryPool() {
  std::unique_lock lock(mutex_);
  stopping_ = true;
  wake_.notify_all();
  wake_.wait(lock, [&] { return !helperStarted_ || helperDone_; });
  for (char* slab : slabs_) ::munmap(slab, kSlabBytes);
  if (ready_) ::munmap(ready_, kSlabBytes);
}

char* EntryPool::mapSlab() noexcept {
  void* p = ::mmap(nullptr, kSlabBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) return nullptr;
  AMBREL_POISON(p, kSlabBytes);
  return static_cast<char*>(p);
}

void EntryPool::prepareLoop() {
  std::unique_lock lock(mutex_);
  for (;;) {
    wake_.wait(lock, [&] { return stopping_ || (wanted_ && !ready_); });
    if (stopping_) break;
    lock.unlock();
    char* slab = mapSlab();
    if (slab && ::madvise(slab, kSlabBytes, MADV_POPULATE_WRITE) != 0) {
      // A kernel without it: the pages are written once instead (the slab
      // is nobody's yet, and a fresh mapping reads as zeros anyway).
      const long page = ::sysconf(_SC_PAGESIZE);
      for (size_t at = 0; at < kSlabBytes; at += static_cast<size_t>(page)) {
        AMBREL_UNPOISON(slab + at, 1);
        *reinterpret_cast<volatile char*>(slab + at) = 0;
        AMBREL_POISON(slab + at, 1);
      }
    }
    lock.lock();
    wanted_ = false;
    if (!slab) continue;
    if (stopping_ || ready_) {
      ::munmap(slab, kSlabBytes);
      continue;
    }
    ready_ = slab;
  }
  helperDone_ = true;
  wake_.notify_all();
}

void EntryPool::takeSlab() {
  char* slab = std::exchange(ready_, nullptr);
  if (!slab) slab = mapSlab();
  if (!slab) throw std::bad_alloc();
  slabs_.push_back(slab);
  bump_ = slab;
  end_ = slab + kSlabBytes / size_ * size_;
  // The one after it is made ready while this one fills.
  wanted_ = true;
  if (!helperStarted_) {
    try {
      std::thread([this] { prepareLoop(); }).detach();
      helperStarted_ = true;
    } catch (const std::system_error&) {
      // No thread to spare: slabs are mapped when needed, as this one was.
    }
  }
  wake_.notify_all();
}

void* EntryPool::allocate() {
  std::lock_guard lock(mutex_);
  void* p;
  if (free_) {
    AMBREL_UNPOISON(free_, size_);
    p = free_;
    free_ = free_->next;
  } else {
    if (bump_ == end_) takeSlab();
    p = bump_;
    bump_ += size_;
    AMBREL_UNPOISON(p, size_);
  }
  ++live_;
  return p;
}

void EntryPool::release(void* object) noexcept {
  if (!object) return;
  std::lock_guard lock(mutex_);
  --live_;
  if (live_ == 0 && slabs_.size() > 1) {
    // Nothing left: every slab but the newest goes back to the system.
    for (size_t i = 0; i + 1 < slabs_.size(); ++i) ::munmap(slabs_[i], kSlabBytes);
    slabs_.erase(slabs_.begin(), slabs_.end() - 1);
    AMBREL_POISON(slabs_[0], kSlabBytes);
    free_ = nullptr;
    bump_ = slabs_[0];
    end_ = slabs_[0] + kSlabBytes / size_ * size_;
    return;
  }
  auto* f = static_cast<Free*>(object);
  f->next = free_;
  free_ = f;
  AMBREL_POISON(object, size_);
}

void EntryPool::beforeFork() { mutex_.lock(); }

void EntryPool::afterForkInParent() { mutex_.unlock(); }

void EntryPool::afterForkInChild() {
  // The parent's helper may be waiting in these; the child's copies are
  // made anew rather than used or destroyed with a waiter that is not there.
  new (&mutex_) std::mutex();
  new (&wake_) std::condition_variable();
  helperStarted_ = false;
  helperDone_ = false;
  wanted_ = false;
}

size_t EntryPool::liveObjects() const {
  std::lock_guard lock(mutex_);
  return live_;
}

size_t EntryPool::slabsMapped() const {
  std::lock_guard lock(mutex_);
  return slabs_.size();
}

}  // namespace ambrel
