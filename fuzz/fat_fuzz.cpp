// SPDX-License-Identifier: GPL-3.0-or-later
// The FAT driver: any bytes as a volume, analysed, listed and read. The first byte picks the way
// in, so that inputs whose boot sector fails the tests are walked all the same.
#include <cstdint>
#include <cstdlib>

#include "analysis/analysis.h"
#include "analysis/file_data.h"
#include "analysis/tree_walk.h"
#include "core/drives.h"
#include "core/engine.h"
#include "fs/fat/fat.h"
#include "memory_device.h"
#include "table/files.h"

namespace {

using namespace brenlow;

class TIgnore final : public ITreeVisitor {
 public:
  bool File(const TTreeEntry&) override { return ++Count < 20000; }
  bool EnterFolder(const TTreeEntry&) override { return ++Count < 20000; }
  void LeaveFolder(const TTreeEntry&) override {}
  int Count = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 513 || size > (1 << 20)) return 0;
  const std::uint8_t way = data[0];
  TEngine engine;
  const int number = fuzz::MountInput(engine, data + 1, size - 1);
  if (number < 0) return 0;
  TDriveInfo& drive = engine.Drives().List[static_cast<std::size_t>(number)];
  if (drive.FileSystem == TFileSystem::fsUnknown) {
    drive.FileSystem = way % 3 == 0 ? TFileSystem::fsFAT12 : way % 3 == 1 ? TFileSystem::fsFAT16 : TFileSystem::fsFAT32;
    drive.DriveTypes = {TDriveType::dtVolume};
  }
  engine.FAT().LostFolderSearch = (way & 0x80) != 0 ? TLostFolderSearch::Always : TLostFolderSearch::WhenNeeded;
  AnalyseDrive(engine, number);
  TIgnore ignore;
  WalkTree(engine, number, ignore);

  engine.Recovering = true;
  TByteDynArray bytes;
  TFileFragments fragments;
  for (std::size_t i = 0; i < std::min<std::size_t>(engine.Files().List.size(), 64); ++i) {
    TFile& file = engine.Files().List[i];
    GetFileData(engine, bytes, file, -1, way * 100, 10000);
    if (static_cast<std::int64_t>(bytes.size()) > file.FileInfo.aSize) std::abort();
    if (file.FileInfo.aSize < (1 << 22)) GetFileFragments(engine, file, fragments);
  }
  engine.Recovering = false;

  TFileArray listed;
  TDriveInfo copy = engine.Drives().List[static_cast<std::size_t>(number)];
  GetDriveFiles(engine, copy, listed, (way & 1) != 0,
                [](TDriveInfo&, const TFileArray& files, bool& canBreak) { canBreak = files.size() > 20000; });

  engine.PartRecRunning = engine.Analysing = true;
  const int sub = engine.Drives().PartRecAddSubdrive(number, TFileSystem::fsFAT16);
  for (std::size_t at = 1; at + 512 <= std::min<std::size_t>(size, 65536); at += 512) {
    const auto sector = static_cast<std::int64_t>(at / 512);
    engine.FAT().PartRecAnalyseSector({data + at, 512}, 0, sub, sector);
    engine.FAT().PartRecAnalyseForNewDrive({data + at, 512}, 0, number, sector);
  }
  return 0;
}
