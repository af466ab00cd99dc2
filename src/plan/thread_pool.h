#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace nvo {

/// Where tasks are left to be run, on threads of its own and in an order of its own.
class Executor {
 public:
  Executor() = default;
  virtual ~Executor() = default;
  Executor(const Executor&) = delete;
  Executor& operator=(const Executor&) = delete;

  /// Queues `task(scratch_index)`; its result or exception arrives through the future. Throws where the
  /// executor takes no more tasks.
  template <class Task>
  auto submit(Task task, std::size_t scratch_index) -> std::future<std::invoke_result_t<Task&, std::size_t>> {
    using Result = std::invoke_result_t<Task&, std::size_t>;
    auto packaged = std::make_shared<std::packaged_task<Result()>>(
        [work = std::move(task), scratch_index]() mutable { return work(scratch_index); });
    auto result = packaged->get_future();
    post([packaged] { (*packaged)(); });
    return result;
  }

 private:
  virtual void post(std::function<void()> task) = 0;
};

/// A fixed set of workers over one first-in-first-out queue. Tasks queued before `shutdown(false)` all run;
/// after it `submit` throws.
class ThreadPool final : public Executor {
 public:
  /// 0 workers means the hardware thread count, or 1 if that is unknown. Where the system gives fewer threads
  /// the pool has those; throws `system_error` where it gives none.
  explicit ThreadPool(std::size_t thread_count);
  ~ThreadPool() override;

  /// Ends the workers and joins them, after the queue is drained or, with `discard_pending`, thrown away.
  void shutdown(bool discard_pending);

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<std::function<void()>> queue;
    bool stopping = false;
  };
  static void work(const std::shared_ptr<State>& state);
  void post(std::function<void()> task) override;

  std::shared_ptr<State> state_ = std::make_shared<State>();
  std::vector<std::thread> workers_;
};

}  // namespace nvo
