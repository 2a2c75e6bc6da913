/* A progress bar with size and rate on standard error, for transfers, only
 * when standard error is a terminal. */
#define _GNU_SOURCE
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include "cmd.h"

static double now(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (double)t.tv_sec + (double)t.tv_nsec / 1e9;
}

/* 1536 -> "1.5 KiB" */
static const char *size(double bytes, char *out, size_t capacity) {
  static const char *const units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  int unit = 0;
  while (bytes >= 1024 && unit < 4) bytes /= 1024, unit++;
  snprintf(out, capacity, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, units[unit]);
  return out;
}

static void draw(struct tk_progress *p) {
  char done[32], total[32], rate[32], bar[21];
  double seconds = now() - p->start;
  size((double)p->done / (seconds > 0.001 ? seconds : 0.001), rate, sizeof rate);
  if (p->total > 0) {
    int filled = (int)(20 * p->done / p->total), i;
    for (i = 0; i < 20; i++) bar[i] = i < filled ? '#' : '.';
    bar[20] = 0;
    fprintf(stderr, "\r%s [%s] %3d%% %s of %s, %s/s ", p->label, bar,
            (int)(100 * p->done / p->total), size((double)p->done, done, sizeof done),
            size((double)p->total, total, sizeof total), rate);
  } else {
    fprintf(stderr, "\r%s %s, %s/s ", p->label, size((double)p->done, done, sizeof done), rate);
  }
  p->drawn = now();
}

void tk_progress_start(struct tk_progress *p, const char *label, uint64_t total) {
  p->on = isatty(2);
  p->label = label;
  p->total = total;
  p->done = 0;
  p->start = now();
  if (p->on) draw(p);
}

void tk_progress_add(struct tk_progress *p, uint64_t bytes) {
  p->done += bytes;
  if (p->on && now() - p->drawn >= 0.1) draw(p);
}

void tk_progress_end(struct tk_progress *p) {
  if (!p->on) return;
  draw(p);
  fputc('\n', stderr);
  p->on = 0;
}
