#include "base/SideThread.h"

#include <system_error>
#include <thread>
#include <utility>

SideThread& SideThread::instance() {
  // Never destroyed: the thread may still wait on it while the process
  // ends.
  static SideThread* side = new SideThread;
  return *side;
}

bool SideThread::start(std::function<void()> job) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!running_) {
    try {
      std::thread(&SideThread::loop, this).detach();
    } catch (const std::system_error&) {
      return false;
    }
    running_ = true;
  }
  job_ = std::move(job);
  pending_ = true;
  wake_.notify_all();
  return true;
}

void SideThread::wait() {
  std::unique_lock<std::mutex> lock(mutex_);
  wake_.wait(lock, [this] { return !pending_; });
}

void SideThread::loop() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return pending_ && job_; });
    std::function<void()> job = std::move(job_);
    job_ = nullptr;
    lock.unlock();
    job();
    lock.lock();
    pending_ = false;
    wake_.notify_all();
  }
}
