#include <cstdlib>
#include <exception>

#include <unistd.h>

#include "core/machine_failure.h"
#include "core/platform/file.h"
#include "core/platform/last_resort.h"
#include "core/platform/terminal.h"

namespace nvo::platform {
namespace {

constexpr int kExitFailed = 2;

[[noreturn]] void end_process(const char* text) noexcept {
  remove_live_temporaries();
  end_last_line();
  write_error_line("Fatal: ", text);
  ::_exit(kExitFailed);
}

/// Not even an exception could be made: a shortage of memory, unless there is some.
bool is_memory_short() noexcept {
  constexpr std::size_t kLittle = 4096;
  void* volatile memory = std::malloc(kLittle);
  std::free(memory);
  return !memory;
}

[[noreturn]] void end_by_terminate() noexcept {
  if (!std::current_exception()) end_process(is_memory_short() ? kOutOfMemoryText : "internal failure");
  try {
    throw;
  } catch (const std::exception& failure) {
    end_process(failure_text(failure));
  } catch (...) {
    remove_live_temporaries();
    std::abort();
  }
}

// Before every other static object of the program is made.
[[gnu::constructor(101)]] void install_early() {
  install_last_resort();
}

}  // namespace

void install_last_resort() noexcept {
  std::set_terminate(end_by_terminate);
}

}  // namespace nvo::platform
