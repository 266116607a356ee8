// SPDX-License-Identifier: GPL-3.0-or-later
// A library to be preloaded (LD_PRELOAD): reads of one file fail with EIO in chosen ranges, as those of a
// disk with bad places do. By environment variables:
//   FAILING_READ_FILE    the file; recognised by device and inode, whatever path it is opened by
//   FAILING_READ_RANGES  "START+SIZE,START+SIZE,...": bytes
//   FAILING_READ_WAIT    milliseconds that each failure takes (0)
//   FAILING_READ_SHORT   1: a read gives the bytes before the first bad one; else it gives nothing
//   FAILING_READ_LOG     a file that gets a line "POSITION SIZE" for each failure
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

typedef ssize_t (*TPread)(int, void*, size_t, off64_t);

static struct {
  int Ready;
  int HasFile;
  dev_t Device;
  ino_t Node;
  size_t Count;
  struct {
    long long Start, End;
  } * Ranges;
  long WaitMilliseconds;
  int GivesWhatLiesBefore;
  int Log;
} Plan = {.Log = -1};

static int CompareRanges(const void* a, const void* b) {
  const long long x = *(const long long*)a, y = *(const long long*)b;
  return x < y ? -1 : x > y;
}

static void ReadPlan(void) {
  if (Plan.Ready) return;
  Plan.Ready = 1;
  const char* file = getenv("FAILING_READ_FILE");
  const char* ranges = getenv("FAILING_READ_RANGES");
  struct stat status;
  if (file == NULL || ranges == NULL || stat(file, &status) != 0) return;
  Plan.Device = status.st_dev;
  Plan.Node = status.st_ino;
  size_t most = 1;
  for (const char* c = ranges; *c != 0; ++c) most += *c == ',';
  Plan.Ranges = calloc(most, sizeof *Plan.Ranges);
  long long start, size;
  int length;
  while (Plan.Ranges != NULL && Plan.Count < most && sscanf(ranges, "%lld+%lld%n", &start, &size, &length) == 2) {
    Plan.Ranges[Plan.Count].Start = start;
    Plan.Ranges[Plan.Count++].End = start + size;
    ranges += length + (ranges[length] == ',');
  }
  if (Plan.Ranges != NULL) qsort(Plan.Ranges, Plan.Count, sizeof *Plan.Ranges, CompareRanges);
  const char* wait = getenv("FAILING_READ_WAIT");
  Plan.WaitMilliseconds = wait == NULL ? 0 : atol(wait);
  const char* before = getenv("FAILING_READ_SHORT");
  Plan.GivesWhatLiesBefore = before != NULL && before[0] == '1';
  const char* log = getenv("FAILING_READ_LOG");
  if (log != NULL) Plan.Log = open(log, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  Plan.HasFile = 1;
}

static int IsFailing(int file) {
  ReadPlan();
  struct stat status;
  return Plan.HasFile && fstat(file, &status) == 0 && status.st_dev == Plan.Device && status.st_ino == Plan.Node;
}

/// How many bytes of the request read; below `size` the request fails there.
static size_t Readable(off64_t position, size_t size) {
  const long long end = position + (long long)size;
  size_t low = 0, high = Plan.Count;  // the first range that ends after the position
  while (low < high) {
    const size_t middle = (low + high) / 2;
    if (Plan.Ranges[middle].End <= position) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  if (low == Plan.Count || Plan.Ranges[low].Start >= end) return size;
  return Plan.Ranges[low].Start <= position ? 0 : (size_t)(Plan.Ranges[low].Start - position);
}

static void NoteFailure(off64_t position, size_t size) {
  if (Plan.Log >= 0) {
    char line[64];
    const int length = snprintf(line, sizeof line, "%lld %zu\n", (long long)position, size);
    if (write(Plan.Log, line, (size_t)length) != length) abort();
  }
  struct timespec left = {Plan.WaitMilliseconds / 1000, Plan.WaitMilliseconds % 1000 * 1000000};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) continue;
}

static ssize_t ReadAt(int file, void* buffer, size_t size, off64_t position) {
  static TPread next;
  if (next == NULL) next = (TPread)dlsym(RTLD_NEXT, "pread64");
  if (!IsFailing(file)) return next(file, buffer, size, position);
  const size_t readable = Readable(position, size);
  if (readable == size) return next(file, buffer, size, position);
  if (readable > 0 && Plan.GivesWhatLiesBefore) return next(file, buffer, readable, position);
  NoteFailure(position, size);
  errno = EIO;
  return -1;
}

ssize_t pread64(int file, void* buffer, size_t size, off64_t position) { return ReadAt(file, buffer, size, position); }
ssize_t pread(int file, void* buffer, size_t size, off_t position) { return ReadAt(file, buffer, size, position); }
ssize_t __pread64_chk(int file, void* buffer, size_t size, off64_t position, size_t room) {
  return size > room ? (abort(), -1) : ReadAt(file, buffer, size, position);
}
ssize_t __pread_chk(int file, void* buffer, size_t size, off_t position, size_t room) {
  return size > room ? (abort(), -1) : ReadAt(file, buffer, size, position);
}

/// Copies what lies before the first bad byte, as the system does.
ssize_t copy_file_range(int from, off64_t* position, int to, off64_t* target, size_t size, unsigned flags) {
  static ssize_t (*next)(int, off64_t*, int, off64_t*, size_t, unsigned);
  if (next == NULL)
    next = (ssize_t(*)(int, off64_t*, int, off64_t*, size_t, unsigned))dlsym(RTLD_NEXT, "copy_file_range");
  const size_t readable = IsFailing(from) && position != NULL ? Readable(*position, size) : size;
  if (readable > 0) return next(from, position, to, target, readable, flags);
  NoteFailure(*position, size);
  errno = EIO;
  return -1;
}

ssize_t read(int file, void* buffer, size_t size) {
  static ssize_t (*next)(int, void*, size_t);
  if (next == NULL) next = (ssize_t(*)(int, void*, size_t))dlsym(RTLD_NEXT, "read");
  if (!IsFailing(file)) return next(file, buffer, size);
  const off64_t position = lseek64(file, 0, SEEK_CUR);
  const ssize_t got = ReadAt(file, buffer, size, position);
  if (got > 0) lseek64(file, position + got, SEEK_SET);
  return got;
}
