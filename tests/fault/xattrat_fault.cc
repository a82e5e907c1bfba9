// zorv-xattrat-fault count FILE PROGRAM [ARGUMENT...]
// zorv-xattrat-fault fail NUMBER N ERRNO PROGRAM [ARGUMENT...]
// zorv-xattrat-fault kill NUMBER N PROGRAM [ARGUMENT...]
//
// Fails the *xattrat system calls (numbers 463 to 466), which strace cannot
// name: PROGRAM runs under a seccomp filter that hands each of those calls to
// this process, which lets it through, or answers -ERRNO instead, or kills
// the process, at the Nth call of NUMBER made by one thread (counted per
// thread, as strace counts). "count" writes "NUMBER THREAD CALLS" lines to
// FILE at the end. Exit status: PROGRAM's own (its killing signal is raised
// again), 125 when the filter cannot be set up.
#include <errno.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <string>
#include <utility>

namespace {

constexpr unsigned kFirst = 463, kLast = 466;

#if defined(__x86_64__)
constexpr unsigned kArch = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr unsigned kArch = AUDIT_ARCH_AARCH64;
#else
#error "zorv-xattrat-fault: add this architecture's AUDIT_ARCH value"
#endif

int installFilter() {
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kArch, 1, 0),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, kFirst, 0, 2),
      BPF_JUMP(BPF_JMP | BPF_JGT | BPF_K, kLast, 1, 0),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  sock_fprog program{static_cast<unsigned short>(sizeof filter / sizeof filter[0]), filter};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return -1;
  return static_cast<int>(
      syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &program));
}

// One byte of data with room for one descriptor beside it.
struct FdMessage {
  char data = 0;
  iovec io{&data, 1};
  char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr message{};
  FdMessage() {
    message.msg_iov = &io;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
  }
  FdMessage(const FdMessage&) = delete;
  FdMessage& operator=(const FdMessage&) = delete;
};

bool sendFd(int socket, int fd) {
  FdMessage m;
  cmsghdr* header = CMSG_FIRSTHDR(&m.message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(int));
  memcpy(CMSG_DATA(header), &fd, sizeof fd);
  return sendmsg(socket, &m.message, 0) == 1;
}

int receiveFd(int socket) {
  FdMessage m;
  if (recvmsg(socket, &m.message, 0) != 1) return -1;
  cmsghdr* header = CMSG_FIRSTHDR(&m.message);
  if (header == nullptr || header->cmsg_type != SCM_RIGHTS) return -1;
  int fd = -1;
  memcpy(&fd, CMSG_DATA(header), sizeof fd);
  return fd;
}

int usage(const char* self) {
  fprintf(stderr,
          "usage: %s count FILE PROGRAM [ARGUMENT...]\n"
          "       %s fail NUMBER N ERRNO PROGRAM [ARGUMENT...]\n"
          "       %s kill NUMBER N PROGRAM [ARGUMENT...]\n",
          self, self, self);
  return 125;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) return usage(argv[0]);
  const std::string mode = argv[1];
  const char* countFile = nullptr;
  long number = 0, nth = 0, error = 0;
  int first = 0;  // index of PROGRAM
  if (mode == "count") {
    countFile = argv[2];
    first = 3;
  } else if (mode == "fail" && argc >= 6) {
    number = atol(argv[2]);
    nth = atol(argv[3]);
    error = atol(argv[4]);
    first = 5;
  } else if (mode == "kill" && argc >= 5) {
    number = atol(argv[2]);
    nth = atol(argv[3]);
    first = 4;
  } else {
    return usage(argv[0]);
  }

  int sockets[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets) != 0) return 125;
  const pid_t child = fork();
  if (child < 0) return 125;
  if (child == 0) {
    close(sockets[0]);
    const int listener = installFilter();
    if (listener < 0 || !sendFd(sockets[1], listener)) _exit(125);
    close(listener);
    close(sockets[1]);
    execv(argv[first], argv + first);
    _exit(127);
  }
  close(sockets[1]);
  const int listener = receiveFd(sockets[0]);
  close(sockets[0]);

  std::map<std::pair<long, long>, long> calls;  // (number, thread) -> calls so far
  if (listener >= 0) {
    seccomp_notif_sizes sizes{};
    syscall(SYS_seccomp, SECCOMP_GET_NOTIF_SIZES, 0, &sizes);
    seccomp_notif* request = static_cast<seccomp_notif*>(calloc(1, sizes.seccomp_notif));
    seccomp_notif_resp* response =
        static_cast<seccomp_notif_resp*>(calloc(1, sizes.seccomp_notif_resp));
    for (;;) {
      pollfd waiting{listener, POLLIN, 0};
      if (poll(&waiting, 1, -1) < 0 && errno != EINTR) break;
      if (waiting.revents & (POLLHUP | POLLERR | POLLNVAL)) break;  // no process left
      if (!(waiting.revents & POLLIN)) continue;
      memset(request, 0, sizes.seccomp_notif);
      if (ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, request) != 0) continue;
      const long nr = request->data.nr;
      const long call = ++calls[{nr, static_cast<long>(request->pid)}];
      memset(response, 0, sizes.seccomp_notif_resp);
      response->id = request->id;
      response->flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
      if (nr == number && call == nth) {
        if (mode == "kill") {
          // No answer: the call stays waiting, never made, until the kill
          // ends it, as strace's kill on entering a call does.
          kill(static_cast<pid_t>(request->pid), SIGKILL);
          continue;
        } else {
          response->flags = 0;
          response->error = static_cast<int>(-error);
        }
      }
      ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, response);  // fails if killed: fine
    }
    free(request);
    free(response);
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (countFile != nullptr) {
    FILE* out = fopen(countFile, "w");
    if (out != nullptr) {
      for (const auto& [key, count] : calls)
        fprintf(out, "%ld %ld %ld\n", key.first, key.second, count);
      fclose(out);
    }
  }
  if (WIFSIGNALED(status)) {
    signal(WTERMSIG(status), SIG_DFL);
    raise(WTERMSIG(status));
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 125;
}
