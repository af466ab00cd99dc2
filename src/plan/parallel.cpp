#include "plan/parallel.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>

#include "core/thread_shortage.h"

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

/// Threads that help with sets of tasks and wait for the next one in between. There are as many as were ever
/// wanted at a time.
class Helpers {
 public:
  static Helpers& shared() {
    static Helpers helpers;
    return helpers;
  }

  /// Works on `tasks` with `count` helpers, as far as they come before the work is done.
  void work_on(TaskSet& tasks, std::size_t count) {
    Offer offer{&tasks, count};
    std::optional<std::system_error> shortage;
    {
      const std::lock_guard lock(mutex_);
      shortage = require_idle(open_places_ + count);
      offers_.push_back(&offer);
      open_places_ += count;
    }
    for (std::size_t i = 0; i < count; ++i) offered_.notify_one();
    if (shortage) warn_of_thread_shortage(*shortage);
    tasks.work(0);

    std::unique_lock lock(mutex_);
    open_places_ -= offer.places;
    if (offer.places != 0) std::erase(offers_, &offer);
    ended_.wait(lock, [&] { return offer.at_work == 0; });
  }

 private:
  struct Offer {
    TaskSet* tasks;
    std::size_t places;       ///< helpers still wanted
    std::size_t at_work = 0;  ///< helpers that came and have not ended
    std::size_t next_worker = 1;
  };

  Helpers() = default;

  ~Helpers() {
    {
      const std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    offered_.notify_all();
    for (std::thread& thread : threads_) thread.join();
  }

  /// Answers with the system's error where it gives fewer threads: then fewer come to help, or none.
  std::optional<std::system_error> require_idle(std::size_t count) try {
    for (; idle_ < count; ++idle_) threads_.emplace_back([this] { help(); });
    return std::nullopt;
  } catch (const std::system_error& error) {
    return error;
  }

  void help() {
    std::unique_lock lock(mutex_);
    for (;;) {
      offered_.wait(lock, [&] { return stopping_ || !offers_.empty(); });
      if (offers_.empty()) return;
      Offer& offer = *offers_.front();
      const std::size_t worker = offer.next_worker++;
      ++offer.at_work;
      if (--offer.places == 0) offers_.pop_front();
      --open_places_;
      --idle_;
      lock.unlock();
      offer.tasks->work(worker);
      lock.lock();
      ++idle_;
      if (--offer.at_work == 0) ended_.notify_all();
    }
  }

  std::mutex mutex_;
  std::condition_variable offered_, ended_;
  std::deque<Offer*> offers_;    ///< with places
  std::size_t open_places_ = 0;  ///< of all offers
  std::size_t idle_ = 0;         ///< threads that wait, or have just been made
  std::vector<std::thread> threads_;
  bool stopping_ = false;
};

}  // namespace

void parallel_tasks(std::size_t count, std::size_t workers,
                    const std::function<void(std::size_t, std::size_t)>& body) {
  TaskSet tasks(count, body);
  workers = std::min(workers, count);
  if (workers < 2)
    tasks.work(0);
  else
    Helpers::shared().work_on(tasks, workers - 1);
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
