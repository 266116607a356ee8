// SPDX-License-Identifier: GPL-3.0-or-later
// The walk over the directories of a volume that are in use.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string_view>

#include "core/drive_records.h"
#include "core/file_records.h"
#include "fs/xfs/xfs_inodes.h"
#include "fs/xfs/xfs_reader.h"

namespace brenlow::xfs {

/// Gets every row; false ends the walk.
using TRowSink = std::function<bool(const TFileInfo&, std::int64_t parentCluster)>;
/// A name that was deleted from a directory in use.
using TNameSink = std::function<void(std::int64_t directory, const TFileEntry& entry)>;

class TWalk {
 public:
  TWalk(TEngine& engine, const TDriveInfo& drive, int driveNumber, TInodeTable& inodes, TRowSink rows, TNameSink names)
      : FEngine(engine),
        FDrive(drive),
        FInfo(XFSInfo(drive)),
        FDriveNumber(driveNumber),
        FInodes(inodes),
        FReader(engine, drive),
        FRows(std::move(rows)),
        FNames(std::move(names)) {}

  /// Inodes are read as names lead to them, not all of them before the walk.
  bool ReadsInodes = false;

  /// Walks from the root folder, one folder after the other. False when it was stopped.
  bool WalkTree(bool rootOnly, const std::function<void(double)>& progress);
  /// Inodes in use that no directory led to: folders with what is in them, and files by number.
  bool WalkUnreached();

 private:
  bool WalkFolder(std::int64_t inode);
  bool Enter(std::int64_t folder, const TFileEntry& entry);
  bool EnterByNumber(std::int64_t inode, TInodeRow& row);

  TEngine& FEngine;
  const TDriveInfo& FDrive;
  const TXFSInfo& FInfo;
  int FDriveNumber;
  TInodeTable& FInodes;
  TReader FReader;
  TRowSink FRows;
  TNameSink FNames;
  std::deque<std::int64_t> FWaiting;
  std::int64_t FEntered = 0;
  TString FName;
};

/// A name as text; bytes that are not UTF-8 become the replacement character.
TString NameText(std::string_view name);
/// What a row says of the type of an inode. False for one of no known type, which has no row.
bool SetKind(TFileType type, TFileInfo& info);
/// Where an inode lies, for a row.
void SetPlace(const TDriveInfo& drive, std::int64_t place, TFileInfo& info);
/// A name for what has lost its own: "File", its number, and the extension that its first bytes tell.
TString NameByNumber(TEngine& engine, std::int64_t inode, TBytes head);

}  // namespace brenlow::xfs
