// SPDX-License-Identifier: GPL-3.0-or-later
// What the APFS driver keeps of one container.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "core/drive_records.h"
#include "core/types.h"

namespace brenlow {

/// An entry of an object map: the block that holds an object by its newest transaction.
struct TAPFSID {
  std::int64_t ObjectID = 0;
  std::int64_t NewID = 0;
};
using TAPFSIDs = std::vector<TAPFSID>;

struct TAPFSVolume {
  std::int64_t SuperBlockSector = 0;  ///< from the container's start
  std::int64_t ID = 0;
  std::array<std::uint8_t, 16> UUID{};
  std::int64_t AllocBlockCount = 0;
  std::int64_t MapID = 0;   ///< block
  std::int64_t RootID = 0;  ///< object
  std::int64_t FilesCount = 0;
  std::int64_t FoldersCount = 0;
  bool Encrypted = false;
  /// False where extents lie in a tree of their own (sealed), or what they lead to is encrypted file by file.
  bool IsContentPlain = true;
  TString VolumeName;
  TAPFSIDs IDs;  ///< ascending by `ObjectID`
};
using TAPFSVolumes = std::vector<TAPFSVolume>;

struct TAPFSInfo {
  bool IsContainerBroken = false;  ///< only a volume superblock tells of it
  std::uint32_t BlockSize = 0;     ///< bytes
  std::int64_t TotalBlockCount = 0;
  std::int64_t MapID = 0;  ///< block
  std::array<std::uint8_t, 16> UUID{};
  TAPFSVolumes Volumes;
};

inline TAPFSInfo& APFSInfo(TDriveInfo& drive) { return drive.Systems.Get<TAPFSInfo>(); }
inline const TAPFSInfo& APFSInfo(const TDriveInfo& drive) { return drive.Systems.Get<TAPFSInfo>(); }

}  // namespace brenlow
