#include "plan/thread_pool.h"

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <system_error>

#include "core/thread_shortage.h"

namespace nvo {

ThreadPool::ThreadPool(std::size_t thread_count) {
  if (thread_count == 0) thread_count = std::max(1u, std::thread::hardware_concurrency());
  workers_.reserve(thread_count);
  try {
    for (std::size_t i = 0; i < thread_count; ++i) workers_.emplace_back([state = state_] { work(state); });
  } catch (const std::system_error& error) {
    if (workers_.empty()) throw;
    warn_of_thread_shortage(error);
  } catch (...) {
    shutdown(true);  // a thread that nobody joins would end the process
    throw;
  }
}

ThreadPool::~ThreadPool() {
  try {
    shutdown(false);
  } catch (...) {  // a destructor has nobody to tell
  }
}

void ThreadPool::work(const std::shared_ptr<State>& state) {
  std::unique_lock lock(state->mutex);
  for (;;) {
    state->wake.wait(lock, [&] { return state->stopping || !state->queue.empty(); });
    if (state->queue.empty()) return;
    auto task = std::move(state->queue.front());
    state->queue.pop_front();
    lock.unlock();
    task();
    task = nullptr;
    lock.lock();
  }
}

void ThreadPool::post(std::function<void()> task) {
  {
    const std::lock_guard lock(state_->mutex);
    if (state_->stopping) throw std::runtime_error("ThreadPool stopped");
    state_->queue.push_back(std::move(task));
  }
  state_->wake.notify_one();
}

void ThreadPool::shutdown(bool discard_pending) {
  std::optional<std::deque<std::function<void()>>> discarded;  // even an empty one takes memory
  {
    const std::lock_guard lock(state_->mutex);
    if (discard_pending) discarded.emplace().swap(state_->queue);
    state_->stopping = true;
  }
  state_->wake.notify_all();
  for (std::thread& worker : workers_)
    if (worker.joinable()) worker.join();
}

}  // namespace nvo
