// SPDX-License-Identifier: GPL-3.0-or-later
#include "analysis/file_data.h"

#include "analysis/deep/all_fs.h"
#include "core/drives.h"
#include "core/engine.h"
#include "fs/dispatch.h"

namespace brenlow {
namespace {

TDriveInfo& Drive(TEngine& engine, int number) { return engine.Drives().List[static_cast<std::size_t>(number)]; }

}  // namespace

std::shared_ptr<TFileStream> OpenStream(TEngine& engine, TFile& file, int adsNumber) {
  const int number = file.FileInfo.aDriveNumber;
  if (engine.Drives().IsWrongNumber(number)) return nullptr;
  TDriveInfo& drive = Drive(engine, number);
  FindFirstClusters(engine, file);
  return engine.Content().Open(drive, file.FileInfo, adsNumber, [&](TFileStream& stream) {
    if (file.FileInfo.aDeepAnalyse) return engine.AllFS().MapStream(drive, file, stream);
    const auto map = [&](auto& driver) { return driver.MapStream(drive, file, adsNumber, stream); };
    return WithDriver(engine, drive.FileSystem, map, false);
  });
}

void GetFileData(TEngine& engine, TByteDynArray& result, TFile& file, int adsNumber, std::int64_t start,
                 std::int64_t size) {
  const std::shared_ptr<TFileStream> stream = OpenStream(engine, file, adsNumber);
  if (!stream) return result.clear();
  engine.Content().Read(Drive(engine, file.FileInfo.aDriveNumber), *stream, start, size, result);
}

TFileStretch GetFileStretch(TEngine& engine, TFile& file, int adsNumber, std::int64_t start, std::int64_t size) {
  const std::shared_ptr<TFileStream> stream = OpenStream(engine, file, adsNumber);
  if (!stream) return {};
  return engine.Content().StretchAt(Drive(engine, file.FileInfo.aDriveNumber), *stream, start, size);
}

void GetFileFragments(TEngine& engine, TFile& file, TFileFragments& result) {
  result.clear();
  const int number = file.FileInfo.aDriveNumber;
  if (engine.Drives().IsWrongNumber(number)) return;
  bool told = false;
  const auto map = [&](auto& driver) {
    if constexpr (requires { driver.GetFileFragments(file, result); }) {
      driver.GetFileFragments(file, result);
      told = true;
    }
    return true;
  };
  if (!file.FileInfo.aDeepAnalyse) WithDriver(engine, Drive(engine, number).FileSystem, map, false);
  if (told) return;
  if (const auto stream = OpenStream(engine, file, -1)) result = FragmentsOf(Drive(engine, number), *stream);
}

void FindFirstClusters(TEngine& engine, TFile& file) {
  const int number = file.FileInfo.aDriveNumber;
  if (engine.Drives().IsWrongNumber(number) || !file.FileInfo.blnDeleted || file.FileInfo.aDeepAnalyse) return;
  const auto find = [&](auto& driver) {
    if constexpr (requires { driver.ChangeFileFirstCluster(file.FileInfo); }) {
      driver.ChangeFileFirstCluster(file.FileInfo);
    }
    return true;
  };
  WithDriver(engine, Drive(engine, number).FileSystem, find, false);
}

bool IsPlaceOpen(TEngine& engine, const TFile& file) {
  const TFileInfo& info = file.FileInfo;
  if (!info.blnDeleted || info.aDeepAnalyse || engine.Drives().IsWrongNumber(info.aDriveNumber)) return false;
  const TDriveInfo& drive = Drive(engine, info.aDriveNumber);
  const auto ask = [&](auto& driver) {
    if constexpr (requires { driver.IsPlaceOpen(drive, info); }) return driver.IsPlaceOpen(drive, info);
    return false;
  };
  return WithDriver(engine, drive.FileSystem, ask, false);
}

void FillADS(TEngine& engine, const TFile& file, TADSDynArray& result) {
  result.clear();
  const int number = file.FileInfo.aDriveNumber;
  if (engine.Drives().IsWrongNumber(number) || file.FileInfo.aDeepAnalyse) return;
  const auto fill = [&](auto& driver) {
    if constexpr (requires { driver.FillADS(file, result); }) driver.FillADS(file, result);
    return true;
  };
  WithDriver(engine, Drive(engine, number).FileSystem, fill, false);
}

namespace {

/// What the end of the analysis has noted, or for rows that it had to leave out what the driver knows now.
TContentDoubt NotedDoubtOf(TEngine& engine, const TFile& file) {
  const TFileInfo& info = file.FileInfo;
  if (info.Doubt != TContentDoubt::Unchecked || engine.Drives().IsWrongNumber(info.aDriveNumber)) return info.Doubt;
  const auto ask = [&](auto& driver) {
    if constexpr (requires { driver.IsOverwritten(file); }) {
      if (driver.IsOverwritten(file)) return TContentDoubt::Overwritten;
    }
    return TContentDoubt::Unchecked;
  };
  return WithDriver(engine, Drive(engine, info.aDriveNumber).FileSystem, ask, TContentDoubt::Unchecked);
}

}  // namespace

TContentDoubt DoubtOf(TEngine& engine, const TFile& file) {
  const TContentDoubt noted = file.FileInfo.blnDeleted ? NotedDoubtOf(engine, file) : TContentDoubt::None;
  if (IsOverwritten(noted) || noted == TContentDoubt::NameOnly) return noted;
  return PlaceOf(engine, file) == TPlaceSource::Estimated ? TContentDoubt::PlaceEstimated : noted;
}

bool IsOverwritten(TContentDoubt doubt) {
  return doubt == TContentDoubt::Overwritten || doubt == TContentDoubt::PartlyOverwritten ||
         doubt == TContentDoubt::LaterFile;
}

bool IsOverwritten(TEngine& engine, const TFile& file) { return IsOverwritten(DoubtOf(engine, file)); }

TPlaceSource PlaceOf(TEngine& engine, const TFile& file) {
  const TFileInfo& info = file.FileInfo;
  if (info.aDeepAnalyse) return TPlaceSource::ByContent;
  if (engine.Drives().IsWrongNumber(info.aDriveNumber)) return info.Place;
  const TDriveInfo& drive = Drive(engine, info.aDriveNumber);
  const auto ask = [&](auto& driver) {
    if constexpr (requires { driver.PlaceOf(file); }) {
      return driver.PlaceOf(file);
    } else {
      return drive.GeometrySource == TPlaceSource::Estimated ? drive.GeometrySource : info.Place;
    }
  };
  return WithDriver(engine, drive.FileSystem, ask, info.Place);
}

}  // namespace brenlow
