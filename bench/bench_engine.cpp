// SPDX-License-Identifier: GPL-3.0-or-later
// The measured pieces that are no whole command, and the baselines of those that are.
//   bench_engine pread FILE           reads the file in pieces of 128 KiB
//   bench_engine sum FILE             the same, adding up every byte
//   bench_engine add FILES PARENTS    enters files under parents in random order
// Each prints "seconds bytes-of-memory" (memory only for `add`).
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "analysis/files.h"
#include "core/drives.h"
#include "core/engine.h"
#include "core/text.h"

namespace {

using namespace brenlow;

double Seconds(std::chrono::steady_clock::time_point begin) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

std::int64_t ResidentBytes() {
  long pages = 0;
  if (std::FILE* file = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(file, "%*d %ld", &pages) != 1) pages = 0;
    std::fclose(file);
  }
  return pages * ::sysconf(_SC_PAGESIZE);
}

int ReadFile(const char* path, bool addUp) {
  const int handle = ::open(path, O_RDONLY);
  if (handle < 0) return 1;
  std::vector<unsigned char> buffer(0x20000);
  std::uint64_t sum = 0;
  off_t position = 0;
  const auto begin = std::chrono::steady_clock::now();
  for (ssize_t got; (got = ::pread(handle, buffer.data(), buffer.size(), position)) > 0; position += got) {
    if (!addUp) continue;
    for (ssize_t i = 0; i < got; ++i) sum += buffer[static_cast<std::size_t>(i)];
  }
  std::printf("%f %llu\n", Seconds(begin), static_cast<unsigned long long>(sum));
  ::close(handle);
  return 0;
}

int AddFiles(std::uint32_t files, std::uint32_t parents) {
  TEngine engine;
  engine.Drives().Add(TDriveInfo(), false);
  std::vector<std::uint32_t> order(files);
  std::mt19937 random(1);
  for (std::uint32_t& parent : order) parent = random() % parents;
  char16_t name[] = u"IMG_00000000.JPG";
  TFileInfo info;
  const std::int64_t before = ResidentBytes();
  const auto begin = std::chrono::steady_clock::now();
  for (std::uint32_t i = 0; i < files; ++i) {
    TFiles::ClearInfo(info, 0);
    for (std::uint32_t digit = 0, n = i; digit < 8; ++digit, n /= 10)
      name[11 - digit] = static_cast<char16_t>(u'0' + n % 10);
    info.strName = name;
    info.blnFolder = i % 10 == 0;
    info.FirstCluster = std::int64_t{parents} + i;
    info.aSize = i;
    engine.Files().Add(info, order[i], true);
  }
  const double seconds = Seconds(begin);
  std::printf("%f %lld\n", seconds, static_cast<long long>(ResidentBytes() - before));
  return engine.Files().List.size() == files ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string verb = argc > 1 ? argv[1] : "";
  if (verb == "pread" && argc == 3) return ReadFile(argv[2], false);
  if (verb == "sum" && argc == 3) return ReadFile(argv[2], true);
  if (verb == "add" && argc == 4)
    return AddFiles(static_cast<std::uint32_t>(std::atoi(argv[2])), static_cast<std::uint32_t>(std::atoi(argv[3])));
  std::fprintf(stderr, "usage: bench_engine pread FILE | sum FILE | add FILES PARENTS\n");
  return 2;
}
