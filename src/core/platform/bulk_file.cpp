#include "core/platform/bulk_file.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace nvo::platform {
namespace {

constexpr std::size_t kCopyBytes = 256 * kBulkBlock;
/// A flush begins when so much was appended since the last one, and that is done.
constexpr std::size_t kFlushBytes = 32 << 20;

std::size_t whole_blocks(std::size_t size) {
  return size / kBulkBlock * kBulkBlock;
}

bool is_aligned(const std::uint8_t* data) {
  return reinterpret_cast<std::uintptr_t>(data) % kBulkBlock == 0;
}

}  // namespace

void BulkFile::prepare(bool past_cache) {
  wait_for_flush();  // of a file given up
  held_size_ = unflushed_ = 0;
  direct_ = past_cache;
  if (past_cache && !held_) held_ = allocate_bulk(kCopyBytes);
}

void BulkFile::take_over(File file) {
  file_ = std::move(file);
  direct_ = direct_ && file_.set_direct(true);
}

int BulkFile::append(const void* data, std::size_t size) {
  if (const int error = flush_behind()) return error;
  unflushed_ += size;
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  if (direct_ && (held_size_ != 0 || size < kBulkBlock)) {
    const std::size_t taken = std::min(size, kBulkBlock - held_size_);
    std::memcpy(held_.get() + held_size_, bytes, taken);
    held_size_ += taken;
    bytes += taken;
    size -= taken;
    if (held_size_ < kBulkBlock) return 0;
    held_size_ = 0;
    if (const int error = write_blocks(held_.get(), kBulkBlock)) return error;
  }
  if (!direct_) return file_.write_all(bytes, size);
  const std::size_t whole = whole_blocks(size);
  if (const int error = is_aligned(bytes) ? write_blocks(bytes, whole) : write_copied(bytes, whole))
    return error;
  if (!direct_) return file_.write_all(bytes + whole, size - whole);
  held_size_ = size - whole;
  std::memcpy(held_.get(), bytes + whole, held_size_);
  return 0;
}

int BulkFile::flush_behind() {
  if (unflushed_ < kFlushBytes || (flushing_.valid() && !flushing_.has_ended())) return 0;
  if (const int error = wait_for_flush()) return error;
  unflushed_ = 0;
  flushing_ = start_work([this] { return file_.flush(); });
  return flushing_.runs_by_itself() ? 0 : wait_for_flush();
}

/// How the last flush in between ended, if nobody has asked yet: the system tells of a failure only once.
int BulkFile::wait_for_flush() {
  return flushing_.valid() ? flushing_.get() : 0;
}

int BulkFile::write_copied(const std::uint8_t* data, std::size_t size) {
  while (size != 0) {
    const std::size_t piece = std::min(size, kCopyBytes);
    std::memcpy(held_.get(), data, piece);
    if (const int error = write_blocks(held_.get(), piece)) return error;
    data += piece;
    size -= piece;
  }
  return 0;
}

/// A file system may accept direct mode and then refuse a write, or take a part that ends inside a block; the
/// cache takes over from there.
int BulkFile::write_blocks(const std::uint8_t* data, std::size_t size) {
  while (size != 0) {
    std::size_t written = 0;
    if (const int error = file_.write_some(data, size, written)) {
      if (!direct_ || !means_bad_alignment(error)) return error;
      leave_direct_mode();
      continue;
    }
    if (written == 0) return file_.write_all(data, size);
    if (written % kBulkBlock != 0) leave_direct_mode();
    data += written;
    size -= written;
  }
  return 0;
}

void BulkFile::leave_direct_mode() {
  file_.set_direct(false);
  direct_ = false;
}

int BulkFile::flush() {
  if (const int error = wait_for_flush()) return error;
  if (direct_) leave_direct_mode();
  if (const int error = file_.write_all(held_.get(), held_size_)) return error;
  held_size_ = 0;
  return file_.flush();
}

int BulkFile::close() {
  const int flushed = wait_for_flush();
  const int closed = file_.close();
  held_size_ = unflushed_ = 0;
  return flushed ? flushed : closed;
}

}  // namespace nvo::platform
