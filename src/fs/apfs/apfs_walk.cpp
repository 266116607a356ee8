// SPDX-License-Identifier: GPL-3.0-or-later
// The analysis of a container: the tree of each volume, and the listing without side effects.
#include "fs/apfs/apfs_walk.h"

#include <algorithm>

#include "core/drives.h"
#include "core/engine.h"
#include "core/language.h"
#include "core/text.h"
#include "fs/apfs/apfs.h"
#include "table/files.h"

namespace brenlow {

namespace apfs {

namespace {

constexpr std::int64_t FirstUserObject = 16;

/// What a row says of a type. False for one that has no row.
bool SetKind(TFileType type, TFileInfo& info) {
  info.blnFolder = type == TFileType::ftDirectory;
  switch (type) {
    case TFileType::ftFIFO:
      info.Kind = TFileKind::Pipe;
      return true;
    case TFileType::ftCharacterDevice:
      info.Kind = TFileKind::CharacterDevice;
      return true;
    case TFileType::ftBlockDevice:
      info.Kind = TFileKind::BlockDevice;
      return true;
    case TFileType::ftSymbolicLink:
      info.Kind = TFileKind::SymbolicLink;
      return true;
    case TFileType::ftSocket:
      info.Kind = TFileKind::Socket;
      return true;
    default:
      info.Kind = TFileKind::Regular;
      return type == TFileType::ftDirectory || type == TFileType::ftRegularFile;
  }
}

/// The start of a short stream, from whole blocks; empty when some of it cannot be had.
TByteDynArray StreamBytes(const TTrees& trees, const TAPFSVolume& volume, std::int64_t id, std::int64_t size) {
  constexpr std::int64_t most = 1 << 20;  // bytes
  constexpr std::int64_t lengthMask = (std::int64_t{1} << 56) - 1;
  TByteDynArray result;
  if (size <= 0 || size > most) return result;
  trees.Find(volume, id, ExtentRecord, [&](const TNode::TEntry& entry, std::int64_t) {
    const std::int64_t length = Id(entry.Value, 0) & lengthMask;
    if (Id(entry.Key, 8) != static_cast<std::int64_t>(result.size())) return false;
    for (std::int64_t i = 0; static_cast<std::int64_t>(result.size()) < size; ++i) {
      const TByteDynArray block = trees.Block(Id(entry.Value, 8) + i);
      if (block.empty() || i * static_cast<std::int64_t>(block.size()) >= length) break;
      result.insert(result.end(), block.begin(), block.end());
    }
    return static_cast<std::int64_t>(result.size()) < size;
  });
  if (static_cast<std::int64_t>(result.size()) < size) return {};
  result.resize(static_cast<std::size_t>(size));
  return result;
}

}  // namespace

TByteDynArray AttributeBytes(const TTrees& trees, const TAPFSVolume& volume, std::int64_t inode,
                             std::string_view name) {
  constexpr std::uint16_t inStream = 1;
  constexpr std::uint16_t embedded = 2;
  TByteDynArray result;
  trees.Find(volume, inode, AttributeRecord, [&](const TNode::TEntry& entry, std::int64_t) {
    if (AttributeName(entry.Key) != name || entry.Value.size() < 4) return true;
    const std::uint16_t flags = ReadLe16(entry.Value, 0);
    const std::size_t length = ReadLe16(entry.Value, 2);
    if ((flags & embedded) != 0 && length <= entry.Value.size() - 4) {
      const TBytes data = entry.Value.subspan(4, length);
      result.assign(data.begin(), data.end());
    } else if ((flags & inStream) != 0) {
      result = StreamBytes(trees, volume, Id(entry.Value, 4), Id(entry.Value, 12));
    }
    return false;
  });
  return result;
}

bool TWalk::EnterRoot(std::size_t volume) {
  const TAPFSVolume& source = APFSInfo(FDrive).Volumes[volume];
  const TString name = !source.VolumeName.empty() ? source.VolumeName
                                                  : FEngine.Language()[TText::Volume] + u" " +
                                                        NumberText(static_cast<std::int64_t>(volume) + 1);
  TFileInfo info;
  TFiles::ClearInfo(info, FDriveNumber);
  info.strName = name;
  info.FirstCluster = RowKey(volume, RootFolder);
  info.FirstSector = source.SuperBlockSector;
  info.Atributes.blnEncrypted = source.Encrypted;
  return FRows(info, SpecialCluster::Root);
}

bool TWalk::Collect(std::size_t volume, const std::function<bool()>& noted) {
  const TTrees trees(FEngine, FDrive);
  return trees.Walk(APFSInfo(FDrive).Volumes[volume], [&](const TNode::TEntry& entry, std::int64_t place) {
    const std::int64_t id = KeyId(entry.Key);
    const std::uint8_t type = KeyType(entry.Key);
    if (type == DirectoryRecord && entry.Value.size() >= 18) {
      const TFileType kind = FileTypeOf(ReadLe16(entry.Value, 16) & 15U);
      FEntries.push_back({Id(entry.Value, 0), id, place, std::string(DirectoryName(entry.Key)), kind});
    } else if (type == InodeRecord) {
      TKnown known;
      known.Place = place;
      if (ReadInode(entry.Value, known.Inode)) FInodes.insert_or_assign(id, std::move(known));
      return noted();
    } else if (type == AttributeRecord && AttributeName(entry.Key) == "com.apple.decmpfs") {
      // The records of an object stand together, its inode first. The real size lies behind mark and method.
      const auto inode = FInodes.find(id);
      const bool embedded = (ReadLe16(entry.Value, 0) & 2U) != 0;
      const TAPFSVolume& source = APFSInfo(FDrive).Volumes[volume];
      const std::int64_t size =
          embedded ? Id(entry.Value, 4 + 8) : Id(AttributeBytes(trees, source, id, "com.apple.decmpfs"), 8);
      if (inode != FInodes.end() && inode->second.Inode.Compressed)
        inode->second.Inode.Size = std::max<std::int64_t>(size, 0);
    } else if (type == AttributeRecord && AttributeName(entry.Key) == "com.apple.fs.symlink") {
      const auto inode = FInodes.find(id);
      const std::int64_t size = ReadLe16(entry.Value, 2);
      if (inode != FInodes.end()) inode->second.Inode.Size = std::max<std::int64_t>(size - 1, 0);
    }
    return true;
  });
}

bool TWalk::Enter(std::size_t volume, std::int64_t id, std::int64_t parent, std::string_view name, std::int64_t place,
                  const TInode* inode, TFileType type, bool deleted) {
  const int sectorSize = std::max(FDrive.BytesPerSector, 1);
  TFileInfo info;
  TFiles::ClearInfo(info, FDriveNumber);
  const TString text = FromUtf8(name);
  info.strName = text;
  info.blnDeleted = deleted;
  info.FirstSector = place / sectorSize;
  info.OffsetInSector = static_cast<std::int32_t>(place % sectorSize);
  const TFileType stated = inode != nullptr && inode->FileType != TFileType::ftUnknown ? inode->FileType : type;
  if (!SetKind(stated, info)) return true;
  info.FirstCluster = RowKey(volume, info.blnFolder || inode == nullptr ? id : inode->PrivateID);
  // Clones have the extents of their own under another number than their attributes.
  info.JournalPosition = RowKey(volume, id);
  if (inode != nullptr) {
    info.TimeStamp = inode->TimeStamp;
    info.aSize = info.blnFolder ? 0 : inode->Size;
    info.Atributes.blnCompressed = inode->Compressed;
  }
  return FRows(info, FRootOnly ? SpecialCluster::Root : RowKey(volume, parent));
}

bool TWalk::EnterFolder(std::size_t volume, std::int64_t folder) {
  const auto before = [](const TDirEntry& entry, std::int64_t id) { return entry.ParentID < id; };
  auto at = std::lower_bound(FEntries.begin(), FEntries.end(), folder, before);
  for (; at != FEntries.end() && at->ParentID == folder; ++at) {
    FEngine.Pump();
    const auto found = FInodes.find(at->ID);
    TKnown* known = found != FInodes.end() ? &found->second : nullptr;
    const bool isFolder = (known != nullptr ? known->Inode.FileType : at->FileType) == TFileType::ftDirectory;
    if (isFolder && known != nullptr && known->Reached) continue;  // a folder has one place only
    if (known != nullptr) known->Reached = true;
    const TInode* inode = known != nullptr ? &known->Inode : nullptr;
    if (!Enter(volume, at->ID, folder, at->Name, at->Place, inode, at->FileType, inode == nullptr)) return false;
    if (isFolder && known != nullptr) FWaiting.push_back(at->ID);
  }
  return true;
}

/// Inodes that no name leads to: what was deleted while it was open, and what a damaged tree has left.
bool TWalk::EnterUnreached(std::size_t volume) {
  for (auto& [id, known] : FInodes) {
    if (known.Reached || id < FirstUserObject) continue;
    const std::string name = !known.Inode.Name.empty() ? known.Inode.Name : std::to_string(id);
    if (!Enter(volume, id, known.Inode.ParentID, name, known.Place, &known.Inode, TFileType::ftUnknown, true))
      return false;
    FEngine.Pump();
  }
  return true;
}

bool TWalk::WalkVolume(std::size_t volume, bool rootOnly, const std::function<bool()>& noted) {
  FEntries.clear();
  FInodes.clear();
  FRootOnly = rootOnly;
  if (!EnterRoot(volume)) return false;
  if (APFSInfo(FDrive).Volumes[volume].Encrypted) return true;
  if (!Collect(volume, noted)) return false;
  std::stable_sort(FEntries.begin(), FEntries.end(),
                   [](const TDirEntry& a, const TDirEntry& b) { return a.ParentID < b.ParentID; });
  if (const auto root = FInodes.find(RootFolder); root != FInodes.end()) root->second.Reached = true;
  FWaiting.assign(1, RootFolder);
  while (!FWaiting.empty()) {
    const std::int64_t folder = FWaiting.front();
    FWaiting.pop_front();
    if (!EnterFolder(volume, folder)) return false;
    if (rootOnly) return true;
  }
  return EnterUnreached(volume);
}

}  // namespace apfs

using namespace apfs;

void TAPFS::Analyse(int driveNumber) {
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  const TAPFSVolumes& volumes = APFSInfo(drive).Volumes;
  double total = 1;
  for (const TAPFSVolume& volume : volumes) {
    total += static_cast<double>(std::max<std::int64_t>(volume.FilesCount, 0));
    total += static_cast<double>(std::max<std::int64_t>(volume.FoldersCount, 0));
  }
  double current = 0;
  const auto noted = [&] {
    current += 1;
    FEngine.AnalyseProgress(std::min(current / total, 1.0));
    return FEngine.Analysing.load();
  };
  const TRowSink rows = [this](const TFileInfo& info, std::int64_t parent) {
    FEngine.Files().Add(info, parent, true);
    return FEngine.Analysing.load();
  };
  TWalk walk(FEngine, drive, driveNumber, rows);
  for (std::size_t i = 0; i < volumes.size(); ++i) {
    if (!walk.WalkVolume(i, false, noted)) return;
  }
}

void TAPFS::AnalyseSystem(int driveNumber) {
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  FEngine.AnalyseProgress(0);
  drive.Analysed = TAnalyseInformation::aiPartial;
  if (!GetDriveInfo(drive, false)) return;
  Analyse(driveNumber);
  if (!FEngine.Analysing) return;
  drive.Analysed = TAnalyseInformation::aiFull;
  FEngine.AnalyseProgress(1.0);
}

void TAPFS::GetFiles(TDriveInfo& drive, TFileArray& result, bool rootDirOnly, const TOnFilesGotten& onFilesGotten) {
  if (!GetDriveInfo(drive, false)) return;
  bool canBreak = false;
  const TRowSink rows = [&](const TFileInfo& info, std::int64_t parent) {
    result.Add(info, parent);
    if (onFilesGotten) onFilesGotten(drive, result, canBreak);
    return !canBreak;
  };
  TWalk walk(FEngine, drive, -1, rows);
  for (std::size_t i = 0; i < APFSInfo(drive).Volumes.size(); ++i) {
    if (!walk.WalkVolume(i, rootDirOnly, [] { return true; })) return;
  }
}

void TAPFS::PartRecDriveAdded(int driveNumber) {
  TDriveInfo& drive = FEngine.Drives().List[static_cast<std::size_t>(driveNumber)];
  if (GetDriveInfo(drive, false)) Analyse(driveNumber);
}

}  // namespace brenlow
