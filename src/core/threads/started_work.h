#pragma once

#include <chrono>
#include <exception>
#include <future>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include "core/threads/thread_pool.h"

namespace nvo {

/// What work came to. The result or the failure is moved to whoever asks, so that the worker holds no part of
/// it when that one is done with it.
template <class Result>
class WorkOutcome {
 public:
  template <class Work>
  static WorkOutcome of(Work& work) {
    WorkOutcome outcome;
    try {
      if constexpr (std::is_void_v<Result>)
        work();
      else
        outcome.result_.emplace(work());
    } catch (...) {
      outcome.failure_ = std::current_exception();
    }
    return outcome;
  }
  Result take() {
    if (failure_) std::rethrow_exception(std::move(failure_));
    if constexpr (!std::is_void_v<Result>) return std::move(*result_);
  }

 private:
  struct Nothing {};
  std::optional<std::conditional_t<std::is_void_v<Result>, Nothing, Result>> result_;
  std::exception_ptr failure_;
};

/// The result of work that goes on beside the caller's. Whoever drops it, or puts another in its place, waits
/// for the work's end.
template <class Result>
class StartedWork {
 public:
  StartedWork() = default;  ///< of no work
  explicit StartedWork(std::future<WorkOutcome<Result>> result) : result_(std::move(result)) {}
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
  Result get() { return result_.get().take(); }

 private:
  std::future_status status() const { return result_.wait_for(std::chrono::seconds(0)); }
  void wait() const noexcept {
    if (valid() && runs_by_itself()) result_.wait();
  }

  std::future<WorkOutcome<Result>> result_;
};

/// Starts `work` on a thread of its own, at once.
template <class Work>
StartedWork<std::invoke_result_t<Work&>> start_work(const Work& work) {
  using Result = std::invoke_result_t<Work&>;
  const auto run = [work]() mutable { return WorkOutcome<Result>::of(work); };
  const auto task = std::make_shared<std::packaged_task<WorkOutcome<Result>()>>(run);
  auto result = task->get_future();
  if (!ThreadPool::shared().post_at_once([task] { (*task)(); }))
    result = std::async(std::launch::deferred, run);
  return StartedWork<Result>(std::move(result));
}

}  // namespace nvo
