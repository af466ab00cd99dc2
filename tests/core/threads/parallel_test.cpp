#include "core/threads/parallel.h"

#include <atomic>
#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "core/threads/started_work.h"
#include "core/threads/thread_pool.h"
#include "support/failure.h"

namespace nvo {
namespace {

using test::failure_of;

TEST(ParallelRanges, CoverEveryItemOnceInContiguousRanges) {
  for (const std::size_t count : {0u, 1u, 5u, 64u, 1000u}) {
    for (const std::size_t workers : {0u, 1u, 2u, 3u, 8u, 100u}) {
      std::vector<std::atomic<int>> seen(count);
      parallel_ranges(count, workers, [&](std::size_t begin, std::size_t end, std::size_t) {
        for (std::size_t i = begin; i < end; ++i) ++seen[i];
      });
      for (const auto& times : seen) EXPECT_EQ(times, 1);
    }
  }
}

TEST(GuidedRanges, JoinUpAndShrinkToTheLeast) {
  for (const std::size_t count : {0u, 1u, 15u, 16u, 17u, 1024u, 6144u}) {
    for (const std::size_t workers : {0u, 1u, 2u, 5u}) {
      std::size_t next = 0, before = count;
      for (const auto& [begin, end] : guided_ranges(count, workers, 16)) {
        EXPECT_EQ(begin, next);
        EXPECT_GE(end - begin, std::min<std::size_t>(count, 16));
        EXPECT_LE(end - begin, before + 15);
        EXPECT_TRUE(workers > 1 || end - begin == count);
        before = end - begin;
        next = end;
      }
      EXPECT_EQ(next, count);
    }
  }
  EXPECT_EQ(guided_ranges(6144, 2, 16).front().end, 1536u);
}

// Threads stay from call to call and are shared by calls that run at once and inside one another.
TEST(ParallelTasks, EachTaskRunsOnceUnderItsWorkersNumber) {
  const auto divide = [](std::size_t workers) {
    std::vector<std::atomic<int>> seen(200);
    std::vector<std::atomic<int>> inside(workers);
    parallel_tasks(seen.size(), workers, [&](std::size_t task, std::size_t worker) {
      ASSERT_LT(worker, workers);
      EXPECT_EQ(inside[worker]++, 0) << "two threads with one number";
      parallel_tasks(3, 2, [&](std::size_t, std::size_t) { ++seen[task]; });
      --inside[worker];
    });
    for (const auto& times : seen) EXPECT_EQ(times, 3);
  };
  std::vector<std::jthread> callers;
  for (const std::size_t workers : {1u, 2u, 3u, 8u})
    callers.emplace_back([&divide, workers] {
      for (int round = 0; round < 20; ++round) divide(workers);
    });
}

// All workers stand at the gate at once, so they are threads of their own.
TEST(ParallelTasks, AsManyThreadsAsWorkers) {
  std::atomic<int> arrived{0};
  parallel_tasks(6, 6, [&](std::size_t, std::size_t) {
    ++arrived;
    while (arrived < 6) std::this_thread::yield();
  });
  EXPECT_EQ(arrived, 6);
}

TEST(ParallelTasks, FirstTaskThatFailedWins) {
  for (const std::size_t workers : {1u, 4u}) {
    std::atomic<std::size_t> last{0};
    const auto work = [&](std::size_t task, std::size_t) {
      for (std::size_t seen = last; seen < task && !last.compare_exchange_weak(seen, task);) {
      }
      if (task >= 5) throw std::runtime_error("task " + std::to_string(task));
    };
    EXPECT_EQ(failure_of([&] { parallel_tasks(1000, workers, work); }), "task 5");
    EXPECT_LT(last, 999u) << "no task begins after a failure";
  }
}

std::ptrdiff_t threads_of_process() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return std::distance(begin(tasks), end(tasks));
}

TEST(ParallelTasks, MakeNoMoreThreadsThanWereWantedAtATime) {
  const auto divide = [] { parallel_tasks(2, 3, [](std::size_t, std::size_t) {}); };
  divide();
  const std::ptrdiff_t threads = threads_of_process();
  for (int round = 0; round < 2000; ++round) divide();
  EXPECT_EQ(threads_of_process(), threads);
}

// All stand at the gate at once.
TEST(StartedWork, BeginsAtOnceAndEndsBeforeItIsDropped) {
  constexpr int kWorks = 40;
  std::atomic<int> arrived{0};
  std::vector<std::atomic<bool>> ended(kWorks);
  std::vector<StartedWork<int>> works;
  for (int i = 0; i < kWorks; ++i)
    works.push_back(start_work([&arrived, &ended, i] {
      for (++arrived; arrived <= kWorks;) std::this_thread::yield();
      ended[i] = true;
      return i != 4 ? i : throw std::runtime_error("work 4");
    }));
  while (arrived < kWorks) std::this_thread::yield();
  ++arrived;
  works[0] = StartedWork<int>();
  EXPECT_TRUE(ended[0] && !works[0].valid());
  EXPECT_EQ(works[3].get(), 3);
  EXPECT_EQ(failure_of([&] { works[4].get(); }), "work 4");
  works.clear();
  for (const auto& done : ended) EXPECT_TRUE(done);
}

TEST(ThreadPool, ShutdownDrainsOrDiscardsTheQueue) {
  for (const bool discard : {false, true}) {
    ThreadPool pool(1);
    std::promise<void> begun, gate;
    std::atomic<int> ran{0};
    const auto block_and_fail = [&](std::size_t scratch) {
      begun.set_value();
      gate.get_future().wait();
      throw std::runtime_error("with scratch " + std::to_string(scratch));
    };
    auto first = pool.submit(block_and_fail, 3);
    begun.get_future().wait();  // else it could be thrown away with the rest
    for (int i = 0; i < 20; ++i) pool.submit([&](std::size_t) { ++ran; }, 0);
    // Once submitting fails, a shutdown that waits for the blocked worker has already dealt with the queue.
    std::thread stopper([&] { pool.shutdown(discard); });
    while (failure_of([&] { pool.submit([](std::size_t) {}, 0); }).empty()) std::this_thread::yield();
    gate.set_value();
    stopper.join();
    EXPECT_EQ(failure_of([&] { first.get(); }), "with scratch 3");
    EXPECT_EQ(ran, discard ? 0 : 20);
  }
}

}  // namespace
}  // namespace nvo
