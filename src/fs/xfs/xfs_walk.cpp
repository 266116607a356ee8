// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/xfs/xfs_walk.h"

#include <algorithm>
#include <utility>

#include "core/engine.h"
#include "core/language.h"
#include "core/text.h"
#include "table/files.h"
#include "table/signatures.h"

namespace brenlow::xfs {

TString NameText(std::string_view name) { return FromUtf8(name); }

bool SetKind(TFileType type, TFileInfo& info) {
  info.blnFolder = type == TFileType::ftDirectory;
  switch (type) {
    case TFileType::ftSymbolicLink:
      info.Kind = TFileKind::SymbolicLink;
      break;
    case TFileType::ftFIFO:
      info.Kind = TFileKind::Pipe;
      break;
    case TFileType::ftCharacterDevice:
      info.Kind = TFileKind::CharacterDevice;
      break;
    case TFileType::ftBlockDevice:
      info.Kind = TFileKind::BlockDevice;
      break;
    case TFileType::ftSocket:
      info.Kind = TFileKind::Socket;
      break;
    case TFileType::ftUnknown:
      return false;
    default:
      info.Kind = TFileKind::Regular;
  }
  return true;
}

void SetPlace(const TDriveInfo& drive, std::int64_t place, TFileInfo& info) {
  const int sectorSize = std::max(drive.BytesPerSector, 1);
  info.FirstSector = place < 0 ? -1 : place / sectorSize;
  info.OffsetInSector = place < 0 ? 0 : static_cast<std::int32_t>(place % sectorSize);
}

TString NameByNumber(TEngine& engine, std::int64_t inode, TBytes head) {
  return engine.Language()[TText::FileType] + u" " + NumberText(inode) +
         engine.Signatures().GetFileExtBySignature(head);
}

bool TWalk::WalkTree(bool rootOnly, const std::function<void(double)>& progress) {
  const auto count = static_cast<double>(std::max<std::int64_t>(FInfo.AllocatedInodes, 1));
  if (TInodeRow* root = FInodes.Find(FInfo.RootInode); root != nullptr) root->Reached = true;
  FWaiting.push_back(FInfo.RootInode);
  while (!FWaiting.empty()) {
    const std::int64_t folder = FWaiting.front();
    FWaiting.pop_front();
    if (!WalkFolder(folder)) return false;
    progress(std::min(static_cast<double>(FEntered) / count, 1.0));
    if (rootOnly) return true;
  }
  return true;
}

bool TWalk::WalkFolder(std::int64_t inode) {
  if (TInodeRow* row = FInodes.Find(inode); row != nullptr && std::exchange(row->Walked, true)) return true;
  const TByteDynArray bytes = FInodes.Read(inode);
  TInodeCore core;
  if (!ReadInodeCore(bytes, core) || core.FileType != TFileType::ftDirectory) return true;
  core.InodeNumber = inode;
  const bool goesOn = FReader.WalkDirectory(bytes, core, [&](const TFileEntry& entry) {
    FEngine.Pump();
    if (entry.Deleted) {
      FNames(inode, entry);
      return true;
    }
    return Enter(inode, entry);
  });
  FEngine.PumpSoon();
  FEngine.Pump();
  return goesOn;
}

/// An entry of a folder in use. What it names is taken from the inode.
bool TWalk::Enter(std::int64_t folder, const TFileEntry& entry) {
  TInodeRow* row = ReadsInodes ? FInodes.FindOrRead(entry.Inode) : FInodes.Find(entry.Inode);
  TFileInfo info;
  TFiles::ClearInfo(info, FDriveNumber);
  FName = NameText(entry.FileName);
  info.strName = FName;
  info.FirstCluster = entry.Inode;
  SetPlace(FDrive, InodePlace(FInfo, entry.Inode), info);
  const bool known = SetKind(row != nullptr ? row->FileType : entry.FileType, info);
  if (row != nullptr) {
    const bool again = row->Reached;
    row->Reached = true;
    if (!known || (info.blnFolder && again)) return true;
    const bool hasContent = row->FileType == TFileType::ftRegularFile || row->FileType == TFileType::ftSymbolicLink;
    info.aSize = hasContent ? std::max<std::int64_t>(row->Size, 0) : 0;
    info.TimeStamp = row->TimeStamp;
    if (info.blnFolder) FWaiting.push_back(entry.Inode);
  } else {
    info.blnDeleted = true;
  }
  ++FEntered;
  return FRows(info, folder == FInfo.RootInode ? SpecialCluster::Root : folder);
}

bool TWalk::EnterByNumber(std::int64_t inode, TInodeRow& row) {
  constexpr std::size_t headSize = 4096;  // bytes that tell a type
  row.Reached = true;
  const TByteDynArray bytes = FInodes.Read(inode);
  TInodeCore core;
  TExtents extents;
  TByteDynArray head;
  if (!ReadInodeCore(bytes, core) || row.Size <= 0) return true;
  FReader.Extents(bytes, core, extents);
  if (!extents.empty()) head = FReader.Block(extents.front().Block);
  head.resize(std::min({head.size(), headSize, static_cast<std::size_t>(row.Size)}));
  TFileInfo info;
  TFiles::ClearInfo(info, FDriveNumber);
  FName = NameByNumber(FEngine, inode, head);
  info.strName = FName;
  info.FirstCluster = inode;
  SetPlace(FDrive, InodePlace(FInfo, inode), info);
  info.blnFolder = false;
  info.blnDeleted = row.Unlinked || FInodes.IsUncertain(inode);
  info.aSize = row.Size;
  info.TimeStamp = row.TimeStamp;
  return FRows(info, SpecialCluster::LostAndFound);
}

bool TWalk::WalkUnreached() {
  bool goesOn = true;
  // Folders first: they lead to most of the others. Those that no row stands for get one by their number.
  FInodes.ForEach([&](std::int64_t inode, TInodeRow& row) {
    if (!goesOn || row.Reached || row.Walked || row.FileType != TFileType::ftDirectory) return;
    FWaiting.push_back(inode);
    while (goesOn && !FWaiting.empty()) {
      const std::int64_t folder = FWaiting.front();
      FWaiting.pop_front();
      goesOn = WalkFolder(folder);
    }
  });
  FInodes.ForEach([&](std::int64_t inode, TInodeRow& row) {
    if (!goesOn || row.Reached || row.FileType != TFileType::ftRegularFile) return;
    const bool system = std::binary_search(FInfo.SystemInodes.begin(), FInfo.SystemInodes.end(), inode);
    if (!system) goesOn = EnterByNumber(inode, row);
    FEngine.Pump();
  });
  return goesOn;
}

}  // namespace brenlow::xfs
