#include "core/threads/thread_pool.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <stdexcept>

#include "core/log.h"

namespace nvo {
namespace {

/// Work goes on with the threads that there are, and its results are the same.
void warn_of_shortage(const std::system_error& error) {
  log_warn("The system gives the job no more threads (", error.code().message(),
           "); it goes on with those that it has, more slowly, and prints the same");
}

/// The task as work of one thread; it is destroyed before it counts as done.
std::function<void(std::size_t)> run_once(std::function<void()> task) {
  return [task = std::move(task)](std::size_t) mutable { std::exchange(task, nullptr)(); };
}

}  // namespace

/// Work for up to `places` threads at a time.
struct ThreadPool::Offer {
  std::function<void(std::size_t)> work;
  std::size_t places = 1;       ///< threads still wanted
  std::size_t at_work = 0;      ///< threads that came and have not ended
  std::size_t next_worker = 1;  ///< number of the thread that comes next
};

struct ThreadPool::State {
  std::mutex mutex;
  std::condition_variable wake, ended;
  std::deque<std::shared_ptr<Offer>> queue;  ///< offers with places
  std::size_t open_places = 0;               ///< of all of them
  std::size_t idle = 0;                      ///< threads that wait, or have just been made
  bool stopping = false;

  /// Under the mutex.
  void push(std::shared_ptr<Offer> offer) {
    if (stopping) throw std::runtime_error("ThreadPool stopped");
    const std::size_t places = offer->places;
    queue.push_back(std::move(offer));
    open_places += places;
  }
};

ThreadPool::ThreadPool(WithoutThreads) : state_(std::make_shared<State>()) {}

ThreadPool::ThreadPool(std::size_t thread_count) : ThreadPool(WithoutThreads{}) {
  if (thread_count == 0) thread_count = std::max(1u, std::thread::hardware_concurrency());
  std::optional<std::system_error> shortage;
  {
    const std::lock_guard lock(state_->mutex);
    shortage = require_idle(thread_count);
    if (shortage && workers_.empty()) throw *shortage;
  }
  if (shortage) warn_of_shortage(*shortage);
}

ThreadPool::~ThreadPool() {
  try {
    shutdown(false);
  } catch (...) {  // a destructor has nobody to tell
  }
}

ThreadPool& ThreadPool::shared() {
  static ThreadPool pool(WithoutThreads{});
  return pool;
}

/// Makes threads until so many wait, under the mutex. Answers with the system's error where it gives fewer.
std::optional<std::system_error> ThreadPool::require_idle(std::size_t count) try {
  for (; state_->idle < count; ++state_->idle) workers_.emplace_back([state = state_] { work(state); });
  return std::nullopt;
} catch (const std::system_error& error) {
  return error;
}

void ThreadPool::work(const std::shared_ptr<State>& state) {
  std::unique_lock lock(state->mutex);
  for (;;) {
    state->wake.wait(lock, [&] { return state->stopping || !state->queue.empty(); });
    if (state->queue.empty()) return;
    const std::shared_ptr<Offer> offer = state->queue.front();
    const std::size_t worker = offer->next_worker++;
    ++offer->at_work;
    if (--offer->places == 0) state->queue.pop_front();
    --state->open_places;
    --state->idle;
    lock.unlock();
    offer->work(worker);
    lock.lock();
    ++state->idle;
    if (--offer->at_work == 0) state->ended.notify_all();
  }
}

void ThreadPool::post(std::function<void()> task) {
  auto offer = std::make_shared<Offer>(Offer{run_once(std::move(task))});
  {
    const std::lock_guard lock(state_->mutex);
    state_->push(std::move(offer));
  }
  state_->wake.notify_one();
}

bool ThreadPool::post_at_once(std::function<void()> task) {
  auto offer = std::make_shared<Offer>(Offer{run_once(std::move(task))});
  std::optional<std::system_error> shortage;
  {
    const std::lock_guard lock(state_->mutex);
    shortage = require_idle(state_->open_places + 1);
    if (!shortage) state_->push(std::move(offer));
  }
  if (shortage)
    warn_of_shortage(*shortage);
  else
    state_->wake.notify_one();
  return !shortage;
}

void ThreadPool::work_together(std::size_t helpers, const std::function<void(std::size_t)>& work) {
  /// Takes back what nobody has come for, and waits for the others.
  struct Ending {
    State& state;
    Offer& offer;
    ~Ending() {
      std::unique_lock lock(state.mutex);
      state.open_places -= offer.places;
      if (offer.places != 0) std::erase_if(state.queue, [&](const auto& o) { return o.get() == &offer; });
      state.ended.wait(lock, [&] { return offer.at_work == 0; });
    }
  };
  const auto offer = std::make_shared<Offer>(Offer{[&work](std::size_t worker) { work(worker); }, helpers});
  std::optional<std::system_error> shortage;
  {
    const std::lock_guard lock(state_->mutex);
    shortage = require_idle(state_->open_places + helpers);
    state_->push(offer);
  }
  const Ending ending{*state_, *offer};
  for (std::size_t i = 0; i < helpers; ++i) state_->wake.notify_one();
  if (shortage) warn_of_shortage(*shortage);
  work(0);
}

void ThreadPool::shutdown(bool discard_pending) {
  std::optional<std::deque<std::shared_ptr<Offer>>> discarded;  // even an empty one takes memory
  {
    const std::lock_guard lock(state_->mutex);
    if (discard_pending) {
      discarded.emplace().swap(state_->queue);
      state_->open_places = 0;
      for (const auto& offer : *discarded) offer->places = 0;
    }
    state_->stopping = true;
  }
  state_->wake.notify_all();
  for (std::thread& worker : workers_)
    if (worker.joinable()) worker.join();
}

std::unique_ptr<ThreadPool> make_thread_pool(std::size_t thread_count) try {
  return std::make_unique<ThreadPool>(thread_count);
} catch (const std::system_error& no_thread) {
  warn_of_shortage(no_thread);
  return nullptr;
}

}  // namespace nvo
