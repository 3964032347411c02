#include "core/MainThread.h"

#include <algorithm>

namespace ambrel {

void EventLoop::post(std::function<void()> fn) {
  {
    std::lock_guard lock(mutex_);
    queue_.push_back(std::move(fn));
  }
  arrived_.notify_all();
}

size_t EventLoop::runPending() {
  size_t ran = 0;
  for (;;) {
    std::function<void()> fn;
    {
      std::lock_guard lock(mutex_);
      if (queue_.empty()) return ran;
      fn = std::move(queue_.front());
      queue_.pop_front();
    }
    fn();
    ++ran;
  }
}

bool EventLoop::runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    runPending();
    if (done()) return true;
    const auto now = std::chrono::steady_clock::now();
    if (now >= deadline) return false;
    // done() may turn true on another thread without anything queued: look again soon.
    std::unique_lock lock(mutex_);
    arrived_.wait_until(lock, std::min(deadline, now + std::chrono::milliseconds(2)),
                        [this] { return !queue_.empty(); });
  }
}

size_t EventLoop::pending() const {
  std::lock_guard lock(mutex_);
  return queue_.size();
}

struct Courier::Shared {
  std::mutex mutex;
  std::condition_variable changed;
  bool open = true;
  size_t queuedSends = 0;
};

Courier::Courier(MainThreadDispatcher& dispatcher)
    : dispatcher_(dispatcher), mainThread_(std::this_thread::get_id()), shared_(std::make_shared<Shared>()) {}

Courier::~Courier() { close(); }

bool Courier::call(const std::function<void()>& fn) {
  if (onMainThread()) {
    if (closed()) return false;
    fn();
    return true;
  }
  struct Done {
    bool started = false, finished = false;
  };
  auto done = std::make_shared<Done>();
  auto shared = shared_;
  {
    std::lock_guard lock(shared->mutex);
    if (!shared->open) return false;
  }
  // fn stays with the caller, who waits until it has run or will never run.
  dispatcher_.post([shared, done, &fn] {
    {
      std::lock_guard lock(shared->mutex);
      done->started = shared->open;
    }
    if (done->started) fn();
    std::lock_guard lock(shared->mutex);
    done->finished = true;
    shared->changed.notify_all();
  });
  // Once fn has started the caller waits for its end even if the courier is
  // closed meanwhile (fn may close it): fn lives on the caller's stack.
  std::unique_lock lock(shared->mutex);
  shared->changed.wait(lock, [&] { return done->finished || (!shared->open && !done->started); });
  return done->started;
}

void Courier::send(std::function<void()> fn, bool mayWait) {
  auto shared = shared_;
  {
    std::unique_lock lock(shared->mutex);
    if (mayWait && !onMainThread())
      shared->changed.wait(lock, [&] { return !shared->open || shared->queuedSends < kMaxQueuedSends; });
    if (!shared->open) return;
    ++shared->queuedSends;
  }
  dispatcher_.post([shared, fn = std::move(fn)] {
    bool open;
    {
      std::lock_guard lock(shared->mutex);
      open = shared->open;
      --shared->queuedSends;
      shared->changed.notify_all();
    }
    if (open) fn();
  });
}

void Courier::close() {
  std::lock_guard lock(shared_->mutex);
  shared_->open = false;
  shared_->changed.notify_all();
}

bool Courier::closed() const {
  std::lock_guard lock(shared_->mutex);
  return !shared_->open;
}

struct Workers::Count {
  std::mutex mutex;
  std::condition_variable zero;
  size_t running = 0;
};

Workers::Workers() : count_(std::make_shared<Count>()) {}

Workers::~Workers() { waitAll(); }

void Workers::start(std::function<void()> body) {
  auto count = count_;
  {
    std::lock_guard lock(count->mutex);
    ++count->running;
  }
  std::thread([count, body = std::move(body)]() mutable {
    body();
    body = nullptr;  // what it captured goes before the count says it is done
    std::lock_guard lock(count->mutex);
    if (--count->running == 0) count->zero.notify_all();
  }).detach();
}

void Workers::waitAll() {
  std::unique_lock lock(count_->mutex);
  count_->zero.wait(lock, [this] { return count_->running == 0; });
}

size_t Workers::running() const {
  std::lock_guard lock(count_->mutex);
  return count_->running;
}

}  // namespace ambrel
