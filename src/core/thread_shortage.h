#pragma once

#include <chrono>
#include <future>
#include <system_error>
#include <type_traits>
#include <utility>

namespace nvo {

/// Warns that the system gives no further thread. Work goes on with the threads that there are, and its
/// results are the same.
void warn_of_thread_shortage(const std::system_error& error);

/// `work` on a thread of its own. Where there is none, whoever waits for the result does the work; such a
/// future is not `runs_by_itself`.
template <class Work>
std::future<std::invoke_result_t<Work>> start_work(const Work& work) {
  try {
    return std::async(std::launch::async, work);
  } catch (const std::system_error& error) {
    warn_of_thread_shortage(error);
    return std::async(std::launch::deferred, work);
  }
}

template <class Result>
bool runs_by_itself(const std::future<Result>& work) {
  return work.wait_for(std::chrono::seconds(0)) != std::future_status::deferred;
}

}  // namespace nvo
