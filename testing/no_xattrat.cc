// zorv-no-xattrat PROGRAM [ARGUMENT...]
//
// Runs PROGRAM (looked up in PATH like a shell would) under a seccomp filter
// that makes the *xattrat system calls (setxattrat, getxattrat, listxattrat,
// removexattrat) fail with ENOSYS, as on a kernel older than 6.13, and lets
// every other call through. The filter is inherited by every process PROGRAM
// starts, so a test run under it exercises the code that works without those
// calls on any kernel. Exit status 125 when the filter cannot be installed,
// 127 when PROGRAM cannot be run; otherwise PROGRAM's own.
#include <errno.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

// Numbers of the calls on every architecture: they were added after the
// system call tables were unified.
constexpr unsigned kFirstXattrAt = 463;  // setxattrat
constexpr unsigned kLastXattrAt = 466;   // removexattrat

#if defined(__x86_64__)
constexpr unsigned kNativeArch = AUDIT_ARCH_X86_64;
// x32 programs run on the same architecture with this bit set in the number.
constexpr unsigned kNumberMask = ~0x40000000u;
#elif defined(__aarch64__)
constexpr unsigned kNativeArch = AUDIT_ARCH_AARCH64;
constexpr unsigned kNumberMask = ~0u;
#elif defined(__riscv) && __riscv_xlen == 64
constexpr unsigned kNativeArch = AUDIT_ARCH_RISCV64;
constexpr unsigned kNumberMask = ~0u;
#else
#error "zorv-no-xattrat: add this architecture's AUDIT_ARCH value"
#endif

bool installFilter() {
  // A call from another architecture (a 32-bit program on a 64-bit kernel)
  // carries the same numbers for these calls: it skips only the x32 mask.
  sock_filter filter[] = {
      /* 0 */ BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
      /* 1 */ BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kNativeArch, 0, 3),
      /* 2 */ BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      /* 3 */ BPF_STMT(BPF_ALU | BPF_AND | BPF_K, kNumberMask),
      /* 4 */ BPF_JUMP(BPF_JMP | BPF_JA, 1, 0, 0),
      /* 5 */ BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      /* 6 */ BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, kFirstXattrAt, 0, 2),
      /* 7 */ BPF_JUMP(BPF_JMP | BPF_JGT | BPF_K, kLastXattrAt, 1, 0),
      /* 8 */ BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | (ENOSYS & SECCOMP_RET_DATA)),
      /* 9 */ BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  sock_fprog fprog{static_cast<unsigned short>(sizeof filter / sizeof filter[0]), filter};
  // Without this, only a process with CAP_SYS_ADMIN may install a filter.
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return false;
  return prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &fprog) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: %s PROGRAM [ARGUMENT...]\n", argv[0]);
    return 125;
  }
  if (!installFilter()) {
    fprintf(stderr, "%s: cannot install the seccomp filter: %s\n", argv[0], strerror(errno));
    return 125;
  }
  execvp(argv[1], argv + 1);
  fprintf(stderr, "%s: cannot run %s: %s\n", argv[0], argv[1], strerror(errno));
  return 127;
}
