#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace nvo::platform {

/// A regular file open for reading. It is never waited for: pipes, sockets and devices do not open. Several
/// threads may read one file.
class InputFile {
 public:
  InputFile() = default;
  InputFile(InputFile&& other) noexcept;
  ~InputFile();

  /// Returns 0 or the system's error, which `tells_of_path` judges.
  int open(const std::string& path);
  void close() noexcept;
  bool is_open() const { return descriptor_ >= 0; }

  /// Bytes that the file had when it was opened.
  std::uint64_t size() const { return size_; }
  /// Reads up to `size` bytes from `offset` on; `read` tells how many there were. Returns 0 or the system's
  /// error, which is a failure of the machine, not of the file.
  int read_at(std::uint64_t offset, void* data, std::size_t size, std::size_t& read) const noexcept;

 private:
  int descriptor_ = -1;
  std::uint64_t size_ = 0;
};

/// True where a file did not open because of what stands at its path: nothing, no regular file, nothing that
/// this user may read. Any other error means that the machine has failed.
bool tells_of_path(int code);
/// True where the file is there but not for this user.
bool means_no_permission(int code);
/// For a person, why no file was opened.
std::string input_error_text(int code);

/// What stands at a path, links followed.
struct PathStatus {
  bool is_regular = false, is_folder = false;
  std::uint64_t size = 0;  ///< of a regular file
};
/// Returns 0 or the system's error, which `tells_of_path` judges.
int path_status(const std::string& path, PathStatus& status);

/// Asks for the status of whatever stands at a path: 0 where it could be had or nothing is there, otherwise
/// the system's error, such as that of a folder on the way that this user may not enter.
int path_error(const std::string& path);

}  // namespace nvo::platform
