#include "core/threads/parallel.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <mutex>

#include "core/threads/thread_pool.h"

namespace nvo {
namespace {

/// A set of tasks in work.
class TaskSet {
 public:
  TaskSet(std::size_t count, const std::function<void(std::size_t, std::size_t)>& body)
      : count_(count), body_(body) {}

  /// Does tasks until none is left. Never throws.
  void work(std::size_t worker) {
    for (std::size_t task = next_++; task < count_; task = next_++) {
      try {
        body_(task, worker);
      } catch (...) {
        next_ = count_;
        const std::lock_guard lock(mutex_);
        if (failure_ && failed_task_ < task) continue;
        failed_task_ = task;
        failure_ = std::current_exception();
      }
    }
  }

  void rethrow_failure() const {
    if (failure_) std::rethrow_exception(failure_);
  }

 private:
  const std::size_t count_;
  const std::function<void(std::size_t, std::size_t)>& body_;
  std::atomic<std::size_t> next_{0};
  std::mutex mutex_;
  std::size_t failed_task_ = 0;
  std::exception_ptr failure_;
};

}  // namespace

void parallel_tasks(std::size_t count, std::size_t workers,
                    const std::function<void(std::size_t, std::size_t)>& body) {
  TaskSet tasks(count, body);
  workers = std::min(workers, count);
  if (workers < 2)
    tasks.work(0);
  else
    ThreadPool::shared().work_together(workers - 1, [&](std::size_t worker) { tasks.work(worker); });
  tasks.rethrow_failure();
}

std::vector<WorkRange> guided_ranges(std::size_t count, std::size_t workers, std::size_t least) {
  least = std::max<std::size_t>(least, 1);
  std::vector<WorkRange> ranges;
  for (std::size_t begin = 0; begin < count;) {
    const std::size_t left = count - begin;
    std::size_t size = workers < 2 ? left : std::max(left / (2 * workers), least);
    if (left < size + least) size = left;
    ranges.push_back({begin, begin + size});
    begin += size;
  }
  return ranges;
}

void parallel_ranges(std::size_t count, std::size_t workers,
                     const std::function<void(std::size_t, std::size_t, std::size_t)>& body) {
  workers = std::clamp<std::size_t>(workers, 1, std::max<std::size_t>(count, 1));
  parallel_tasks(workers, workers, [&](std::size_t range, std::size_t) {
    body(range * count / workers, (range + 1) * count / workers, range);
  });
}

}  // namespace nvo
