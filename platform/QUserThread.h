// SPDX-License-Identifier: MIT
// A driver's background thread. It runs one pass of its work after another
// until a stop is requested; stopping asks, waits a bounded time for the
// thread to end, and only then cancels it. Sleeps inside a pass end early
// when a stop is requested, so a thread that waits never delays a close.
#pragma once

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>

class QUserThreadObj {
public:
  static constexpr std::chrono::milliseconds kStopGrace{2000};

  QUserThreadObj() = default;
  ~QUserThreadObj() { stop(); }
  QUserThreadObj(const QUserThreadObj &) = delete;
  QUserThreadObj &operator=(const QUserThreadObj &) = delete;

  // Starts the thread running `pass` until a stop is requested; false when
  // it could not be created. A running thread is left as it is.
  bool start(std::function<void()> pass);
  // Requests the stop and waits up to `grace` for the thread to end; a
  // thread that has not ended by then is logged and cancelled. Either way it
  // is joined. Nothing happens when no thread runs.
  void stop(std::chrono::milliseconds grace = kStopGrace);

  bool running() const { return running_; }
  bool stopRequested() const { return stopRequest.load(std::memory_order_relaxed) != 0; }
  // Sleeps up to `duration`; returns false (early) once a stop is requested.
  // Under virtual time (see QUserUtils) the sleep is counted on the clock
  // and really lasts only a moment.
  bool sleepUnlessStopped(std::chrono::microseconds duration);

  // The thread object whose thread is calling, or null on any other thread.
  static QUserThreadObj *current();
  // Called on every stop request before waiting for the thread, so that a
  // harness can wake a thread that waits outside the library (a read of a
  // simulated adapter) and let it see the request. Host programs never set
  // one.
  static void setStopRequestHook(void (*hook)());

private:
  static void *entry(void *self);
  void run();

  std::function<void()> pass_;
  std::atomic<uint8_t> stopRequest{0};
  std::atomic<uint8_t> exited{0};
  std::mutex lock;
  std::condition_variable wake;
  pthread_t handle{};
  bool running_ = false;
};
