#include "core/platform/harmless_process.h"

#if defined(__linux__) && (defined(__x86_64__) || defined(__aarch64__))
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/sched.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#endif

namespace nvo::platform {

#if defined(__linux__) && (defined(__x86_64__) || defined(__aarch64__))

namespace {

constexpr std::uint32_t refusal(int error) {
  return SECCOMP_RET_ERRNO | (static_cast<std::uint32_t>(error) & SECCOMP_RET_DATA);
}

constexpr sock_filter load(std::size_t offset) {
  return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(offset));
}

/// The next statement is for calls of this number; all others pass over it.
constexpr sock_filter if_call(std::uint32_t number) {
  return BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1);
}

constexpr sock_filter answer(std::uint32_t with) {
  return BPF_STMT(BPF_RET | BPF_K, with);
}

/// Flags with which a file is opened to be written or made.
constexpr std::uint32_t kWriting = O_WRONLY | O_RDWR | O_CREAT | O_TRUNC;

#if defined(__x86_64__)
constexpr std::uint32_t kArchitecture = AUDIT_ARCH_X86_64;
constexpr std::uint32_t kFirstForeignCall = 0x4000'0000;  // the same calls with short pointers
#else
constexpr std::uint32_t kArchitecture = AUDIT_ARCH_AARCH64;
constexpr std::uint32_t kFirstForeignCall = 0xFFFF'FFFF;
#endif

}  // namespace

void stay_harmless() {
  const std::array filter = {
    load(offsetof(seccomp_data, arch)),
    sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kArchitecture, 1, 0),
    answer(refusal(EPERM)),
    load(offsetof(seccomp_data, nr)),
    sock_filter BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, kFirstForeignCall, 0, 1),
    answer(refusal(EPERM)),
#if defined(__x86_64__)
    if_call(__NR_fork),
    answer(refusal(EAGAIN)),
    if_call(__NR_vfork),
    answer(refusal(EAGAIN)),
    if_call(__NR_creat),
    answer(refusal(EROFS)),
    if_call(__NR_unlink),
    answer(refusal(EROFS)),
    if_call(__NR_rename),
    answer(refusal(EROFS)),
    sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_open, 0, 4),
    load(offsetof(seccomp_data, args) + sizeof(std::uint64_t)),
    sock_filter BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, kWriting, 0, 1),
    answer(refusal(EROFS)),
    answer(SECCOMP_RET_ALLOW),
#endif
    if_call(__NR_openat2),  // its arguments lie out of a filter's sight; libraries then take the older call
    answer(refusal(ENOSYS)),
    if_call(__NR_truncate),
    answer(refusal(EROFS)),
    if_call(__NR_unlinkat),
    answer(refusal(EROFS)),
    if_call(__NR_renameat),
    answer(refusal(EROFS)),
    if_call(__NR_renameat2),
    answer(refusal(EROFS)),
    sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_openat, 0, 4),
    load(offsetof(seccomp_data, args) + 2 * sizeof(std::uint64_t)),
    sock_filter BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, kWriting, 0, 1),
    answer(refusal(EROFS)),
    answer(SECCOMP_RET_ALLOW),
    if_call(__NR_clone3),  // as openat2
    answer(refusal(ENOSYS)),
    sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_clone, 0, 3),
    load(offsetof(seccomp_data, args)),  // the flags, the lower half first on both processors
    sock_filter BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, CLONE_THREAD, 1, 0),
    answer(refusal(EAGAIN)),
    answer(SECCOMP_RET_ALLOW),
  };
  const sock_fprog program{static_cast<unsigned short>(filter.size()),
                           const_cast<sock_filter*>(filter.data())};
  ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0);
}

#else

void stay_harmless() {}

#endif

}  // namespace nvo::platform
