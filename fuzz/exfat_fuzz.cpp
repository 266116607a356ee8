// SPDX-License-Identifier: GPL-3.0-or-later
// The exFAT driver: any bytes as a volume, analysed, listed, read, and met by a partition search. The first byte
// picks the way in.
#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "analysis/analysis.h"
#include "analysis/file_data.h"
#include "core/drives.h"
#include "core/engine.h"
#include "fs/exfat/exfat.h"
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
  if (drive.FileSystem == TFileSystem::fsUnknown) {
    drive.FileSystem = TFileSystem::fsExFAT;
    drive.DriveTypes = {TDriveType::dtVolume};
  }
  engine.exFAT().LostFolderSearch = (way & 0x80) != 0 ? TLostFolderSearch::Always : TLostFolderSearch::WhenNeeded;
  AnalyseDrive(engine, number);
  if (engine.Files().CountUnreached(number) != 0) std::abort();

  engine.Recovering = true;
  TByteDynArray bytes;
  TFileFragments fragments;
  for (std::size_t i = 0; i < std::min<std::size_t>(engine.Files().List.size(), 64); ++i) {
    TFile& file = engine.Files().List[i];
    GetFileData(engine, bytes, file, -1, way * 100, 10000);
    if (static_cast<std::int64_t>(bytes.size()) > std::max<std::int64_t>(file.FileInfo.aSize, 0)) std::abort();
    if (file.FileInfo.aSize < (1 << 22)) GetFileFragments(engine, file, fragments);
    IsOverwritten(engine, file);
    PlaceOf(engine, file);
  }
  engine.Recovering = false;

  TFileArray listed;
  TDriveInfo copy = engine.Drives().List[static_cast<std::size_t>(number)];
  GetDriveFiles(engine, copy, listed, (way & 1) != 0,
                [](TDriveInfo&, const TFileArray& files, bool& canBreak) { canBreak = files.size() > 20000; });

  engine.PartRecRunning = engine.Analysing = true;
  engine.Drives().PartRecClearInfo(number);
  if ((way & 2) != 0) engine.Drives().PartRecInfo.FoundDrives = {copy};
  engine.exFAT().PartRecDoBeforeAnalyse(number);
  const int candidate = engine.Drives().PartRecAddSubdrive(number, TFileSystem::fsExFAT);
  for (std::size_t at = 1; at + 512 <= size; at += 512) {
    const auto rest = std::span(data + at, std::min<std::size_t>(size - at, 4096));
    const auto sector = static_cast<std::int64_t>(at / 512);
    engine.exFAT().PartRecNoteSector(rest, number, sector);
    engine.exFAT().PartRecAnalyseForNewDrive(rest, 0, number, sector);
    engine.exFAT().PartRecAnalyseSector(rest, 0, candidate, sector);
  }
  engine.exFAT().PartRecFinishVolumes(number);
  engine.exFAT().PartRecClear();
  return 0;
}
