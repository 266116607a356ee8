// SPDX-License-Identifier: GPL-3.0-or-later
// The NTFS driver: any bytes as a volume, analysed, listed and read with all streams. The first
// byte picks where reading starts.
#include <cstdint>
#include <cstdlib>

#include "analysis/analysis.h"
#include "analysis/file_data.h"
#include "core/drives.h"
#include "core/engine.h"
#include "fs/ntfs/ntfs.h"
#include "memory_device.h"
#include "table/files.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace brenlow;
  if (size < 513 || size > (1 << 18)) return 0;
  const std::uint8_t way = data[0];
  TEngine engine;
  const int number = fuzz::MountInput(engine, data + 1, size - 1);
  if (number < 0) return 0;
  TDriveInfo& drive = engine.Drives().List[static_cast<std::size_t>(number)];
  if (drive.FileSystem != TFileSystem::fsNTFS) return 0;
  AnalyseDrive(engine, number);
  if (engine.Files().CountUnreached(number) != 0) std::abort();

  engine.Recovering = true;
  TByteDynArray bytes;
  TADSDynArray streams;
  TFileFragments fragments;
  for (std::size_t i = 0; i < std::min<std::size_t>(engine.Files().List.size(), 64); ++i) {
    TFile& file = engine.Files().List[i];
    GetFileData(engine, bytes, file, -1, way * 100, 10000);
    if (static_cast<std::int64_t>(bytes.size()) > file.FileInfo.aSize) std::abort();
    GetFileFragments(engine, file, fragments);
    engine.Files().GetSizeOnDisk(file);
    FillADS(engine, file, streams);
    for (std::size_t s = 0; s < std::min<std::size_t>(streams.size(), 8); ++s) {
      GetFileData(engine, bytes, file, static_cast<int>(s), way, 5000);
      if (bytes.size() > 5000) std::abort();
    }
    IsOverwritten(engine, file);
  }
  TFileArray listed;
  TDriveInfo copy = engine.Drives().List[static_cast<std::size_t>(number)];
  GetDriveFiles(engine, copy, listed, (way & 1) != 0,
                [](TDriveInfo&, const TFileArray& files, bool& canBreak) { canBreak = files.size() > 20000; });

  // The same bytes met by a partition search, which has found the boot sector already.
  engine.PartRecRunning = engine.Analysing = true;
  engine.Drives().PartRecInfo.MainDrive = number;
  engine.Drives().PartRecInfo.FoundDrives = {copy};
  const int sub = engine.Drives().PartRecAddSubdrive(number, TFileSystem::fsNTFS);
  for (std::size_t at = 1; at + 512 <= size; at += 512) {
    const auto rest = std::span(data + at, std::min<std::size_t>(size - at, 4096));
    engine.NTFS().PartRecAnalyseSector(rest, 0, sub, static_cast<std::int64_t>(at / 512), true);
  }
  engine.NTFS().PartRecDoAfterAnalyse(number);
  engine.NTFS().DoAfterAnalyse(engine.Drives().List[static_cast<std::size_t>(sub)]);
  return 0;
}
