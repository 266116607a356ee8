// SPDX-License-Identifier: GPL-3.0-or-later
// The Ext2/3/4 driver: any bytes as a volume, analysed, listed and read. The first byte picks the way in, so that
// inputs whose superblock fails the tests are walked all the same: some of its fields are put right.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "analysis/analysis.h"
#include "analysis/file_data.h"
#include "analysis/tree_walk.h"
#include "core/drives.h"
#include "core/engine.h"
#include "fs/ext/ext.h"
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

/// Without the mark, and with large blocks, hardly any input would get further than the superblock.
void MendSuperblock(std::vector<std::uint8_t>& volume) {
  volume[1024 + 56] = 0x53;
  volume[1024 + 57] = 0xEF;
  volume[1024 + 24] &= 1;
  volume[1024 + 25] = volume[1024 + 26] = volume[1024 + 27] = 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2049 || size > (1 << 20)) return 0;
  const std::uint8_t way = data[0];
  std::vector<std::uint8_t> volume(data + 1, data + size);
  if ((way & 0x40) != 0) MendSuperblock(volume);
  TEngine engine;
  const int number = fuzz::MountInput(engine, volume.data(), volume.size());
  if (number < 0) return 0;
  TDriveInfo& drive = engine.Drives().List[static_cast<std::size_t>(number)];
  if (drive.FileSystem == TFileSystem::fsUnknown) {
    drive.FileSystem = TFileSystem::fsExt4;
    drive.DriveTypes = {TDriveType::dtVolume};
  }
  engine.ExtX().LostFolderSearch = (way & 0x80) != 0 ? TLostFolderSearch::Always : TLostFolderSearch::WhenNeeded;
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
    IsOverwritten(engine, file);
    engine.Files().GetSizeOnDisk(file);
    if (file.FileInfo.aSize < (1 << 22)) GetFileFragments(engine, file, fragments);
  }
  engine.Recovering = false;

  TFileArray listed;
  TDriveInfo copy = engine.Drives().List[static_cast<std::size_t>(number)];
  GetDriveFiles(engine, copy, listed, (way & 1) != 0,
                [](TDriveInfo&, const TFileArray& files, bool& canBreak) { canBreak = files.size() > 20000; });

  engine.Analysing = true;
  engine.ExtX().PartRecDoBeforeAnalyse(number);
  engine.ExtX().PartRecAnalyseSectors(volume, number, 0);
  engine.ExtX().PartRecFinishVolumes(number);
  engine.ExtX().PartRecClear();
  return 0;
}
