#include "base/OrderedWork.h"

#include <system_error>
#include <utility>

OrderedWork::OrderedWork(size_t count, int threads, std::function<void(size_t)> task)
    : count_(count), task_(std::move(task)), limit_(count), done_(count, 0) {
  size_t wanted = threads > 1 ? static_cast<size_t>(threads) : 1;
  if (wanted > count) wanted = count;
  if (wanted <= 1) return;
  for (size_t t = 0; t < wanted; ++t) {
    try {
      threads_.emplace_back([this] { runTasks(); });
    } catch (const std::system_error&) {
      break;  // fewer threads; waitFor runs the rest itself if none started
    }
  }
}

OrderedWork::~OrderedWork() {
  dropFrom(0);
  for (std::thread& t : threads_) t.join();
}

void OrderedWork::runTasks() {
  for (;;) {
    size_t i;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (next_ >= limit_) return;
      i = next_++;
    }
    task_(i);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      done_[i] = 1;
    }
    finished_.notify_all();
  }
}

bool OrderedWork::waitFor(size_t i) {
  if (i >= count_) return false;
  std::unique_lock<std::mutex> lock(mutex_);
  if (threads_.empty()) {
    // Inline: run every task up to i that has not run, in order.
    while (next_ <= i && next_ < limit_) {
      size_t j = next_++;
      lock.unlock();
      task_(j);
      lock.lock();
      done_[j] = 1;
    }
    return done_[i] != 0;
  }
  finished_.wait(lock, [&] { return done_[i] != 0 || (i >= limit_ && next_ <= i); });
  return done_[i] != 0;
}

void OrderedWork::dropFrom(size_t first) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (first < limit_) limit_ = first < next_ ? next_ : first;
  finished_.notify_all();
}
