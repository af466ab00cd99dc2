#pragma once

#include <cstddef>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <system_error>
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

/// Workers over one first-in-first-out queue; all threads of the program are such workers. Tasks queued
/// before `shutdown(false)` all run; after it `submit` throws. Any thread may call.
class ThreadPool final : public Executor {
 public:
  /// 0 workers means the hardware thread count, or 1 if that is unknown. Where the system gives fewer threads
  /// the pool has those, and the log says so; throws `system_error` where it gives none.
  explicit ThreadPool(std::size_t thread_count);
  ~ThreadPool() override;

  /// The pool of work that no pool of a job's own takes: it begins without threads and has as many as were
  /// ever wanted at a time.
  static ThreadPool& shared();

  /// Queues `task` for a thread that is free to begin with it, made for it where there is none. False where
  /// the system gives none, which the log then says; `task` is not queued then.
  bool post_at_once(std::function<void()> task);

  /// Calls `work(0)` on the calling thread and meanwhile `work(1)`, `work(2)`, ... on up to `helpers` others,
  /// of which more are made where too few are free. None begins once `work(0)` has returned; waits for those
  /// that have begun. On the others `work` must not throw.
  void work_together(std::size_t helpers, const std::function<void(std::size_t worker)>& work);

  /// Ends the workers and joins them, after the queue is drained or, with `discard_pending`, thrown away.
  void shutdown(bool discard_pending);

 private:
  struct State;
  struct Offer;
  struct WithoutThreads {};

  explicit ThreadPool(WithoutThreads);
  static void work(const std::shared_ptr<State>& state);
  void post(std::function<void()> task) override;
  std::optional<std::system_error> require_idle(std::size_t count);

  std::shared_ptr<State> state_;
  std::vector<std::thread> workers_;
};

/// A pool of up to `thread_count` workers; null where not even one thread is to be had, which the log then
/// says.
std::unique_ptr<ThreadPool> make_thread_pool(std::size_t thread_count);

}  // namespace nvo
