#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/platform/bulk_file.h"
#include "core/platform/file.h"

namespace nvo {

/// The open temporary file of one atomic write. Closes itself; deleting the file is the writer's job.
struct TempFile {
  std::string path;
  platform::File handle;
  platform::TemporaryName name;
};

/// A path for a temporary file beside `target`: the target's path and `ending`, of at most `kLongestEnding`
/// bytes. A name that would get too long for the system is cut, and a hash makes up for the rest.
inline constexpr std::size_t kLongestEnding = 80;
std::string path_beside(const std::string& target, std::string_view ending);

/// How the temporary files of a write are called.
struct TemporaryNames {
  std::string (*path)(const std::string& target, int attempt);
  int attempts;
  bool despite_errors;  ///< another name is tried after any error, not only where this one is taken
};

/// `<name>.tmp.<token>.<attempt>`, a name that no other process or thread takes.
std::string unique_temp_path(const std::string& target, int attempt);
inline constexpr TemporaryNames kUniqueNames{unique_temp_path, 128, false};

/// Why a write came to nothing.
struct WriteFailure {
  enum class Step { create, write, flush, close, replace };
  Step step;
  std::string path;     ///< the temporary file, or the target that it could not become
  std::uint64_t bytes;  ///< that this step was to bring to the disk
  int error;            ///< of `platform`

  /// "cannot flush '/out/a.prt.tmp.7' (5012 bytes wanted): No space left on device"
  std::string text() const;
};

/// Whether a target that stands, or appears meanwhile, is replaced or makes the write fail.
enum class Existing { replace, keep };

/// The one way in which this program writes a file that takes its name only when it is whole: a temporary
/// file beside the target, known to the cleanup on termination before it exists, that is flushed and then
/// moved over the target, whose folder is flushed too. A file that replaces another has its access rights. A
/// step returns what failed, or nothing; a failure gives the write up, and so does the destructor: the target
/// is then what it was, and no temporary file is left. For one thread. Throws only for memory.
class AtomicFile {
 public:
  AtomicFile() = default;
  ~AtomicFile() { give_up(); }
  AtomicFile(const AtomicFile&) = delete;
  AtomicFile& operator=(const AtomicFile&) = delete;

  /// Begins a write of `bytes` bytes to `target`; 0 where the number isn't known. One of at least
  /// a block goes past the page cache, see `BulkFile`. A write that is under way is given up.
  [[nodiscard]] std::optional<WriteFailure> begin(const std::string& target, std::uint64_t bytes,
                                                  const TemporaryNames& names = kUniqueNames);
  [[nodiscard]] std::optional<WriteFailure> append(const void* data, std::size_t size);
  /// Writes bytes to their place, in any order; see `BulkFile`.
  [[nodiscard]] std::optional<WriteFailure> write_at(std::uint64_t offset, const void* data,
                                                     std::size_t size);
  /// From here on the target is the new file.
  [[nodiscard]] std::optional<WriteFailure> commit(Existing existing = Existing::replace);
  void give_up() noexcept;

  bool is_open() const { return file_.is_open(); }

 private:
  std::optional<WriteFailure> after_write(std::size_t size, int error);
  WriteFailure fail(WriteFailure::Step step, std::uint64_t bytes, int error);

  TempFile temp_;  ///< its handle is in `file_`
  platform::BulkFile file_;
  std::string target_;
  std::uint64_t bytes_ = 0;  ///< as announced, or as many as came if those are more
  std::uint64_t written_ = 0;
};

/// A new file beside `target` under the first of the names that is free. The code is 0 or the last error; a
/// name that failed stays in `temp.path`.
int create_temp(const std::string& target, const TemporaryNames& names, TempFile& temp);

/// Moves `temp` over `target` in one step; waits out another process that has the target open for a moment.
/// Returns 0 or the error.
int replace_patiently(const std::string& temp, const std::string& target);

}  // namespace nvo
