// SPDX-License-Identifier: GPL-2.0-only
// Preloaded into a zorvd: syncs, opens and reads of named files fail or take their time, as a
// file of rules says.
//
//   ZORV_SYNCS names that file. It is read at each of them; one rule per line:
//     fail PART ERRNO [N]      syncs of a file with PART in its path fail; or the N-th from now on
//     slow PART MILLISECONDS   they are that much later
//     hold PART                opens and syncs hang while the rule stands
//     read PART                reads do
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

// Which of the syncs that a file of rules is about this is, from 1 on.
static int count_for(FILE* rules) {
  static _Atomic int count;
  static _Atomic long since;
  struct stat st;
  fstat(fileno(rules), &st);
  const long now = st.st_mtim.tv_sec * 1000000000L + st.st_mtim.tv_nsec;
  if (since != now) count = 0;
  since = now;
  return ++count;
}

static FILE* open_rules(void) {
  const char* rules = getenv("ZORV_SYNCS");
  return rules == NULL ? NULL : fopen(rules, "re");
}

static void wait_while(const char* rule, const char* path) {
  for (int held = 1; held;) {
    FILE* in = open_rules();
    char line[512];
    held = 0;
    while (in != NULL && !held && fgets(line, sizeof line, in) != NULL) {
      char verb[8], part[256];
      held = sscanf(line, "%7s %255s", verb, part) == 2 && strcmp(verb, rule) == 0 &&
             strstr(path, part) != NULL;
    }
    if (in != NULL) fclose(in);
    const struct timespec moment = {0, 50000000L};
    if (held) nanosleep(&moment, NULL);
  }
}

static void path_of(int fd, char (*path)[4096]) {
  char link[64];
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  ssize_t length = readlink(link, *path, sizeof *path - 1);
  (*path)[length < 0 ? 0 : length] = '\0';
}

// 0, or the errno to fail with.
static int rule_for(int fd) {
  char path[4096], line[512];
  path_of(fd, &path);
  wait_while("hold", path);
  FILE* in = open_rules();
  if (in == NULL) return 0;
  int error = 0;
  while (error == 0 && fgets(line, sizeof line, in) != NULL) {
    char verb[8], part[256];
    int value = 0, nth = 0;
    if (sscanf(line, "%7s %255s %d %d", verb, part, &value, &nth) < 3) continue;
    if (strstr(path, part) == NULL) continue;
    if (strcmp(verb, "fail") == 0 && (nth == 0 || count_for(in) == nth)) error = value;
    if (strcmp(verb, "slow") == 0) {
      struct timespec time = {value / 1000, value % 1000 * 1000000L};
      nanosleep(&time, NULL);
    }
  }
  fclose(in);
  return error;
}

static int synced(int fd, const char* name) {
  int (*next)(int) = (int (*)(int))dlsym(RTLD_NEXT, name);
  errno = rule_for(fd);
  return errno != 0 ? -1 : next(fd);
}

int fsync(int fd) { return synced(fd, "fsync"); }
int fdatasync(int fd) { return synced(fd, "fdatasync"); }

int open(const char* path, int flags, ...) {
  int (*next)(const char*, int, ...) = (int (*)(const char*, int, ...))dlsym(RTLD_NEXT, "open");
  va_list args;
  va_start(args, flags);
  const unsigned mode = va_arg(args, unsigned);  // nonsense where there is none, and unused then
  va_end(args);
  wait_while("hold", path);
  return next(path, flags, mode);
}

ssize_t pread(int fd, void* to, size_t bytes, off_t at) {
  ssize_t (*next)(int, void*, size_t, off_t) =
      (ssize_t(*)(int, void*, size_t, off_t))dlsym(RTLD_NEXT, "pread");
  char path[4096];
  path_of(fd, &path);
  wait_while("read", path);
  return next(fd, to, bytes, at);
}
