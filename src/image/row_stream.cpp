#include "image/row_stream.h"

#include <algorithm>
#include <exception>

#include "core/log.h"
#include "core/machine_failure.h"

namespace nvo {

void RowStream::read(const Rows& now, const Rows& next, std::vector<std::uint8_t>& out) {
  if (ahead_.valid()) ahead_.get();
  advance_to(now);
  held_.swap(out);
  const std::size_t kept_from = std::clamp(next.begin, held_begin_, decoded_);
  held_.assign(out.begin() + static_cast<std::ptrdiff_t>((kept_from - held_begin_) * row_bytes()), out.end());
  held_begin_ = static_cast<std::uint32_t>(kept_from);
  if (next.end > decoded_) ahead_ = start_work([this, next] { advance_to(next); });
}

/// Makes `rows` the first ones held.
void RowStream::advance_to(const Rows& rows) {
  const std::uint32_t gone = std::min(rows.begin, decoded_);
  if (gone < held_begin_) throw std::logic_error("RowStream: a request goes back to an earlier row");
  held_.erase(held_.begin(), held_.begin() + static_cast<std::ptrdiff_t>((gone - held_begin_) * row_bytes()));
  held_begin_ = gone;
  for (; decoded_ < rows.begin; held_begin_ = ++decoded_) {  // rows that nobody wants
    held_.resize(row_bytes());
    decode(1, held_.data());
  }
  if (decoded_ == rows.begin) held_.clear();
  if (decoded_ >= rows.end) return;
  const std::size_t before = held_.size();
  const std::uint32_t count = rows.end - decoded_;
  held_.resize(before + count * row_bytes());
  decode(count, held_.data() + before);
  decoded_ = rows.end;
}

void RowStream::decode(std::uint32_t rows, std::uint8_t* out) {
  HeldLog said;
  try {
    decoder_->read_rows(rows, out);
  } catch (const std::exception& failure) {
    rethrow_machine_failure();
    throw RowStreamBroken(failure.what());
  }
  const std::vector<LogEntry> entries = said.take();
  if (!entries.empty()) throw RowStreamBroken(entries.front().text);
}

void RowStream::finish() {
  if (ahead_.valid()) ahead_.get();
  advance_to({meta_.height, meta_.height});
}

}  // namespace nvo
