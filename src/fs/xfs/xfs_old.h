// SPDX-License-Identifier: GPL-3.0-or-later
// Files that were deleted: their inodes from where they lay and from the log, their names from wherever a
// directory once had them, and what of it belongs together.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "core/drive_records.h"
#include "core/file_records.h"
#include "fs/xfs/xfs_inodes.h"
#include "fs/xfs/xfs_log.h"
#include "fs/xfs/xfs_reader.h"
#include "fs/xfs/xfs_walk.h"

namespace brenlow::xfs {

class TOldFiles final : public ILogSink {
 public:
  TOldFiles(TEngine& engine, TDriveInfo& drive, int driveNumber, TInodeTable& inodes)
      : FEngine(engine),
        FDrive(drive),
        FInfo(XFSInfo(drive)),
        FDriveNumber(driveNumber),
        FInodes(inodes),
        FReader(engine, drive) {}

  /// An inode that is not in use, at its place.
  void NoteInode(std::int64_t inode, std::int64_t place, TBytes bytes, const TInodeCore& core);
  /// A directory block in free space.
  void NoteBlock(TBytes block);
  /// A name that a directory had. `position`: of the record of the log that says so; 0 when none does.
  void NoteName(std::int64_t directory, const TFileEntry& entry, std::uint64_t position);

  // The log.
  void Inode(TLoggedInode inode) override;
  void Block(const TLoggedBlock& block) override;
  bool GoOn(double position) override;
  std::function<void(double)> Progress;

  /// Enters all rows. False when it was stopped.
  bool Enter(const TRowSink& rows);

 private:
  static constexpr std::uint64_t OnDisk = UINT64_MAX;  // a position later than all of the log
  static constexpr std::size_t NoName = SIZE_MAX;

  /// A state of an inode before it was freed.
  struct TOld {
    std::int64_t Inode = 0;
    std::uint64_t Position = OnDisk;  // the last one at which it was seen
    std::int64_t Key = 0;             // by which its children name it
    std::int64_t Size = -1;           // bytes; -1 for not known
    std::int64_t Place = -1;          // byte of the volume; -1 for one in `Image`
    TTimeStamp TimeStamp;
    std::uint32_t Generation = 0;
    std::int32_t Extents = -1;  // known to be its own; -1 for what the inode says
    TFileType FileType = TFileType::ftUnknown;
    bool Freed = false;        // the disk has the inode as it was left when it was freed
    bool Estimated = false;    // size or extents are a guess
    bool ForkMissing = false;  // the log had the core only
    bool HasChildren = false;
    TByteDynArray Image;
  };
  /// What the log has told of an inode so far.
  struct TState {
    TLoggedInode Last;
    TInodeCore Core;
    bool HadContent = false;  // it was seen before its content was cut off
  };
  struct TName {
    std::int64_t Directory = 0;
    std::int64_t Inode = 0;
    std::uint64_t First = 0;  // positions in the log at which it was there; 0 where none says so
    std::uint64_t Last = 0;
    std::uint32_t Text = 0;  // in `FTexts`
    std::uint8_t Length = 0;
    TFileType FileType = TFileType::ftUnknown;
    bool Used = false;
  };

  std::string_view TextOf(const TName& name) const { return std::string_view(FTexts).substr(name.Text, name.Length); }
  // What the log says.
  void Freeze(TState& state);
  void FreezeRest();
  void TakeForkFromDisk(TOld& old);
  // Directories.
  void NoteShortDirectory(std::int64_t inode, TBytes fork, std::uint64_t position);
  void NoteDirectory(const TOld& old);
  bool IsPlausibleDirectory(TBytes fork) const;
  // What belongs together.
  void DropDoubles();
  void SetKeys();
  void MatchNames();
  std::size_t BestName(const TOld& old, std::uint64_t after, bool last) const;
  std::pair<std::size_t, std::size_t> OldOf(std::int64_t inode) const;
  std::int64_t FolderKey(std::int64_t directory, std::uint64_t position);
  std::int64_t ParentOf(const TOld& old);
  // Content.
  bool Measure(TOld& old);
  TByteDynArray BytesOf(const TOld& old) const;
  TExtents ExtentsOf(const TOld& old) const;
  void MarkSuperseded(const std::vector<std::size_t>& entered);
  // Rows.
  bool EnterOld(std::size_t index, const TRowSink& rows);
  bool EnterName(const TName& name, const TRowSink& rows);
  bool IsWorthListing(const TOld& old, bool named) const;
  TString NameByContent(const TOld& old) const;

  TEngine& FEngine;
  TDriveInfo& FDrive;
  const TXFSInfo& FInfo;
  int FDriveNumber;
  TInodeTable& FInodes;
  TReader FReader;
  std::vector<TOld> FOld;
  std::unordered_map<std::int64_t, TState> FStates;
  std::unordered_map<std::int64_t, std::int64_t> FDirectoryOfBlock;  // by sector of 512 bytes
  std::vector<TName> FNames;
  std::vector<std::size_t> FNameOf;                         // by index of an old inode; `NoName` for none
  std::unordered_map<std::uint64_t, std::uint32_t> FKnown;  // names by their hash
  std::string FTexts;
  TString FName;
};

}  // namespace brenlow::xfs
