#include "rip/band_queue.h"

#include <stdexcept>
#include <utility>

namespace nvo {

StripCycles BandQueue::take_spent() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return closed_ || !spent_.empty(); });
  if (closed_) throw std::runtime_error("StreamRip: the print file is no longer written");
  StripCycles cycles = std::move(spent_.back());
  spent_.pop_back();
  return cycles;
}

void BandQueue::put(StripBand band) noexcept {
  {
    const std::lock_guard lock(mutex_);
    rows_put_ += band.cycles.rows;
    filled_.push_back(std::move(band));
  }
  changed_.notify_all();
}

void BandQueue::wait_for_rows(std::uint64_t rows) {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return closed_ || rows_written_ >= rows; });
}

void BandQueue::begin_strip() {
  const std::lock_guard lock(mutex_);
  in_strip_ = true;
}

void BandQueue::end_strip() noexcept {
  {
    const std::lock_guard lock(mutex_);
    in_strip_ = false;
  }
  changed_.notify_all();
}

std::optional<std::uint64_t> BandQueue::wait_for_band(std::uint64_t known) {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return !in_strip_ || rows_put_ > known; });
  return in_strip_ ? std::optional(rows_put_) : std::nullopt;
}

void BandQueue::finish() noexcept {
  {
    const std::lock_guard lock(mutex_);
    finished_ = true;
  }
  changed_.notify_all();
}

std::optional<StripBand> BandQueue::take() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return finished_ || !filled_.empty(); });
  if (filled_.empty()) return std::nullopt;
  StripBand band = std::move(filled_.front());
  filled_.erase(filled_.begin());
  return band;
}

void BandQueue::give_back(StripCycles cycles) {
  {
    const std::lock_guard lock(mutex_);
    rows_written_ += cycles.rows;
    spent_.push_back(std::move(cycles));
  }
  changed_.notify_all();
}

void BandQueue::close() noexcept {
  {
    const std::lock_guard lock(mutex_);
    closed_ = true;
  }
  changed_.notify_all();
}

}  // namespace nvo
