/* The machine's floor for the daemon benchmark: starts N copies of a program (the
 * fake runner) from THREADS threads with posix_spawn, as fast as it can, and prints
 * the seconds it took. Nothing else is done, so no launcher can start them faster.
 * Usage: bench_daemon_spawn PROGRAM N THREADS */
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

extern char** environ;
static const char* prog;
static int total;
static atomic_int next;
static atomic_int failed;

static void* Work(void* arg) {
  (void)arg;
  for (int i; (i = atomic_fetch_add(&next, 1)) < total;) {
    char id[16];
    snprintf(id, sizeof id, "%d", i + 1);
    char* argv[] = {(char*)prog, id, "--trigger", "schedule", NULL};
    pid_t pid;
    if (posix_spawn(&pid, prog, NULL, NULL, argv, environ) != 0) atomic_fetch_add(&failed, 1);
  }
  return NULL;
}

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  prog = argv[1];
  total = atoi(argv[2]);
  int threads = atoi(argv[3]);
  if (total <= 0 || threads <= 0 || threads > 64) return 2;
  signal(SIGCHLD, SIG_IGN); /* no zombies, nothing to reap */
  struct timespec a, b;
  clock_gettime(CLOCK_MONOTONIC, &a);
  pthread_t th[64];
  for (int i = 0; i < threads; i++) pthread_create(&th[i], NULL, Work, NULL);
  for (int i = 0; i < threads; i++) pthread_join(th[i], NULL);
  clock_gettime(CLOCK_MONOTONIC, &b);
  printf("%.3f %d\n", (double)(b.tv_sec - a.tv_sec) + (double)(b.tv_nsec - a.tv_nsec) / 1e9, (int)failed);
  return failed ? 1 : 0;
}
