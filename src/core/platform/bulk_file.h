#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/platform/file.h"
#include "core/threads/started_work.h"

namespace nvo::platform {

/// Unit in which the system moves file data past its cache.
inline constexpr std::size_t kBulkBlock = 4096;

struct ReleaseBulk {
  std::size_t size = 0;
  void operator()(std::uint8_t* memory) const;
};
using BulkMemory = std::unique_ptr<std::uint8_t[], ReleaseBulk>;

/// `size` zero bytes that begin on a block boundary and cost memory only once they are touched. Throws
/// `bad_alloc`.
BulkMemory allocate_bulk(std::size_t size);

/// A file of gigabytes that is written in large pieces, each to its place. Whole blocks go to the disk past
/// the page cache where that is wanted and the file system lets them: that is several times faster than
/// filling the cache, and leaves the cache to other programs. The bytes of the file are the same either way.
/// While the file grows, a thread of its own flushes what was written so far, so that the disk works from the
/// start and the last flush is short; without one a write waits. Functions return 0 or the system's error;
/// that of a flush in between comes with the next call. For one thread.
class BulkFile {
 public:
  BulkFile() = default;
  BulkFile(const BulkFile&) = delete;
  BulkFile& operator=(const BulkFile&) = delete;

  /// Gets ready for another file, which goes past the cache or not. Throws `bad_alloc`.
  void prepare(bool past_cache = true);
  /// The file to grow: open and empty. To be called after `prepare`.
  void take_over(File file);
  void take_mode_of(const std::string& path) { file_.take_mode_of(path); }
  bool is_open() const { return file_.is_open(); }

  /// Writes bytes behind those that stand furthest back.
  int append(const void* data, std::size_t size) { return write_at(end_, data, size); }
  /// Writes bytes to their place, in any order. No byte of the file may be written twice, and none may be
  /// left out. They are taken from where they are if their address lies as far into a block as their place in
  /// the file does; otherwise they are copied on the way.
  int write_at(std::uint64_t offset, const void* data, std::size_t size);

  /// Writes what is held back and sends everything on to the disk.
  int flush();
  int close();

 private:
  /// A block of the file of which some bytes are still to come.
  struct PartBlock {
    std::uint64_t offset = 0;
    std::size_t filled = 0;  ///< bytes that came
    std::size_t end = 0;     ///< behind the last of them
    BulkMemory bytes;        ///< those that didn't come are 0
  };

  int flush_behind();
  int wait_for_flush();
  int write_direct(std::uint64_t offset, const std::uint8_t* data, std::size_t size);
  int write_part(std::uint64_t offset, const std::uint8_t* data, std::size_t size);
  int write_blocks(std::uint64_t offset, const std::uint8_t* data, std::size_t size);
  int write_copied(std::uint64_t offset, const std::uint8_t* data, std::size_t size);
  int write_cached(std::uint64_t offset, const std::uint8_t* data, std::size_t size);
  int seek(std::uint64_t offset);
  int leave_direct_mode();

  File file_;
  bool direct_ = false;
  BulkMemory copied_;                  ///< room to copy through
  std::vector<PartBlock> parts_;       ///< at the borders of the pieces
  std::uint64_t end_ = 0;              ///< of the bytes that stand furthest back
  std::optional<std::uint64_t> next_;  ///< where the system would write next, if that is known
  std::size_t unflushed_ = 0;          ///< bytes written after the last flush began
  StartedWork<int> flushing_;          ///< waits in its destructor; so it stands behind `file_`
};

}  // namespace nvo::platform
