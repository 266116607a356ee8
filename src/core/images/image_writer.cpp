// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/images/image_writer.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <span>

#include "core/datetime.h"
#include "core/device/caller.h"
#include "core/drives.h"
#include "core/engine.h"
#include "core/file_io.h"
#include "core/images/dsk_image.h"
#include "core/lznt1.h"
#include "core/numbers.h"
#include "core/sector_reader.h"

namespace brenlow {
namespace {

constexpr std::int64_t SectorsPerUnit = 1024;
constexpr std::int64_t MapInterval = 5000;  // milliseconds

using TBytes = std::span<const std::uint8_t>;

void PutLe(std::uint8_t* at, std::uint64_t value, int size) {
  for (int i = 0; i < size; ++i) at[i] = static_cast<std::uint8_t>(value >> (8 * i));
}

std::string PartialName(const std::string& path) { return path + ".partial"; }

/// True when the name still means the open file.
bool HasName(const std::string& path, int file) {
  struct stat named {
  }, open{};
  return ::lstat(path.c_str(), &named) == 0 && ::fstat(file, &open) == 0 && named.st_dev == open.st_dev &&
         named.st_ino == open.st_ino;
}

/// The file that becomes the image, locked against other runs; -1 with errno, EWOULDBLOCK while another run writes it.
/// With `isNew` it is empty.
int OpenPartial(const std::string& path, bool isNew) {
  constexpr int flags = O_RDWR | O_CLOEXEC | O_NOFOLLOW;
  const std::string partial = PartialName(path);
  const int file = OpenOrCreate(AT_FDCWD, partial.c_str(), flags, 0666);
  if (file < 0) return -1;
  int error = 0;
  // Some file systems have no locks.
  if (::flock(file, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) error = EWOULDBLOCK;
  // A run that has just ended gave the file its name.
  if (error == 0 && !HasName(partial, file)) error = EWOULDBLOCK;
  if (error == 0 && isNew && ::ftruncate64(file, 0) != 0) error = errno;
  if (error == 0) return file;
  ::close(file);
  errno = error;
  return -1;
}

}  // namespace

std::string ImageName(const std::string& fileName) {
  const std::size_t name = fileName.rfind('/') + 1;
  const std::size_t dot = fileName.rfind('.');
  const bool hasExtension = dot != std::string::npos && dot > name;
  return (hasExtension ? fileName.substr(0, dot) : fileName) + ".dsk";
}

std::vector<std::string> PathsOfImage(const std::string& path, const std::string& mapPath) {
  std::vector<std::string> paths{path, PartialName(path)};
  if (!mapPath.empty()) paths.insert(paths.end(), {mapPath, TRescueMap::SuccessorName(mapPath)});
  return paths;
}

TImageWriter::TImageWriter(TEngine& engine, const TDriveInfo& drive, std::int64_t firstSector,
                           std::int64_t sectorsCount)
    : FEngine(engine),
      FDrive(drive),
      FFirst(drive.FirstSector + firstSector),
      FSectorSize(engine.Drives().GetBytesPerSector(drive)),
      FSize(sectorsCount * FSectorSize),
      FUsualBadTimeLimit(engine.Reader().BadTimeLimit) {
  TSectorReader& reader = engine.Reader();
  if (FFirst == 0 && sectorsCount == reader.DeviceSectors(drive)) FSize = reader.DeviceSize(drive);
  // An image is where everything is to be tried, also what a search has left out.
  reader.BadTimeLimit = reader.ImageBadTimeLimit;
  reader.RenewBadTime();
}

TImageWriter::~TImageWriter() { FEngine.Reader().BadTimeLimit = FUsualBadTimeLimit; }

/// False when the copy is to stop.
bool TImageWriter::Report(std::int64_t doneBytes) {
  FEngine.Pump();
  const double position = static_cast<double>(doneBytes) / static_cast<double>(std::max<std::int64_t>(FSize, 1));
  FStopped = FStopped || (OnProgress && !OnProgress(position));
  return !FStopped;
}

// ---- raw ------------------------------------------------------------------------------------

TImageResult TImageWriter::WriteRaw(const std::string& path, const std::string& mapPath) {
  const std::string partial = PartialName(path);
  TRescueMap map(FSize);
  const bool resumes = !mapPath.empty() && ::access(mapPath.c_str(), F_OK) == 0;
  if (resumes) {
    TImageResult refused;
    refused.Path = mapPath;
    refused.SystemError = TRescueMap::Load(mapPath, map);
    if (refused.SystemError == 0 && map.Size() != FSize) refused.SystemError = EINVAL;
    // A finished image whose bad places are to be tried again.
    if (refused.SystemError == 0 && ::access(partial.c_str(), F_OK) != 0 &&
        std::rename(path.c_str(), partial.c_str()) != 0) {
      refused.SystemError = errno;
      refused.Path = path;
    }
    if (refused.SystemError != 0) return refused;
    FEngine.Reader().ForgetFaults();
  }
  const int file = OpenPartial(path, !resumes);
  if (file < 0) return Close(-1, path, errno);
  int error = ::ftruncate64(file, FSize) == 0 ? 0 : errno;
  if (error == 0) error = KeepMap(file, map, mapPath, true);
  if (error == 0) error = CopyGood(file, map, mapPath);
  // What lies in a zone that does not read comes last, and with it what an earlier run gave up: that is
  // tried again, since the user asked to resume.
  const auto failed = [](TMapStatus status) {
    return status == TMapStatus::NotTrimmed || status == TMapStatus::NotScraped;
  };
  const auto missing = [](TMapStatus status) { return status != TMapStatus::Finished; };
  if (error == 0 && !FStopped) error = Retry(file, map, mapPath, failed);
  FEngine.Reader().TriesEverySector = true;
  if (error == 0 && !FStopped) error = Retry(file, map, mapPath, missing);
  FEngine.Reader().TriesEverySector = false;
  FUnreadable = CeilDiv(FSize - map.Count(TMapStatus::Finished), FSectorSize);
  if (error == 0) error = KeepMap(file, map, mapPath, true);
  TImageResult result = Close(file, path, error);
  result.LeftOutSectors = FUnreadable - CeilDiv(map.Count(TMapStatus::Bad), FSectorSize);
  return result;
}

/// All that was not tried yet, in large reads; what fails is left for later.
int TImageWriter::CopyGood(int file, TRescueMap& map, const std::string& mapPath) {
  const auto untried = [](TMapStatus status) { return status == TMapStatus::NotTried; };
  TByteDynArray unit(static_cast<std::size_t>(SectorsPerUnit * FSectorSize));
  for (std::int64_t at = map.Find(0, untried); at < FSize; at = map.Find(at, untried)) {
    if (!Report(at)) return 0;
    // Holes of a sparse source are holes of the image.
    const std::int64_t data =
        std::clamp((FEngine.Reader().NextDataSector(FDrive, FFirst + at / FSectorSize) - FFirst) * FSectorSize, at,
                   map.EndOfRange(at));
    map.Set(at, data - at, TMapStatus::Finished);
    at = data;
    const std::int64_t count = std::min<std::int64_t>(map.EndOfRange(at) - at, static_cast<std::int64_t>(unit.size()));
    if (count > 0 && at < FSize && map.At(at) == TMapStatus::NotTried) {
      std::int64_t got = FEngine.Reader().ReadDriveSectors(FDrive, unit.data(), FFirst + at / FSectorSize,
                                                           CeilDiv(count, FSectorSize));
      if (got < count) got = got / FSectorSize * FSectorSize;
      const TBytes good(unit.data(), static_cast<std::size_t>(got));
      if (const int error = IsAllZero(good) ? 0 : WriteAt(file, good, at); error != 0) return error;
      map.Set(at, got, TMapStatus::Finished);
      map.Set(at + got, count - got, TMapStatus::NotTrimmed);
      FUnreadable += CeilDiv(count - got, FSectorSize);
    }
    if (const int error = KeepMap(file, map, mapPath, false); error != 0) return error;
  }
  return 0;
}

/// True for a sector that was not read because failures around it took too long.
bool TImageWriter::IsLeftOut(std::int64_t position) const {
  return FEngine.Reader().IsLeftOut(FDrive, FFirst + position / FSectorSize);
}

/// Sector by sector what failed in large reads.
int TImageWriter::Retry(int file, TRescueMap& map, const std::string& mapPath,
                        const std::function<bool(TMapStatus)>& wanted) {
  TByteDynArray sector(static_cast<std::size_t>(FSectorSize));
  FUnreadable = CeilDiv(FSize - map.Count(TMapStatus::Finished), FSectorSize);
  for (std::int64_t at = map.Find(0, wanted); at < FSize; at = map.Find(at + FSectorSize, wanted)) {
    if (!Report(FSize)) return 0;
    const auto size = static_cast<std::size_t>(std::min(FSectorSize, FSize - at));
    if (FEngine.Reader().ReadDriveSectors(FDrive, sector.data(), FFirst + at / FSectorSize, 1) >= size) {
      if (const int error = WriteAt(file, TBytes(sector.data(), size), at); error != 0) return error;
      map.Set(at, FSectorSize, TMapStatus::Finished);
      --FUnreadable;
    } else {
      map.Set(at, FSectorSize, IsLeftOut(at) ? TMapStatus::NotScraped : TMapStatus::Bad);
    }
    if (const int error = KeepMap(file, map, mapPath, false); error != 0) return error;
  }
  return 0;
}

/// Writes the map file from time to time. What it calls finished is on the disk by then.
int TImageWriter::KeepMap(int file, const TRescueMap& map, const std::string& mapPath, bool now) {
  if (mapPath.empty() || (!now && SteadyMilliseconds() - FMapKept < MapInterval)) return 0;
  if (::fdatasync(file) != 0) return errno;
  FMapKept = SteadyMilliseconds();
  return map.Save(mapPath);
}

// ---- compressed -----------------------------------------------------------------------------

TImageResult TImageWriter::WriteCompressed(const std::string& path) {
  const int file = OpenPartial(path, true);
  if (file < 0) return Close(-1, path, errno);
  FEngine.Reader().TriesEverySector = true;  // there is one pass only
  const int error = WriteBlocks(file);
  FEngine.Reader().TriesEverySector = false;
  return Close(file, path, error);
}

int TImageWriter::WriteBlocks(int file) {
  const std::int64_t count = CeilDiv(FSize, dsk::BlockSize);
  std::uint8_t head[dsk::HeadSize];
  std::memcpy(head, dsk::Magic, 8);
  PutLe(head + 8, static_cast<std::uint64_t>(FSize), 8);
  PutLe(head + 16, static_cast<std::uint64_t>(count), 8);
  std::int64_t end = dsk::HeadSize + 2 * count;
  // The table is zeros until a block is there.
  if (::ftruncate64(file, end) != 0) return errno;
  if (const int error = WriteAt(file, head, 0); error != 0) return error;
  TByteDynArray block(static_cast<std::size_t>(dsk::BlockSize));
  TByteDynArray packed;
  for (std::int64_t i = 0; i < count; ++i) {
    if (!Report(i * dsk::BlockSize)) return 0;
    const std::int64_t size = std::min(dsk::BlockSize, FSize - i * dsk::BlockSize);
    block.resize(static_cast<std::size_t>(CeilDiv(size, FSectorSize) * FSectorSize));
    FUnreadable +=
        FEngine.Reader().ReadOrZero(FDrive, block, FFirst + i * dsk::BlockSize / FSectorSize, TReadEffort::Content);
    block.resize(static_cast<std::size_t>(size));
    // A length of 65535 would read as "stored".
    const bool smaller =
        CompressLZNT1(block, packed, block.size()) && packed.size() != block.size() && packed.size() != dsk::StoredRaw;
    const TByteDynArray& stored = smaller ? packed : block;
    std::uint8_t entry[2];
    PutLe(entry, smaller ? packed.size() : dsk::StoredRaw, 2);
    int error = WriteAt(file, stored, end);
    if (error == 0) error = WriteAt(file, entry, dsk::HeadSize + 2 * i);
    if (error != 0) return error;
    end += static_cast<std::int64_t>(stored.size());
  }
  return 0;
}

/// Gives a whole image its name.
TImageResult TImageWriter::Close(int file, const std::string& path, int error) {
  TImageResult result;
  if (file >= 0) {
    if (error == 0 && !FStopped && ::fsync(file) != 0) error = errno;
    if (::close(file) != 0 && error == 0) error = errno;
  }
  const bool whole = error == 0 && !FStopped;
  if (whole && std::rename(PartialName(path).c_str(), path.c_str()) != 0) error = errno;
  result.SystemError = error;
  result.Stopped = FStopped;
  result.UnreadableSectors = FUnreadable;
  result.Size = FSize;
  result.Path = whole && error == 0 ? path : PartialName(path);
  return result;
}

}  // namespace brenlow
