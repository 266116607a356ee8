// SPDX-License-Identifier: GPL-3.0-or-later
// Copies sectors of a drive into an image file.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "core/images/rescue_map.h"
#include "core/types.h"

namespace brenlow {

class TEngine;
struct TDriveInfo;

struct TImageResult {
  /// errno of what the target refused; EWOULDBLOCK: another run writes this image; EINVAL: the map belongs to something
  /// else; `TSourceGuard::Refused`: `Path` belongs to a source or lies on this one
  int SystemError = 0;
  bool Stopped = false;
  std::int64_t UnreadableSectors = 0;  ///< sectors of the source that are zeros in the image in place of what they hold
  std::string Path;                    ///< of the image; of the part that there is when it was stopped
  std::int64_t LeftOutSectors = 0;     ///< of these, how many were not tried alone, since failures took too long
  std::int64_t Size = 0;               ///< bytes of the source that the image is of
};

/// The name with its extension replaced by ".dsk".
std::string ImageName(const std::string& fileName);

/// Everything that is written for an image: the image, its part while it is written, the map and its successor.
std::vector<std::string> PathsOfImage(const std::string& path, const std::string& mapPath);

/// The image is written as `FILE.partial` and gets its name when it is done: a name is never used
/// for half a disk.
class TImageWriter {
 public:
  /// Sectors count from the start of the drive. Up to the end of the source, what is left there of a
  /// sector belongs to the image.
  TImageWriter(TEngine& engine, const TDriveInfo& drive, std::int64_t firstSector, std::int64_t sectorsCount);
  ~TImageWriter();
  TImageWriter(const TImageWriter&) = delete;
  TImageWriter& operator=(const TImageWriter&) = delete;

  /// The position, 0 to 1. False stops the copy.
  std::function<bool(double)> OnProgress;
  std::int64_t UnreadableSectors() const { return FUnreadable; }

  /// Byte after byte, blocks of zeros as holes. What could not be read is tried once more in single
  /// sectors, after everything else, and last of all zones that do not read. With a map file the state is kept there,
  /// and an interrupted copy resumes from it.
  TImageResult WriteRaw(const std::string& path, const std::string& mapPath);
  /// In the compressed form of `.dsk`.
  TImageResult WriteCompressed(const std::string& path);

 private:
  bool Report(std::int64_t doneBytes);
  int CopyGood(int file, TRescueMap& map, const std::string& mapPath);
  int Retry(int file, TRescueMap& map, const std::string& mapPath, const std::function<bool(TMapStatus)>& wanted);
  bool IsLeftOut(std::int64_t position) const;
  int KeepMap(int file, const TRescueMap& map, const std::string& mapPath, bool now);
  int WriteBlocks(int file);
  TImageResult Close(int file, const std::string& path, int error);

  TEngine& FEngine;
  const TDriveInfo& FDrive;
  std::int64_t FFirst;
  std::int64_t FSectorSize;
  std::int64_t FSize;  // bytes
  std::int64_t FUnreadable = 0;
  std::int64_t FMapKept = 0;  // steady clock, milliseconds
  bool FStopped = false;
  std::int64_t FUsualBadTimeLimit;  // of the reader, while the image has its own
};

}  // namespace brenlow
