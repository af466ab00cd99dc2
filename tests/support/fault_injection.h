#pragma once

// Include in one source of a program that is linked with
//   -Wl,--wrap=open,--wrap=write,--wrap=fsync,--wrap=close,--wrap=rename

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>

#include <fcntl.h>
#include <sys/types.h>

namespace nvo::test {

/// Which call fails, counted from 1 over all wrapped calls; 0 for none. A failing write writes half of its
/// bytes first where `short_writes` is set.
struct FaultPlan {
  long fail_at = 0;
  long calls = 0;
  bool short_writes = false;
};
inline FaultPlan fault_plan;

/// For several threads, as a large file is flushed by one of its own.
inline bool fault_is_due() {
  return ++std::atomic_ref(fault_plan.calls) == fault_plan.fail_at;
}

inline int fail(int error) {
  errno = error;
  return -1;
}

}  // namespace nvo::test

extern "C" {
int __real_open(const char* path, int flags, ...);
ssize_t __real_write(int descriptor, const void* data, std::size_t size);
int __real_fsync(int descriptor);
int __real_close(int descriptor);
int __real_rename(const char* from, const char* to);

int __wrap_open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = flags & O_CREAT ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return nvo::test::fault_is_due() ? nvo::test::fail(ENOSPC) : __real_open(path, flags, mode);
}

ssize_t __wrap_write(int descriptor, const void* data, std::size_t size) {
  if (!nvo::test::fault_is_due()) return __real_write(descriptor, data, size);
  if (nvo::test::fault_plan.short_writes && size > 1) {
    nvo::test::fault_plan.fail_at = nvo::test::fault_plan.calls + 1;
    return __real_write(descriptor, data, size / 2);
  }
  return nvo::test::fail(ENOSPC);
}

int __wrap_fsync(int descriptor) {
  return nvo::test::fault_is_due() ? nvo::test::fail(EIO) : __real_fsync(descriptor);
}

int __wrap_close(int descriptor) {
  const int result = __real_close(descriptor);
  return nvo::test::fault_is_due() ? nvo::test::fail(EIO) : result;
}

int __wrap_rename(const char* from, const char* to) {
  return nvo::test::fault_is_due() ? nvo::test::fail(EACCES) : __real_rename(from, to);
}
}
