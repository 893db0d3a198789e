/* Stands in for orva-schedrun in the daemon benchmark: records when it was started,
 * then exits. Appends "ID SECONDS.NANOSECONDS" to the file named by
 * ORVA_BENCH_STARTS (one write with O_APPEND, so lines of concurrent runners never
 * mix). Arguments as the daemon passes them: ID --trigger schedule --root DIR. */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

int main(int argc, char** argv) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  const char* out = getenv("ORVA_BENCH_STARTS");
  if (argc < 2 || !out) return 2;
  char line[64];
  int n = snprintf(line, sizeof line, "%s %lld.%09ld\n", argv[1], (long long)now.tv_sec, now.tv_nsec);
  int fd = open(out, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0 || n <= 0 || write(fd, line, (size_t)n) != n) return 1;
  close(fd);
  return 0;
}
