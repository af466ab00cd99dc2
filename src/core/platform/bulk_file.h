#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

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

/// A file that grows in order, to gigabytes. Whole blocks go to the disk past the page cache where that is
/// wanted and the file system lets them: that is several times faster than filling the cache, and leaves the
/// cache to other programs. The bytes of the file are the same either way. While the file grows, a thread of
/// its own flushes what was appended so far, so that the disk works from the start and the last flush is
/// short; without one `append` waits. Functions return 0 or the system's error; that of a flush in between
/// comes with the next call. For one thread.
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

  /// Appends bytes. They are taken from where they are if their address lies as far into a block as the end
  /// of the file does; otherwise they are copied on the way.
  int append(const void* data, std::size_t size);

  /// Writes what is held back and sends everything on to the disk.
  int flush();
  int close();

 private:
  int flush_behind();
  int wait_for_flush();
  int write_blocks(const std::uint8_t* data, std::size_t size);
  int write_copied(const std::uint8_t* data, std::size_t size);
  void leave_direct_mode();

  File file_;
  bool direct_ = false;
  BulkMemory held_;            ///< the unfinished block at the end of the file, and room to copy through
  std::size_t held_size_ = 0;  ///< bytes of that block
  std::size_t unflushed_ = 0;  ///< bytes appended after the last flush began
  StartedWork<int> flushing_;  ///< waits in its destructor; so it stands behind `file_`
};

}  // namespace nvo::platform
