// SPDX-License-Identifier: MIT
#include "platform/QUserThread.h"

#include "platform/QUserLog.h"
#include "platform/QUserUtils.h"

namespace {

thread_local QUserThreadObj *runningHere = nullptr;
std::atomic<void (*)()> stopRequestHook{nullptr};

} // namespace

QUserThreadObj *QUserThreadObj::current() { return runningHere; }

void QUserThreadObj::setStopRequestHook(void (*hook)()) {
  stopRequestHook.store(hook, std::memory_order_release);
}

bool QUserThreadObj::start(std::function<void()> pass) {
  if (running_) {
    return true;
  }
  pass_ = std::move(pass);
  stopRequest.store(0, std::memory_order_relaxed);
  exited.store(0, std::memory_order_relaxed);
  running_ = pthread_create(&handle, nullptr, &QUserThreadObj::entry, this) == 0;
  return running_;
}

void *QUserThreadObj::entry(void *self) {
  static_cast<QUserThreadObj *>(self)->run();
  return nullptr;
}

void QUserThreadObj::run() {
  runningHere = this;
  while (!stopRequested()) {
    pass_();
  }
  {
    std::lock_guard<std::mutex> guard(lock);
    exited.store(1, std::memory_order_relaxed);
  }
  wake.notify_all();
}

void QUserThreadObj::stop(std::chrono::milliseconds grace) {
  if (!running_) {
    return;
  }
  std::unique_lock<std::mutex> guard(lock);
  stopRequest.store(1, std::memory_order_relaxed);
  wake.notify_all();
  if (void (*hook)() = stopRequestHook.load(std::memory_order_acquire)) {
    hook();
  }
  const bool ended =
      wake.wait_for(guard, grace, [this] { return exited.load(std::memory_order_relaxed) != 0; });
  guard.unlock();
  if (!ended) {
    QUserLog::GetInstance().Error("Thread Exit Fail...");
    pthread_cancel(handle);
  }
  pthread_join(handle, nullptr);
  running_ = false;
  handle = pthread_t{};
}

bool QUserThreadObj::sleepUnlessStopped(std::chrono::microseconds duration) {
  std::unique_lock<std::mutex> guard(lock);
  return !wake.wait_for(guard, virtualtime::sleepInstead(duration),
                        [this] { return stopRequested(); });
}
