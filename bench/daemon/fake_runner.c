/* Stands in for orva-schedrun in the daemon benchmark: records when each of its runs
 * was started, then exits. Appends "ID SECONDS.NANOSECONDS" to the file named by
 * ORVA_BENCH_STARTS (one write with O_APPEND, so lines of concurrent runners never
 * mix). Arguments as the daemon passes them: ID... --trigger schedule --root DIR; with
 * several ids it forks one process per id, as the real runner does. */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

static int Record(const char* id, const char* out) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  char line[64];
  int n = snprintf(line, sizeof line, "%s %lld.%09ld\n", id, (long long)now.tv_sec, now.tv_nsec);
  int fd = open(out, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0 || n <= 0 || write(fd, line, (size_t)n) != n) return 1;
  close(fd);
  return 0;
}

int main(int argc, char** argv) {
  const char* out = getenv("ORVA_BENCH_STARTS");
  int ids = 0;
  while (ids + 1 < argc && strncmp(argv[ids + 1], "--", 2) != 0) ++ids;
  if (ids == 0 || !out) return 2;
  if (ids == 1) return Record(argv[1], out);
  for (int i = 1; i <= ids; ++i) {
    pid_t pid = fork();
    if (pid == 0) return Record(argv[i], out);
    if (pid < 0) return 1;
  }
  return 0;
}
