#pragma once

#include <chrono>
#include <future>
#include <memory>
#include <type_traits>
#include <utility>

#include "core/threads/thread_pool.h"

namespace nvo {

/// The result of work that goes on beside the caller's. Whoever drops it, or puts another in its place, waits
/// for the work's end.
template <class Result>
class StartedWork {
 public:
  StartedWork() = default;  ///< of no work
  explicit StartedWork(std::future<Result> result) : result_(std::move(result)) {}
  StartedWork(StartedWork&&) noexcept = default;
  StartedWork& operator=(StartedWork&& other) noexcept {
    wait();
    result_ = std::move(other.result_);
    return *this;
  }
  ~StartedWork() { wait(); }

  bool valid() const { return result_.valid(); }
  /// False where the system had no thread for the work: then `get` does it, on the thread that calls it.
  bool runs_by_itself() const { return status() != std::future_status::deferred; }
  bool has_ended() const { return status() == std::future_status::ready; }
  /// Waits for the result, or throws what the work threw. Leaves none behind.
  Result get() { return result_.get(); }

 private:
  std::future_status status() const { return result_.wait_for(std::chrono::seconds(0)); }
  void wait() const noexcept {
    if (valid() && runs_by_itself()) result_.wait();
  }

  std::future<Result> result_;
};

/// Starts `work` on a thread of its own, at once.
template <class Work>
StartedWork<std::invoke_result_t<Work&>> start_work(const Work& work) {
  using Result = std::invoke_result_t<Work&>;
  const auto task = std::make_shared<std::packaged_task<Result()>>(work);
  auto result = task->get_future();
  if (!ThreadPool::shared().post_at_once([task] { (*task)(); }))
    result = std::async(std::launch::deferred, work);
  return StartedWork<Result>(std::move(result));
}

}  // namespace nvo
