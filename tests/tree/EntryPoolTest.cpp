#include "tree/EntryPool.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <set>
#include <thread>
#include <vector>

namespace ambrel {
namespace {

constexpr size_t kObject = 168;

// Fills an object with a pattern of its own, and checks it is still there.
void stamp(void* p, uint32_t id) {
  for (size_t i = 0; i + 4 <= kObject; i += 4) std::memcpy(static_cast<char*>(p) + i, &id, 4);
}
bool intact(const void* p, uint32_t id) {
  for (size_t i = 0; i + 4 <= kObject; i += 4) {
    uint32_t v;
    std::memcpy(&v, static_cast<const char*>(p) + i, 4);
    if (v != id) return false;
  }
  return true;
}

// Objects over several slabs never share bytes; freed ones are reused before
// any new slab; when none is left the slabs go back but one.
TEST(EntryPool, ObjectsAreDistinctReusedAndTheSlabsGoBackWhenNoneIsLeft) {
  EntryPool pool(kObject);
  const size_t perSlab = EntryPool::kSlabBytes / 176;
  const size_t n = perSlab * 3 + 17;
  std::vector<void*> objects;
  for (uint32_t i = 0; i < n; ++i) {
    objects.push_back(pool.allocate());
    ASSERT_EQ(reinterpret_cast<uintptr_t>(objects.back()) % alignof(std::max_align_t), 0u);
    stamp(objects.back(), i);
  }
  EXPECT_EQ(pool.slabsMapped(), 4u);
  EXPECT_EQ(pool.liveObjects(), n);
  for (uint32_t i = 0; i < n; ++i) ASSERT_TRUE(intact(objects[i], i)) << i;

  // Every other one freed, then as many made again: the same places, no new slab.
  std::set<void*> freed;
  for (uint32_t i = 0; i < n; i += 2) {
    pool.release(objects[i]);
    freed.insert(objects[i]);
  }
  for (uint32_t i = 0; i < n; i += 2) {
    objects[i] = pool.allocate();
    EXPECT_EQ(freed.count(objects[i]), 1u);
    stamp(objects[i], i + 1000000);
  }
  EXPECT_EQ(pool.slabsMapped(), 4u);
  for (uint32_t i = 0; i < n; ++i) ASSERT_TRUE(intact(objects[i], i % 2 ? i : i + 1000000)) << i;

  for (void* p : objects) pool.release(p);
  EXPECT_EQ(pool.liveObjects(), 0u);
  EXPECT_EQ(pool.slabsMapped(), 1u);
  // Making and dropping one object keeps the slab left.
  for (int k = 0; k < 3; ++k) {
    void* p = pool.allocate();
    stamp(p, 7);
    pool.release(p);
    EXPECT_EQ(pool.slabsMapped(), 1u);
  }
  pool.release(nullptr);
  EXPECT_EQ(pool.liveObjects(), 0u);
}

// Threads that make and free objects at once, some freeing what another made.
TEST(EntryPool, ThreadsShareThePool) {
  EntryPool pool(kObject);
  constexpr int kThreads = 4;
  constexpr uint32_t kEach = 60000;
  std::vector<std::vector<void*>> made(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (uint32_t i = 0; i < kEach; ++i) {
        void* p = pool.allocate();
        stamp(p, uint32_t(t) << 24 | i);
        made[t].push_back(p);
        if (i % 3 == 2) {  // drop one made earlier
          void* q = made[t][i / 2];
          made[t][i / 2] = nullptr;
          if (q) pool.release(q);
        }
      }
    });
  for (auto& th : threads) th.join();
  size_t live = 0;
  for (int t = 0; t < kThreads; ++t)
    for (uint32_t i = 0; i < kEach; ++i)
      if (made[t][i]) {
        ++live;
        ASSERT_TRUE(intact(made[t][i], uint32_t(t) << 24 | i));
      }
  EXPECT_EQ(pool.liveObjects(), live);
  // The other half freed by threads that did not make them.
  threads.clear();
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (void* p : made[(t + 1) % kThreads])
        if (p) pool.release(p);
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(pool.liveObjects(), 0u);
  EXPECT_EQ(pool.slabsMapped(), 1u);
}

// A child forked while the helper thread runs has none: it makes slabs of
// its own, and the parent's pool goes on as before.
TEST(EntryPool, AForkedChildGoesOnWithoutTheParentsHelper) {
  EntryPool pool(kObject);
  const size_t perSlab = EntryPool::kSlabBytes / 176;
  std::vector<void*> before;
  for (uint32_t i = 0; i < perSlab + 5; ++i) {
    before.push_back(pool.allocate());
    stamp(before.back(), i);
  }
  pool.beforeFork();
  const pid_t child = ::fork();
  if (child == 0) {
    pool.afterForkInChild();
    bool ok = true;
    for (uint32_t i = 0; i < perSlab * 3; ++i) {
      void* p = pool.allocate();
      stamp(p, i + 5000000);
      ok = ok && intact(p, i + 5000000);
    }
    for (uint32_t i = 0; i < before.size(); ++i) ok = ok && intact(before[i], i);
    std::_Exit(ok && pool.slabsMapped() >= 5 ? 0 : 1);
  }
  pool.afterForkInParent();
  ASSERT_GT(child, 0);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  for (uint32_t i = 0; i < perSlab * 2; ++i) before.push_back(pool.allocate());
  EXPECT_EQ(pool.slabsMapped(), 4u);
  for (void* p : before) pool.release(p);
  EXPECT_EQ(pool.liveObjects(), 0u);
}

#if defined(__SANITIZE_ADDRESS__)
// The sanitizer sees an object used after it went back to the pool.
TEST(EntryPoolDeathTest, UseAfterReleaseIsCaught) {
  EntryPool pool(kObject);
  void* keep = pool.allocate();  // so that the slab stays
  auto* p = static_cast<volatile char*>(pool.allocate());
  pool.release(const_cast<char*>(p));
  EXPECT_DEATH(p[8] = 1, "use-after-poison");
  pool.release(keep);
}
#endif

}  // namespace
}  // namespace ambrel
