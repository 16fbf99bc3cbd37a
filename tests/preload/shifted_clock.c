// The wall clock of the process, moved by as many seconds as the file that ZUN_SHIFTED_CLOCK names
// says: eight bytes, which the test writes while the process runs. No other clock moves.

#define _GNU_SOURCE
#include <fcntl.h>
#include <stddef.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

static const long long* seconds;

__attribute__((constructor)) static void mapSeconds(void) {
  const char* const path = getenv("ZUN_SHIFTED_CLOCK");
  const int file = path == NULL ? -1 : open(path, O_RDONLY | O_CLOEXEC);
  if (file < 0) return;
  void* const mapped = mmap(NULL, sizeof *seconds, PROT_READ, MAP_SHARED, file, 0);
  close(file);
  if (mapped != MAP_FAILED) seconds = mapped;
}

static time_t shift(void) {
  return seconds == NULL ? 0 : (time_t)__atomic_load_n(seconds, __ATOMIC_SEQ_CST);
}

int clock_gettime(clockid_t clock, struct timespec* time) {
  const int outcome = (int)syscall(SYS_clock_gettime, clock, time);
  if (outcome == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE)) time->tv_sec += shift();
  return outcome;
}

int gettimeofday(struct timeval* restrict time, void* restrict zone) {
  (void)zone;
  struct timespec now;
  if (clock_gettime(CLOCK_REALTIME, &now) != 0) return -1;
  time->tv_sec = now.tv_sec;
  time->tv_usec = now.tv_nsec / 1000;
  return 0;
}

time_t time(time_t* out) {
  struct timespec now;
  if (clock_gettime(CLOCK_REALTIME, &now) != 0) return -1;
  if (out != NULL) *out = now.tv_sec;
  return now.tv_sec;
}
