#include "plan/thread_pool.h"

#include <atomic>
#include <numeric>
#include <stdexcept>

#include <gtest/gtest.h>

#include "support/failure.h"

namespace nvo {
namespace {

using test::failure_of;

TEST(ThreadPool, ShutdownDrainsOrDiscardsTheQueue) {
  for (const bool discard : {false, true}) {
    ThreadPool pool(1);
    std::promise<void> begun, gate;
    std::atomic<int> ran{0};
    auto first = pool.submit(
        [&begun, opened = gate.get_future().share()](std::size_t scratch) {
          begun.set_value();
          opened.wait();
          return scratch;
        },
        3);
    begun.get_future().wait();  // else it could be thrown away with the rest
    std::vector<std::future<void>> rest;
    for (int i = 0; i < 20; ++i) rest.push_back(pool.submit([&](std::size_t) { ++ran; }, 0));
    // A shutdown that is waiting for the blocked worker has already dealt with the queue once submitting
    // fails.
    std::thread stopper([&] { pool.shutdown(discard); });
    while (failure_of([&] { pool.submit([](std::size_t) {}, 0); }).empty()) std::this_thread::yield();
    gate.set_value();
    stopper.join();
    EXPECT_EQ(first.get(), 3u);
    EXPECT_EQ(ran, discard ? 0 : 20);
  }
}

TEST(ThreadPool, ExceptionsReachTheWaiter) {
  ThreadPool pool(2);
  auto failing = pool.submit([](std::size_t) -> int { throw std::runtime_error("broken"); }, 0);
  auto fine = pool.submit([](std::size_t) { return 7; }, 0);
  EXPECT_EQ(fine.get(), 7);
  EXPECT_EQ(failure_of([&] { failing.get(); }), "broken");
}

}  // namespace
}  // namespace nvo
