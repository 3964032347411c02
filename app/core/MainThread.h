#pragma once
// Getting work from worker threads onto the main thread, and the worker
// threads themselves.
//
// A front end provides the MainThreadDispatcher (Qt: a queued invocation on
// the application object; the command line and tests: an EventLoop they run
// themselves). The controller talks to it only through a Courier, which adds
// what every front end would otherwise have to get right: a waiting call,
// a bound on what may queue up, and a shutdown after which nothing queued
// runs and no worker stays blocked.
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace ambrel {

class MainThreadDispatcher {
 public:
  virtual ~MainThreadDispatcher() = default;
  // Queues fn to run on the main thread, in the order posted. Callable from
  // any thread; never runs fn before returning.
  virtual void post(std::function<void()> fn) = 0;
};

// The main thread's queue for front ends without an event loop of their own.
class EventLoop : public MainThreadDispatcher {
 public:
  void post(std::function<void()> fn) override;
  // Runs what is queued, including what that queues in turn; returns how many ran.
  size_t runPending();
  // Runs queued work as it arrives until done() holds or the time is up;
  // returns done().
  bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);
  size_t pending() const;

 private:
  mutable std::mutex mutex_;
  std::condition_variable arrived_;
  std::deque<std::function<void()>> queue_;
};

class Courier {
 public:
  explicit Courier(MainThreadDispatcher& dispatcher);
  ~Courier();
  Courier(const Courier&) = delete;
  Courier& operator=(const Courier&) = delete;

  bool onMainThread() const { return std::this_thread::get_id() == mainThread_; }
  // Runs fn on the main thread and returns once it has run (at once when
  // called there). False when the courier was closed first and fn never ran.
  bool call(const std::function<void()>& fn);
  // Runs fn on the main thread later, unless the courier is closed by then.
  // A worker that has this many sends still queued waits for room, so a
  // flood of reports cannot grow the queue without bound; one whose sends
  // cannot flood (a single completion, a coalesced update) and that the
  // main thread may be waiting for passes mayWait false and never blocks.
  void send(std::function<void()> fn, bool mayWait = true);
  static constexpr size_t kMaxQueuedSends = 256;
  // Main thread: nothing sent or called runs from now on; workers waiting in
  // call() or send() return.
  void close();
  bool closed() const;

 private:
  struct Shared;
  MainThreadDispatcher& dispatcher_;
  std::thread::id mainThread_;
  std::shared_ptr<Shared> shared_;
};

// Long operations: one detached thread each, counted so that the owner can
// wait for the last one before it goes.
class Workers {
 public:
  Workers();
  ~Workers();
  Workers(const Workers&) = delete;
  Workers& operator=(const Workers&) = delete;

  void start(std::function<void()> body);
  // Blocks until every body started has returned.
  void waitAll();
  size_t running() const;

 private:
  struct Count;
  std::shared_ptr<Count> count_;
};

}  // namespace ambrel
