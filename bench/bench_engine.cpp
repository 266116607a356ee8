// SPDX-License-Identifier: GPL-3.0-or-later
// The measured pieces that are no whole command, and the baselines of those that are.
//   bench_engine pread FILE           reads the file in pieces of 128 KiB
//   bench_engine sum FILE             the same, adding up every byte
//   bench_engine add FILES PARENTS    enters files under parents in random order
//   bench_engine open FILES CHILDREN  opens a folder of so many folders, which hold all the files
//   bench_engine pack FILE            compresses the file in LZNT1 blocks of 64 KiB
//   bench_engine unpack FILE          the same, and decompresses them: the time is of that alone
//   bench_engine readall FILE         analyses it and reads every file; the time is of reading alone
//   bench_engine analyse FILE         analyses the first volume of the image
//   bench_engine deep FILE            the deep analysis of the whole image
// Each prints "seconds number": bytes of memory for `add`, `analyse` and `deep`, children
// shown for `open`, compressed bytes for `pack` and `unpack`.
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

#include "analysis/analysis.h"
#include "analysis/file_data.h"
#include "analysis/folders.h"
#include "core/drives.h"
#include "core/engine.h"
#include "core/lznt1.h"
#include "core/text.h"
#include "table/files.h"

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
  for (std::uint32_t& parent : order) parent = static_cast<std::uint32_t>(random() % parents);
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

struct TCountingView final : IFolderTreeView {
  long long Added = 0;
  void NodeAdded(const TTreeNode&) override { ++Added; }
  void NodeDeleted(const TTreeNode&) override {}
  void NodeChanged(const TTreeNode&) override {}
  void ChildrenSorted(const TTreeNode&) override {}
  void Collapse(const TTreeNode&) override {}
  void SetWaitCursor(bool) override {}
};

/// One folder holds `children` folders, each of these an equal share of the files and one folder.
/// What happens between the click and the tree and the list being ready.
int OpenFolder(std::uint32_t files, std::uint32_t children) {
  constexpr std::int64_t opened = 2;
  TEngine engine;
  TCountingView view;
  engine.Folders().AssignTreeView(&view);
  TDriveInfo drive;
  drive.DriveTypes = {TDriveType::dtVolume};
  engine.Drives().Add(drive, false);
  TTreeNode* node = engine.Folders().AddDrive(0);
  char16_t name[] = u"Folder 00000000";
  const auto add = [&](std::uint32_t number, std::int64_t key, std::int64_t parent, bool folder) {
    TFileInfo info;
    TFiles::ClearInfo(info, 0);
    for (std::uint32_t digit = 0, n = number; digit < 8; ++digit, n /= 10) {
      name[14 - digit] = static_cast<char16_t>(u'0' + n % 10);
    }
    info.strName = name;
    info.blnFolder = folder;
    info.FirstCluster = key;
    engine.Files().Add(info, parent, true);
  };
  add(0, opened, SpecialCluster::Root, true);
  std::mt19937 random(1);
  for (std::uint32_t i = 0; i < children; ++i) add(random() % 100'000'000, opened + 1 + i, opened, true);
  for (std::uint32_t i = 0; i < files; ++i) {
    const bool folder = i < children;
    add(i, std::int64_t{1'000'000} + i, opened + 1 + (folder ? i : random() % children), folder);
  }
  engine.Folders().FillDriveNodes(node);
  TTreeNode* folder =
      node->Children.front()->Children.size() > 0 ? node->Children.front().get() : node->Children.back().get();
  view.Added = 0;
  const auto begin = std::chrono::steady_clock::now();
  engine.Folders().FillNodes(folder, true);
  const TInt64DynArray content = engine.Drives().GetParentClusters(0, opened);
  std::size_t shown = 0;
  for (const std::int64_t number : content) {
    shown += engine.Files().IsFiltered(static_cast<int>(number), false, TFileFilter()) ? 1 : 0;
  }
  std::printf("%f %zu\n", Seconds(begin), shown);
  return view.Added == children && shown == children ? 0 : 1;
}

int Pack(const char* path, bool unpack) {
  constexpr std::size_t blockSize = 65536;
  std::FILE* file = std::fopen(path, "rb");
  if (file == nullptr) return 1;
  std::vector<std::uint8_t> all(256 << 20);
  all.resize(std::fread(all.data(), 1, all.size(), file));
  std::fclose(file);
  std::vector<TByteDynArray> packed;
  std::size_t size = 0;
  auto begin = std::chrono::steady_clock::now();
  for (std::size_t at = 0; at < all.size(); at += blockSize) {
    packed.emplace_back();
    CompressLZNT1(std::span(all).subspan(at, std::min(blockSize, all.size() - at)), packed.back(), 2 * blockSize);
    size += packed.back().size();
  }
  if (unpack) {
    begin = std::chrono::steady_clock::now();
    TByteDynArray plain;
    for (const TByteDynArray& block : packed) {
      if (!DecompressLZNT1(block, plain)) return 1;
    }
  }
  std::printf("%f %zu\n", Seconds(begin), size);
  return 0;
}

int ReadAll(const char* path) {
  constexpr std::int64_t chunk = 0x20000;
  TEngine engine;
  if (engine.Drives().Mount(TextFromPath(path), false) < 0) return 1;
  AnalyseDrive(engine, 0);
  const auto begin = std::chrono::steady_clock::now();
  std::size_t total = 0;
  TByteDynArray bytes;
  for (std::size_t i = 0; i < engine.Files().List.size(); ++i) {
    TFile& file = engine.Files().List[i];
    for (std::int64_t at = 0; at < file.FileInfo.aSize; at += chunk) {
      GetFileData(engine, bytes, file, -1, at, std::min(chunk, file.FileInfo.aSize - at));
      total += bytes.size();
    }
  }
  std::printf("%f %zu\n", Seconds(begin), total);
  return 0;
}

int Analyse(const char* path, void (*scan)(TEngine&, int)) {
  TEngine engine;
  if (engine.Drives().Mount(TextFromPath(path), false) < 0) return 1;
  const std::int64_t before = ResidentBytes();
  const auto begin = std::chrono::steady_clock::now();
  scan(engine, 0);
  std::printf("%f %lld\n", Seconds(begin), static_cast<long long>(ResidentBytes() - before));
  return engine.Files().List.empty() ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string verb = argc > 1 ? argv[1] : "";
  if (verb == "pread" && argc == 3) return ReadFile(argv[2], false);
  if (verb == "sum" && argc == 3) return ReadFile(argv[2], true);
  if (verb == "add" && argc == 4)
    return AddFiles(static_cast<std::uint32_t>(std::atoi(argv[2])), static_cast<std::uint32_t>(std::atoi(argv[3])));
  if (verb == "open" && argc == 4)
    return OpenFolder(static_cast<std::uint32_t>(std::atoi(argv[2])), static_cast<std::uint32_t>(std::atoi(argv[3])));
  if (verb == "pack" && argc == 3) return Pack(argv[2], false);
  if (verb == "unpack" && argc == 3) return Pack(argv[2], true);
  if (verb == "readall" && argc == 3) return ReadAll(argv[2]);
  if (verb == "analyse" && argc == 3) return Analyse(argv[2], AnalyseDrive);
  if (verb == "deep" && argc == 3)
    return Analyse(argv[2], [](TEngine& engine, int number) { DeepAnalyseDrive(engine, number); });
  std::fprintf(stderr,
               "usage: bench_engine pread|sum|pack|unpack|readall|analyse|deep FILE | add FILES PARENTS | open FILES "
               "CHILDREN\n");
  return 2;
}
