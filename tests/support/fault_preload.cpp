// Preloaded into a program (LD_PRELOAD), lets one of its calls to the system fail.
//
//   NVO_FAULT=KIND:N[:ERROR[:for-good]]  the N-th call of KIND, counted from 1, fails with this errno (a
//   number;
//                                        12 by default), and with `for-good` every later one as well.
//                                        N = 0 lets none fail.
//                                        With `signal` it succeeds, and the process gets the signal ERROR.
//   NVO_FAULT_COUNT=FILE                 at its end the program appends the number of such calls to FILE.
//   NVO_FAULT_PATH=TEXT                  only files count whose path contains TEXT.
//   NVO_FAULT_PROGRAM=NAME               the program that is meant, "nvo_rip" by default; its children are
//   not.
//
// KIND is `memory` (malloc, calloc, realloc, aligned blocks, anonymous mappings), `object` (C++ objects: the
// program's own memory without that of C libraries), `open`, `read`, `write`, `flush`, `rename`, `close`,
// `stat`, `allocate` (truncation and reservation of a file) or `thread`.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
}

namespace {

enum class Kind { none, memory, object, open, read, write, flush, rename, close, stat, allocate, thread };
constexpr const char* kNames[] = {"",      "memory", "object", "open", "read",     "write",
                                  "flush", "rename", "close",  "stat", "allocate", "thread"};

Kind watched = Kind::none;
long fail_at = 0;
int error_code = ENOMEM;
bool for_good = false, by_signal = false;
thread_local bool signal_is_due = false;
const char* path_part = nullptr;
std::atomic<long> calls{0};

__attribute__((constructor)) void read_plan() {
  const char* plan = std::getenv("NVO_FAULT");
  const char* program = std::getenv("NVO_FAULT_PROGRAM");
  if (!plan || std::strcmp(program_invocation_short_name, program ? program : "nvo_rip") != 0) return;
  char name[16] = {}, tail[16] = {};
  if (std::sscanf(plan, "%15[a-z]:%ld:%d:%15s", name, &fail_at, &error_code, tail) < 2) return;
  for_good = std::strcmp(tail, "for-good") == 0;
  by_signal = std::strcmp(tail, "signal") == 0;
  path_part = std::getenv("NVO_FAULT_PATH");
  for (std::size_t kind = 1; kind < sizeof kNames / sizeof *kNames; ++kind)
    if (std::strcmp(name, kNames[kind]) == 0) watched = static_cast<Kind>(kind);
}

__attribute__((destructor)) void tell_count() {
  const long count = calls;
  watched = Kind::none;
  const char* path = std::getenv("NVO_FAULT_COUNT");
  if (!path || !std::getenv("NVO_FAULT") || count == 0) return;
  if (std::FILE* file = std::fopen(path, "a")) {
    std::fprintf(file, "%ld\n", count);
    std::fclose(file);
  }
}

bool is_due(Kind kind) {
  if (kind != watched) return false;
  const long call = ++calls;
  if (fail_at == 0 || call < fail_at || (call > fail_at && !for_good)) return false;
  signal_is_due = by_signal;
  if (by_signal) return false;
  errno = error_code;
  return true;
}

/// The result of a call that was let through, and the signal that was to follow it. A thread that takes the
/// signal gets ahead of this one.
template <class Result>
Result done(Result result) {
  const int error = errno;
  if (std::exchange(signal_is_due, false)) {
    ::kill(::getpid(), error_code);
    ::usleep(20'000);
  }
  errno = error;
  return result;
}

bool is_due(Kind kind, const char* path) {
  return kind == watched && (!path_part || (path && std::strstr(path, path_part))) && is_due(kind);
}

bool is_due(Kind kind, int descriptor) {
  if (kind != watched) return false;
  if (!path_part) return is_due(kind);
  char link[64], path[4096];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor);
  const ssize_t size = ::readlink(link, path, sizeof path - 1);
  if (size < 0) return false;
  path[size] = '\0';
  return is_due(kind, path);
}

template <class Function>
Function next(Function, const char* name) {
  return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

void* operator new(std::size_t size) {
  if (is_due(Kind::object)) throw std::bad_alloc();
  if (void* const memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}

#define NEXT(function) static const auto real = next(&::function, #function)

extern "C" {

void* malloc(std::size_t size) noexcept {
  return is_due(Kind::memory) ? nullptr : __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) noexcept {
  return is_due(Kind::memory) ? nullptr : __libc_calloc(count, size);
}
void* realloc(void* memory, std::size_t size) noexcept {
  return is_due(Kind::memory) ? nullptr : __libc_realloc(memory, size);
}
void* memalign(std::size_t alignment, std::size_t size) noexcept {
  return is_due(Kind::memory) ? nullptr : __libc_memalign(alignment, size);
}
void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
  return is_due(Kind::memory) ? nullptr : __libc_memalign(alignment, size);
}
int posix_memalign(void** memory, std::size_t alignment, std::size_t size) noexcept {
  if (is_due(Kind::memory)) return ENOMEM;
  *memory = __libc_memalign(alignment, size);
  return *memory ? 0 : ENOMEM;
}
void* mmap(void* address, std::size_t size, int protection, int flags, int file, off_t offset) noexcept {
  NEXT(mmap);
  if ((flags & MAP_ANONYMOUS) && is_due(Kind::memory)) return MAP_FAILED;
  return real(address, size, protection, flags, file, offset);
}

int open(const char* path, int flags, ...) {
  NEXT(open);
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = flags & (O_CREAT | O_TMPFILE) ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return is_due(Kind::open, path) ? -1 : done(real(path, flags, mode));
}
int open64(const char* path, int flags, ...) {
  NEXT(open64);
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = flags & (O_CREAT | O_TMPFILE) ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return is_due(Kind::open, path) ? -1 : real(path, flags, mode);
}
std::FILE* fopen(const char* path, const char* mode) {
  NEXT(fopen);
  return is_due(Kind::open, path) ? nullptr : real(path, mode);
}
std::FILE* fopen64(const char* path, const char* mode) {
  NEXT(fopen64);
  return is_due(Kind::open, path) ? nullptr : real(path, mode);
}

ssize_t read(int file, void* data, std::size_t size) {
  NEXT(read);
  return is_due(Kind::read, file) ? -1 : real(file, data, size);
}
ssize_t pread(int file, void* data, std::size_t size, off_t offset) {
  NEXT(pread);
  return is_due(Kind::read, file) ? -1 : real(file, data, size, offset);
}
ssize_t pread64(int file, void* data, std::size_t size, off_t offset) {
  NEXT(pread64);
  return is_due(Kind::read, file) ? -1 : real(file, data, size, offset);
}
ssize_t readv(int file, const struct iovec* parts, int count) {
  NEXT(readv);
  return is_due(Kind::read, file) ? -1 : real(file, parts, count);
}

ssize_t write(int file, const void* data, std::size_t size) {
  NEXT(write);
  return is_due(Kind::write, file) ? -1 : done(real(file, data, size));
}
ssize_t pwrite(int file, const void* data, std::size_t size, off_t offset) {
  NEXT(pwrite);
  return is_due(Kind::write, file) ? -1 : real(file, data, size, offset);
}
ssize_t pwrite64(int file, const void* data, std::size_t size, off_t offset) {
  NEXT(pwrite64);
  return is_due(Kind::write, file) ? -1 : real(file, data, size, offset);
}

int fsync(int file) {
  NEXT(fsync);
  return is_due(Kind::flush, file) ? -1 : done(real(file));
}
int fdatasync(int file) {
  NEXT(fdatasync);
  return is_due(Kind::flush, file) ? -1 : done(real(file));
}

int rename(const char* from, const char* to) noexcept {
  NEXT(rename);
  return is_due(Kind::rename, to) ? -1 : done(real(from, to));
}
int renameat2(int from_folder, const char* from, int to_folder, const char* to, unsigned flags) noexcept {
  NEXT(renameat2);
  return is_due(Kind::rename, to) ? -1 : done(real(from_folder, from, to_folder, to, flags));
}
int linkat(int from_folder, const char* from, int to_folder, const char* to, int flags) noexcept {
  NEXT(linkat);
  return is_due(Kind::rename, to) ? -1 : done(real(from_folder, from, to_folder, to, flags));
}

int close(int file) {
  NEXT(close);
  if (!is_due(Kind::close, file)) return done(real(file));
  real(file);
  errno = error_code;
  return -1;
}

int stat(const char* path, struct stat* status) noexcept {
  NEXT(stat);
  return is_due(Kind::stat, path) ? -1 : real(path, status);
}
int fstat(int file, struct stat* status) noexcept {
  NEXT(fstat);
  return is_due(Kind::stat, file) ? -1 : real(file, status);
}
int lstat(const char* path, struct stat* status) noexcept {
  NEXT(lstat);
  return is_due(Kind::stat, path) ? -1 : real(path, status);
}

int ftruncate(int file, off_t size) noexcept {
  NEXT(ftruncate);
  return is_due(Kind::allocate, file) ? -1 : real(file, size);
}
int fallocate(int file, int mode, off_t offset, off_t size) {
  NEXT(fallocate);
  return is_due(Kind::allocate, file) ? -1 : real(file, mode, offset, size);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*),
                   void* argument) noexcept {
  NEXT(pthread_create);
  return is_due(Kind::thread) ? error_code : real(thread, attributes, run, argument);
}

}  // extern "C"
