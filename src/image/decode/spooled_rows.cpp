#include "image/decode/spooled_rows.h"

#include <algorithm>
#include <utility>

namespace nvo {
namespace {

constexpr std::size_t kMaxInMemory = 16 << 20;  // a compositor keeps several sources open
constexpr std::size_t kBlockBytes = 1 << 20;    // stays in the cache between decoder and file

}  // namespace

SpooledRows::SpooledRows(std::unique_ptr<RasterDecoder> decoder, std::string path)
    : path_(std::move(path)),
      decoder_(std::move(decoder)),
      row_bytes_(decoder_->row_bytes()),
      rows_(decoder_->info().height) {}

void SpooledRows::read(std::uint32_t x, std::uint32_t y, std::uint32_t width, std::uint32_t height,
                       std::uint8_t* out) {
  decode_to(y + height);
  const std::size_t bytes = width * kRgbaBytes;
  const std::uint64_t offset = y * std::uint64_t{row_bytes_} + x * kRgbaBytes;
  if (bytes == row_bytes_) return copy(offset, bytes * height, out);
  for (std::uint32_t row = 0; row < height; ++row)
    copy(offset + row * std::uint64_t{row_bytes_}, bytes, out + row * bytes);
}

void SpooledRows::decode_to(std::uint32_t end) {
  if (end <= rows_done_) return;
  if (memory_.empty()) {
    const bool small = row_bytes_ <= kMaxInMemory / rows_;
    const std::size_t block_rows = std::max<std::size_t>(1, kBlockBytes / row_bytes_);
    if (!small) file_.emplace(path_, image_bytes());
    memory_.resize((small ? rows_ : block_rows) * row_bytes_);
  }
  const auto block_rows =
      static_cast<std::uint32_t>(std::min<std::size_t>(memory_.size() / row_bytes_, rows_));
  while (rows_done_ < end) append_rows(std::min(block_rows, end - rows_done_));
  if (rows_done_ < rows_) return;
  decoder_.reset();
  if (is_filed()) std::vector<std::uint8_t>().swap(memory_);
}

void SpooledRows::append_rows(std::uint32_t count) {
  std::uint8_t* first = memory_.data() + (is_filed() ? 0 : rows_done_ * row_bytes_);
  for (std::uint32_t row = 0; row < count; ++row, ++rows_decoded_)
    decoder_->read_row(first + row * row_bytes_);
  if (is_filed()) file_->append(first, count * row_bytes_);
  rows_done_ += count;
}

void SpooledRows::copy(std::uint64_t offset, std::size_t bytes, std::uint8_t* out) const {
  if (is_filed())
    file_->read_at(offset, out, bytes);
  else
    std::copy_n(memory_.data() + offset, bytes, out);
}

}  // namespace nvo
