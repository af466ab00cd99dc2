#pragma once

#include <cstddef>
#include <functional>
#include <vector>

namespace nvo {

/// Runs `body(task, worker)` for tasks 0 .. `count` - 1 on at most `workers` threads, the calling one among
/// them. Tasks are handed out in ascending order as threads become free; a thread keeps its number `worker`,
/// below `workers`, throughout. After an exception no further task begins; that of the first task that failed
/// is rethrown when all have ended. May be called from any thread, from a task too. Where
/// the system gives fewer threads, those that there are do the work.
///
/// Other threads than the calling one stay for the next call: a job divides its rows hundreds of times.
void parallel_tasks(std::size_t count, std::size_t workers,
                    const std::function<void(std::size_t task, std::size_t worker)>& body);

/// Items of work `begin` up to, not including, `end`: rows, mostly.
struct WorkRange {
  std::size_t begin = 0, end = 0;
};

/// Cuts `count` items into ascending ranges for `workers` threads: large ones first, then ever smaller ones,
/// none below `least` items if `count` isn't, so that all threads end together though items differ in cost.
std::vector<WorkRange> guided_ranges(std::size_t count, std::size_t workers, std::size_t least);

/// Splits `count` items into `workers` contiguous ranges, item t x count / workers up to the next such bound,
/// and runs `body(begin, end, t)` on each as `parallel_tasks` does.
void parallel_ranges(std::size_t count, std::size_t workers,
                     const std::function<void(std::size_t begin, std::size_t end, std::size_t range)>& body);

}  // namespace nvo
