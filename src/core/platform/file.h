#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace nvo::platform {

/// The code of a write of which the system took nothing without saying why.
inline constexpr int kNothingTaken = -1;
/// The system's text for an error code of this header's functions.
std::string error_text(int code);
bool means_already_exists(int code);
bool means_not_found(int code);
/// True where another process holds the file for a moment and a later try may succeed.
bool is_transient(int code);
/// True where a direct write was not made of whole blocks.
bool means_bad_alignment(int code);

class TemporaryName;

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
  /// The same for a temporary file, which from the first moment goes if the process is ended by a signal, as
  /// long as `name` lives. It is locked, so that other processes know it for one in use.
  int create_temporary(const std::string& path, TemporaryName& name);
  /// Opens a file to write at its end, made where there is none. A pipe is not waited for.
  int open_append(const std::string& path);
  /// Gives the file the access rights of the regular file at `path`, if there is one.
  void take_mode_of(const std::string& path);

  bool is_open() const { return descriptor_ >= 0; }

  /// Sets where the next write begins, also behind the file's end.
  int seek(std::uint64_t offset);
  /// Writes up to `size` bytes; `written` tells how many.
  int write_some(const void* data, std::size_t size, std::size_t& written);
  /// Writes all bytes, in as many calls as the system wants.
  int write_all(const void* data, std::size_t size);
  /// Turns writing past the page cache on or off; false where the file system has no such mode. While it is
  /// on, addresses, sizes and places in the file must be whole blocks.
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

/// The same, but the error is "already exists" where anything stands at `to`, also if it came this moment. A
/// file system that can't do that in one step leaves a moment between the look and the move.
int move_to_new_name(const std::string& from, const std::string& to);

/// Whether a process of this id may be running, other than this one.
bool may_be_alive(unsigned long process);

/// Removes a regular file that no process has locked as `create_temporary` does. True where it is gone.
bool remove_if_unlocked(const std::string& path) noexcept;

/// Removes a file; nobody asks whether it was there.
void remove_file(const std::string& path) noexcept;

/// Names a file that has to go if the process is ended by a signal; `File::create_temporary` sets it.
/// `release` it, or let it go out of scope, when the file has been moved or removed.
class TemporaryName {
 public:
  TemporaryName() = default;
  TemporaryName(TemporaryName&& other) noexcept;
  TemporaryName& operator=(TemporaryName&& other) noexcept;
  ~TemporaryName();
  void release() noexcept;

 private:
  friend class File;
  int slot_ = -1;
};

/// Removes the files of all live `TemporaryName`s and lets no other thread make further ones. For the end of
/// the process: safe in a signal handler, needs no memory.
void remove_live_temporaries() noexcept;

/// From here on a termination request (INT, TERM, HUP, QUIT) removes all live `TemporaryName` files and ends
/// an unfinished line on standard error before the process ends by that signal, and a closed standard output
/// no longer ends it. For the start of `main`.
void install_termination_cleanup();

}  // namespace nvo::platform
