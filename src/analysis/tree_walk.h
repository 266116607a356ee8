// SPDX-License-Identifier: GPL-3.0-or-later
// Walks the folder tree of one analysed drive.
#pragma once

#include <cstdint>

#include "core/file_records.h"
#include "core/types.h"

namespace brenlow {

class TEngine;

/// One entry met on the walk.
struct TTreeEntry {
  int FileNumber = -1;
  const TFile* File = nullptr;
  /// Names from the drive's root on, joined with '/', the entry's own included.
  TStringView Path;
  int Depth = 0;               ///< 0 for the drive's top level
  bool ParentDeleted = false;  ///< some folder above is deleted

  /// Deleted itself or with a folder above it.
  bool Deleted() const { return ParentDeleted || File->FileInfo.blnDeleted; }
};

/// What a walk does with the entries.
class ITreeVisitor {
 public:
  virtual ~ITreeVisitor() = default;
  /// A file. False ends the walk.
  virtual bool File(const TTreeEntry& entry) = 0;
  /// A folder, before its content. False ends the walk.
  virtual bool EnterFolder(const TTreeEntry& entry) = 0;
  /// The same folder, after its content.
  virtual void LeaveFolder(const TTreeEntry& entry) = 0;
};

/// Visits everything below the root of the drive, depth first, in each folder what is live before
/// what is deleted. Several folder entries may share one content (a deleted entry whose place a
/// live folder has taken): it is visited once, under the live one.
void WalkTree(TEngine& engine, int driveNumber, ITreeVisitor& visitor);

}  // namespace brenlow
