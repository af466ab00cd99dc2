#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace nvo::platform {

/// The system's text for an error code of this header's functions.
std::string error_text(int code);
bool means_already_exists(int code);
/// True where another process holds the file for a moment and a later try may succeed.
bool is_transient(int code);
/// True where a direct write was not made of whole blocks.
bool means_bad_alignment(int code);

/// A file open for writing. Every function reports failure through the returned code: 0, or the system's
/// error. Closes itself when destroyed. Not for several threads at once.
class File {
 public:
  File() = default;
  File(File&& other) noexcept;
  File& operator=(File&& other) noexcept;
  ~File();

  /// Creates a file that does not exist yet; the error is "already exists" where it does.
  int create_exclusive(const std::string& path);

  bool is_open() const { return descriptor_ >= 0; }

  /// Writes up to `size` bytes; `written` tells how many.
  int write_some(const void* data, std::size_t size, std::size_t& written);
  /// Writes all bytes, in as many calls as the system wants.
  int write_all(const void* data, std::size_t size);
  /// Turns writing past the page cache on or off; false where the file system has no such mode. While it is
  /// on, addresses, sizes and the file's end must be whole blocks.
  bool set_direct(bool enabled);
  /// Sends what was written on to the disk. May run beside writes, which it need not include.
  int flush();
  int close();

 private:
  int descriptor_ = -1;
};

/// Reads up to `size` bytes of an open file from `offset` on, without its position; `read` tells how many
/// there were. Several threads may read one file so. Returns 0 or the system's error.
int read_at(int descriptor, std::uint64_t offset, void* data, std::size_t size, std::size_t& read) noexcept;

/// Moves `from` over `to` in one step and makes the change durable. `to` is the old or the new file, never a
/// part.
int replace_file(const std::string& from, const std::string& to);

/// Removes a file; nobody asks whether it was there.
void remove_file(const std::string& path) noexcept;

/// Names a file that has to go if the process is ended by a signal. Set it once the file exists; `release`
/// it, or let it go out of scope, when the file has been moved or removed.
class TemporaryName {
 public:
  TemporaryName() = default;
  explicit TemporaryName(const std::string& path);
  TemporaryName(TemporaryName&& other) noexcept;
  TemporaryName& operator=(TemporaryName&& other) noexcept;
  ~TemporaryName();
  void release() noexcept;

 private:
  int slot_ = -1;
};

/// From here on a termination request (INT, TERM, HUP, QUIT) removes all live `TemporaryName` files and ends
/// an unfinished line on standard error before the process ends by that signal, and a closed standard output
/// no longer ends it. Called once by `main`.
void install_termination_cleanup();

}  // namespace nvo::platform
