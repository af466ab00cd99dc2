/// Preloaded into a job by `run_table cores`: takes the disk out of its time. Large writes, those of the
/// print file's rows, go nowhere and say that they have succeeded. What is left is the work of the program
/// itself.
#include <cstddef>

#include <sys/syscall.h>
#include <unistd.h>

extern "C" ssize_t write(int descriptor, const void* data, std::size_t size) {
  constexpr std::size_t kRowsOfThePrintFile = std::size_t{1} << 20;
  if (size >= kRowsOfThePrintFile) return static_cast<ssize_t>(size);
  return ::syscall(SYS_write, descriptor, data, size);
}
