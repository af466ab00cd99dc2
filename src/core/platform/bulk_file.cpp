#include "core/platform/bulk_file.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace nvo::platform {
namespace {

constexpr std::size_t kCopyBytes = 256 * kBulkBlock;
/// A flush begins when so much was written since the last one, and that is done.
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
  parts_.clear();
  end_ = unflushed_ = 0;
  direct_ = past_cache;
  if (past_cache && !copied_) copied_ = allocate_bulk(kCopyBytes);
}

void BulkFile::take_over(File file) {
  file_ = std::move(file);
  next_ = 0;
  direct_ = direct_ && file_.set_direct(true);
}

int BulkFile::write_at(std::uint64_t offset, const void* data, std::size_t size) {
  if (const int error = flush_behind()) return error;
  unflushed_ += size;
  end_ = std::max(end_, offset + size);
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  return direct_ ? write_direct(offset, bytes, size) : write_cached(offset, bytes, size);
}

int BulkFile::write_direct(std::uint64_t offset, const std::uint8_t* data, std::size_t size) {
  const std::size_t into_block = offset % kBulkBlock;
  const std::size_t head = into_block == 0 ? 0 : std::min(size, kBulkBlock - into_block);
  const std::size_t whole = whole_blocks(size - head);
  if (const int error = write_part(offset, data, head)) return error;
  offset += head, data += head;
  if (const int error =
          is_aligned(data) ? write_blocks(offset, data, whole) : write_copied(offset, data, whole))
    return error;
  return write_part(offset + whole, data + whole, size - head - whole);
}

/// Bytes of one block, which is written when it is whole.
int BulkFile::write_part(std::uint64_t offset, const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  if (!direct_) return write_cached(offset, data, size);
  const std::size_t into_block = offset % kBulkBlock;
  auto part = std::ranges::find(parts_, offset - into_block, &PartBlock::offset);
  if (part == parts_.end())
    part = parts_.insert(part, {offset - into_block, 0, 0, allocate_bulk(kBulkBlock)});
  std::memcpy(part->bytes.get() + into_block, data, size);
  part->filled += size;
  part->end = std::max(part->end, into_block + size);
  if (part->filled < kBulkBlock) return 0;
  const PartBlock whole = std::move(*part);
  parts_.erase(part);
  return write_blocks(whole.offset, whole.bytes.get(), kBulkBlock);
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

int BulkFile::write_copied(std::uint64_t offset, const std::uint8_t* data, std::size_t size) {
  while (size != 0) {
    const std::size_t piece = std::min(size, kCopyBytes);
    std::memcpy(copied_.get(), data, piece);
    if (const int error = write_blocks(offset, copied_.get(), piece)) return error;
    offset += piece, data += piece;
    size -= piece;
  }
  return 0;
}

/// A file system may accept direct mode and then refuse a write, or take a part that ends inside a block; the
/// cache takes over from there.
int BulkFile::write_blocks(std::uint64_t offset, const std::uint8_t* data, std::size_t size) {
  while (direct_ && size != 0) {
    std::size_t written = 0;
    if (const int error = seek(offset)) return error;
    if (const int error = file_.write_some(data, size, written)) {
      if (!means_bad_alignment(error)) return error;
      if (const int other_error = leave_direct_mode()) return other_error;
      continue;
    }
    next_ = offset + written;
    offset += written, data += written;
    size -= written;
    if (written % kBulkBlock == 0 && written != 0) continue;
    if (const int error = leave_direct_mode()) return error;
  }
  return write_cached(offset, data, size);
}

int BulkFile::write_cached(std::uint64_t offset, const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  if (const int error = seek(offset)) return error;
  if (const int error = file_.write_all(data, size)) {
    next_.reset();
    return error;
  }
  next_ = offset + size;
  return 0;
}

int BulkFile::seek(std::uint64_t offset) {
  if (next_ == offset) return 0;
  next_.reset();
  if (const int error = file_.seek(offset)) return error;
  next_ = offset;
  return 0;
}

/// What was held back goes into the cache. Bytes of these blocks that are still to come take their places
/// later.
int BulkFile::leave_direct_mode() {
  file_.set_direct(false);
  direct_ = false;
  for (const PartBlock& part : std::exchange(parts_, {}))
    if (const int error = write_cached(part.offset, part.bytes.get(), part.end)) return error;
  return 0;
}

int BulkFile::flush() {
  if (const int error = wait_for_flush()) return error;
  if (const int error = direct_ ? leave_direct_mode() : 0) return error;
  return file_.flush();
}

int BulkFile::close() {
  const int flushed = wait_for_flush();
  const int closed = file_.close();
  parts_.clear();
  unflushed_ = 0;
  return flushed ? flushed : closed;
}

}  // namespace nvo::platform
