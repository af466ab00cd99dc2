#pragma once

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>

namespace nvo::bench {

/// A file that is written once from its beginning to its end. The first failure of a write is kept until
/// `close`, so that the callbacks of a C library may write.
class OutputFile {
 public:
  explicit OutputFile(const std::string& path) : path_(path), file_(std::fopen(path.c_str(), "wb")) {
    if (file_ == nullptr) fail(errno);
  }
  ~OutputFile() {
    if (file_ != nullptr) std::fclose(file_);
  }
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  void write(const void* data, std::size_t size) {
    size_ += size;
    if (std::fwrite(data, 1, size, file_) != size && error_ == 0) error_ = errno;
  }
  void write(std::string_view text) { write(text.data(), text.size()); }

  /// Bytes written so far.
  std::size_t size() const { return size_; }

  /// Throws `runtime_error` if the file isn't whole.
  void close() {
    std::FILE* file = file_;
    file_ = nullptr;
    if (std::fclose(file) != 0 && error_ == 0) error_ = errno;
    if (error_ != 0) fail(error_);
  }

 private:
  [[noreturn]] void fail(int error) const {
    throw std::runtime_error(path_ + " can't be written: " + std::strerror(error));
  }

  std::string path_;
  std::FILE* file_;
  std::size_t size_ = 0;
  int error_ = 0;
};

}  // namespace nvo::bench
