#pragma once

#include <new>
#include <string>
#include <utility>

namespace nvo {

/// Memory ran out, with a text that says for what. It is a `bad_alloc`, and like it ends the job: no layer
/// may take it for a bad file and print on without the image.
class OutOfMemory : public std::bad_alloc {
 public:
  explicit OutOfMemory(std::string text) : text_(std::move(text)) {}
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string text_;
};

}  // namespace nvo
