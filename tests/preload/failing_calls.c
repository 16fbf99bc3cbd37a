// Fails the Nth call of one function of the C library, as often as it is told to.
//
// ZUN_FAILING_CALLS names a file of `struct Plan`, which the test maps as well: it plans a failure
// while the process runs, and sees how often the function was called and failed. A write fails as
// a full disk makes it: half of the bytes go out, and the next call fails.

#define _GNU_SOURCE
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>

// In the place of an errno: the process is killed in the middle of the call, or the call is held up as long
// as it is planned.
#define KILL (-1)
#define HOLD (-2)

struct Plan {
  char function[32];
  int failure;      // errno, KILL or HOLD
  int times;        // how many calls fail
  long long first;  // which is the first, from 1 on
  long long calls;
  long long failed;
};

static struct Plan* plan;
static __thread int halfWritten = -1;  // the descriptor whose next write fails

__attribute__((constructor)) static void readPlan(void) {
  const char* const path = getenv("ZUN_FAILING_CALLS");
  const int file = path == NULL ? -1 : (int)syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC);
  if (file < 0) return;
  void* const mapped =
      (void*)syscall(SYS_mmap, NULL, sizeof *plan, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  syscall(SYS_close, file);
  if (mapped != MAP_FAILED) plan = mapped;
}

static void die(void) {
  syscall(SYS_kill, getpid(), SIGKILL);
  for (;;) syscall(SYS_pause);
}

/// Counts the call; true where it is one of those that fail.
static int isPlanned(const char* function) {
  if (plan == NULL || strcmp(plan->function, function) != 0) return 0;
  const long long number = __atomic_add_fetch(&plan->calls, 1, __ATOMIC_SEQ_CST);
  const long long first = __atomic_load_n(&plan->first, __ATOMIC_SEQ_CST);
  if (first == 0 || number < first || number >= first + plan->times) return 0;
  __atomic_add_fetch(&plan->failed, 1, __ATOMIC_SEQ_CST);
  return 1;
}

static int fails(const char* function) {
  if (!isPlanned(function)) return 0;
  if (plan->failure == KILL) die();
  if (plan->failure == HOLD) {
    while (__atomic_load_n(&plan->failure, __ATOMIC_SEQ_CST) == HOLD) syscall(SYS_sched_yield);
    return 0;
  }
  errno = plan->failure;
  return 1;
}

#define FIND(function) *(void**)&real = dlsym(RTLD_NEXT, #function)

