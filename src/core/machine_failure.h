#pragma once

#include <exception>
#include <new>
#include <stdexcept>
#include <string>
#include <system_error>
#include <typeinfo>

namespace nvo {

/// The machine has failed, not a file: memory, disk, processes. So say this type, `bad_alloc` and
/// `system_error`, whatever the text; all of them end the job. No layer may take one for a damaged file,
/// print on without the image or remember it as the file's own failure.
class MachineFailure : public std::runtime_error {
 public:
  using runtime_error::runtime_error;
};

/// Throws what a failed system call on a file means; `what` is "read", "write" and so on.
[[noreturn]] inline void fail_on_file(const char* what, const std::string& path, int error) {
  throw std::system_error(error, std::generic_category(), std::string("cannot ") + what + " '" + path + "'");
}

inline constexpr const char* kOutOfMemoryText = "out of memory";

/// What the log says of an exception. The library's own texts for a shortage of memory tell no user of one.
/// Lives as long as the exception.
inline const char* failure_text(const std::exception& failure) noexcept {
  const bool is_plain =
      typeid(failure) == typeid(std::bad_alloc) || typeid(failure) == typeid(std::bad_array_new_length);
  return is_plain ? kOutOfMemoryText : failure.what();
}

/// For the beginning of a handler that takes exceptions for the fault of a file: throws the exception in
/// flight once more where the machine has failed, and returns otherwise.
inline void rethrow_machine_failure() {
  try {
    throw;
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::system_error&) {
    throw;
  } catch (const MachineFailure&) {
    throw;
  } catch (...) {  // NOLINT: the caller's handler goes on with it
  }
}

}  // namespace nvo
