// SPDX-License-Identifier: GPL-3.0-or-later
// Loaded before the program by the tests that stop it at a known point. What it does is set in the environment:
//   HOLD_SOURCE=PATH, HOLD_AT_READ=N   stops the process (SIGSTOP) before its Nth read of that file
//   HOLD_READ_BYTES=N                  only reads of at least that many bytes count: those of a scan, not of a
//   superblock HOLD_AT_NAME=N                     stops it before the Nth time that a file gets a name (rename or link)
//   CLOCK_STEP=MILLISECONDS            each reading of the steady clock is that much later
#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>

namespace {

long Setting(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? 0 : std::atol(value);
}

template <typename TFunction>
TFunction* Real(const char* name) {
  return reinterpret_cast<TFunction*>(::dlsym(RTLD_NEXT, name));
}

void HoldAt(std::atomic<long>& count, long wanted) {
  if (++count == wanted) ::kill(::getpid(), SIGSTOP);
}

bool IsSource(int handle) {
  static const char* source = std::getenv("HOLD_SOURCE");
  struct stat wanted {};
  struct stat got {};
  return source != nullptr && ::stat(source, &wanted) == 0 && ::fstat(handle, &got) == 0 &&
         wanted.st_dev == got.st_dev && wanted.st_ino == got.st_ino;
}

void BeforeRead(int handle, size_t size) {
  static std::atomic<long> count{0};
  static const long wanted = Setting("HOLD_AT_READ");
  static const auto least = static_cast<size_t>(Setting("HOLD_READ_BYTES"));
  if (wanted > 0 && size >= least && IsSource(handle)) HoldAt(count, wanted);
}

void BeforeName() {
  static std::atomic<long> count{0};
  static const long wanted = Setting("HOLD_AT_NAME");
  if (wanted > 0) HoldAt(count, wanted);
}

}  // namespace

extern "C" {

ssize_t pread64(int handle, void* buffer, size_t size, off64_t position) {
  static auto* const real = Real<decltype(pread64)>("pread64");
  BeforeRead(handle, size);
  return real(handle, buffer, size, position);
}

/// The source is read, so that reads can be counted.
ssize_t copy_file_range(int from, off64_t* position, int to, off64_t* target, size_t size, unsigned flags) {
  static auto* const real = Real<decltype(copy_file_range)>("copy_file_range");
  if (!IsSource(from)) return real(from, position, to, target, size, flags);
  errno = EXDEV;
  return -1;
}

int renameat(int oldFolder, const char* oldName, int newFolder, const char* newName) noexcept {
  static auto* const real = Real<int(int, const char*, int, const char*)>("renameat");
  BeforeName();
  return real(oldFolder, oldName, newFolder, newName);
}

int renameat2(int oldFolder, const char* oldName, int newFolder, const char* newName, unsigned flags) noexcept {
  static auto* const real = Real<int(int, const char*, int, const char*, unsigned)>("renameat2");
  BeforeName();
  return real(oldFolder, oldName, newFolder, newName, flags);
}

int linkat(int oldFolder, const char* oldName, int newFolder, const char* newName, int flags) noexcept {
  static auto* const real = Real<int(int, const char*, int, const char*, int)>("linkat");
  BeforeName();
  return real(oldFolder, oldName, newFolder, newName, flags);
}

int clock_gettime(clockid_t clock, timespec* time) noexcept {
  static auto* const real = Real<int(clockid_t, timespec*)>("clock_gettime");
  static const long step = Setting("CLOCK_STEP");
  static std::atomic<long> ahead{0};  // milliseconds
  const int result = real(clock, time);
  if (clock != CLOCK_MONOTONIC || step == 0 || result != 0) return result;
  ahead += step;
  time->tv_sec += ahead / 1000;
  time->tv_nsec += ahead % 1000 * 1000000;
  if (time->tv_nsec >= 1000000000) {
    ++time->tv_sec;
    time->tv_nsec -= 1000000000;
  }
  return 0;
}
}