#define FAILING(type, function, parameters, arguments, failure) \
  type function parameters {                                    \
    static __typeof__(&function) real;                          \
    if (real == NULL) FIND(function);                           \
    return fails(#function) ? (failure) : real arguments;       \
  }

// What may be given a mode, or any other third argument.
#define FAILING_OPEN(function, parameters, last, arguments) \
  int function parameters {                                 \
    static __typeof__(&function) real;                      \
    if (real == NULL) FIND(function);                       \
    va_list list;                                           \
    va_start(list, last);                                   \
    const long more = va_arg(list, long);                   \
    va_end(list);                                           \
    return fails(#function) ? -1 : real arguments;          \
  }

FAILING_OPEN(openat, (int folder, const char* path, int flags, ...), flags, (folder, path, flags, more))
FAILING_OPEN(fcntl, (int file, int command, ...), command, (file, command, more))
FAILING(int, mkostemp, (char* path, int flags), (path, flags), -1)
FAILING(FILE*, fopen, (const char* path, const char* mode), (path, mode), NULL)
FAILING(FILE*, fopen64, (const char* path, const char* mode), (path, mode), NULL)
FAILING(DIR*, opendir, (const char* path), (path), NULL)
FAILING(DIR*, fdopendir, (int folder), (folder), NULL)
FAILING(struct dirent*, readdir, (DIR * folder), (folder), NULL)
FAILING(ssize_t, pread, (int file, void* bytes, size_t size, off_t at), (file, bytes, size, at), -1)
FAILING(ssize_t, readlink, (const char* path, char* bytes, size_t size), (path, bytes, size), -1)
FAILING(int, ftruncate, (int file, off_t size), (file, size), -1)
FAILING(int, flock, (int file, int operation), (file, operation), -1)
FAILING(int, fstat, (int file, struct stat* status), (file, status), -1)
FAILING(int, fstatat, (int folder, const char* path, struct stat* status, int flags),
        (folder, path, status, flags), -1)
FAILING(int, stat, (const char* path, struct stat* status), (path, status), -1)
FAILING(int, lstat, (const char* path, struct stat* status), (path, status), -1)
FAILING(int, statx, (int folder, const char* path, int flags, unsigned mask, struct statx* status),
        (folder, path, flags, mask, status), -1)
FAILING(int, fchmod, (int file, mode_t mode), (file, mode), -1)
FAILING(int, chmod, (const char* path, mode_t mode), (path, mode), -1)
FAILING(int, utimensat, (int folder, const char* path, const struct timespec times[2], int flags),
        (folder, path, times, flags), -1)
FAILING(int, rename, (const char* from, const char* to), (from, to), -1)
FAILING(int, unlink, (const char* path), (path), -1)
FAILING(int, unlinkat, (int folder, const char* path, int flags), (folder, path, flags), -1)
FAILING(int, mkdir, (const char* path, mode_t mode), (path, mode), -1)
FAILING(int, socket, (int family, int type, int protocol), (family, type, protocol), -1)
FAILING(int, socketpair, (int family, int type, int protocol, int pair[2]), (family, type, protocol, pair),
        -1)
FAILING(int, bind, (int file, const struct sockaddr* address, socklen_t size), (file, address, size), -1)
FAILING(int, listen, (int file, int length), (file, length), -1)
FAILING(int, connect, (int file, const struct sockaddr* address, socklen_t size), (file, address, size), -1)
FAILING(int, accept4, (int file, struct sockaddr* address, socklen_t* size, int flags),
        (file, address, size, flags), -1)
FAILING(int, getsockopt, (int file, int level, int option, void* value, socklen_t* size),
        (file, level, option, value, size), -1)
FAILING(int, setsockopt, (int file, int level, int option, const void* value, socklen_t size),
        (file, level, option, value, size), -1)
FAILING(int, getsockname, (int file, struct sockaddr* address, socklen_t* size), (file, address, size), -1)
FAILING(int, getpeername, (int file, struct sockaddr* address, socklen_t* size), (file, address, size), -1)
FAILING(ssize_t, send, (int file, const void* bytes, size_t size, int flags), (file, bytes, size, flags), -1)
FAILING(ssize_t, recv, (int file, void* bytes, size_t size, int flags), (file, bytes, size, flags), -1)
FAILING(ssize_t, recvmsg, (int file, struct msghdr* message, int flags), (file, message, flags), -1)
FAILING(int, epoll_create1, (int flags), (flags), -1)
FAILING(int, epoll_ctl, (int set, int operation, int file, struct epoll_event* event),
        (set, operation, file, event), -1)
FAILING(int, eventfd, (unsigned count, int flags), (count, flags), -1)
FAILING(int, timerfd_create, (int clock, int flags), (clock, flags), -1)
FAILING(int, signalfd, (int file, const sigset_t* signals, int flags), (file, signals, flags), -1)
FAILING(int, pthread_create,
        (pthread_t * thread, const pthread_attr_t* attributes, void* (*begin)(void*), void* argument),
        (thread, attributes, begin, argument), errno)

int close(int file) {
  const int outcome = (int)syscall(SYS_close, file);
  return fails("close") ? -1 : outcome;  // it is closed whatever it says
}

int open(const char* path, int flags, ...) {
  static __typeof__(&open) real;
  if (real == NULL) FIND(open);
  va_list list;
  va_start(list, flags);
  const int mode = va_arg(list, int);
  va_end(list);
  // The counts of lines that a build for coverage writes at its end are none of the daemon's.
  const size_t length = strlen(path);
  if (length > 5 && strcmp(path + length - 5, ".gcda") == 0) return real(path, flags, mode);
  const char* const what = strncmp(path, "/proc/", 6) == 0 ? "open of /proc"
                           : (flags & O_DIRECTORY) != 0    ? "open of a folder"
                                                           : "open";
  return fails(what) ? -1 : real(path, flags, mode);
}

static mode_t kindOf(int file) {
  struct stat status;
  return syscall(SYS_fstat, file, &status) == 0 ? status.st_mode & S_IFMT : 0;
}

int fsync(int file) {
  return fails(S_ISDIR(kindOf(file)) ? "fsync of a folder" : "fsync") ? -1 : (int)syscall(SYS_fsync, file);
}

/// Of a file or a socket: what wakes a thread never fails, and standard error is what the test reads.
static int mayFail(int file) {
  return file != STDERR_FILENO && kindOf(file) != 0;
}

int poll(struct pollfd* polled, nfds_t count, int milliseconds) {
  static __typeof__(&poll) real;
  if (real == NULL) FIND(poll);
  const int isLog = count == 1 && polled->fd == STDERR_FILENO;
  return !isLog && fails("poll") ? -1 : real(polled, count, milliseconds);
}

static int isOfProc(int file) {
  struct statfs status;
  return syscall(SYS_fstatfs, file, &status) == 0 && status.f_type == PROC_SUPER_MAGIC;
}

ssize_t read(int file, void* bytes, size_t size) {
  return mayFail(file) && fails(isOfProc(file) ? "read of /proc" : "read")
             ? -1
             : syscall(SYS_read, file, bytes, size);
}

/// What was appended is cut off only where that has failed.
static int isAppendedToBeCutOff(int file) {
  return plan != NULL && strcmp(plan->function, "ftruncate") == 0 && S_ISREG(kindOf(file)) &&
         (syscall(SYS_fcntl, file, F_GETFL) & O_APPEND) != 0;
}

ssize_t write(int file, const void* bytes, size_t size) {
  if (halfWritten == file) {
    halfWritten = -1;
    errno = plan->failure;
    return -1;
  }
  if (!isAppendedToBeCutOff(file) && (!mayFail(file) || !isPlanned("write"))) {
    return syscall(SYS_write, file, bytes, size);
  }
  if (size > 1) syscall(SYS_write, file, bytes, size / 2);
  if (plan->failure == KILL) die();
  if (size > 1) {
    halfWritten = file;
    return (ssize_t)(size / 2);
  }
  errno = plan->failure;
  return -1;
}
