// SPDX-License-Identifier: GPL-3.0-or-later
// What a window gets to see of the engine's data: values, valid whatever the engine does meanwhile.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "core/datetime.h"
#include "core/types.h"
#include "shell/actions.h"
#include "shell/file_order.h"

namespace brenlow {

enum class TText : std::uint16_t;

/// What a row or a node is: selects its icon.
enum class TEntryKind : std::uint8_t {
  Group,
  PhysicalDrive,
  RemovableDrive,
  Image,
  Volume,
  UnknownVolume,  ///< without a known file system
  UnallocatedSpace,
  FoundVolume,
  VirtualVolume,
  Folder,
  LostAndFound,
  DeepAnalysis,
  RecycleBin,
  File,
};

constexpr bool IsDriveKind(TEntryKind kind) {
  return kind >= TEntryKind::PhysicalDrive && kind <= TEntryKind::VirtualVolume;
}

enum class TEntryStatus : std::uint8_t { Existing, Deleted, Overwritten };

/// One row of the file list.
struct TFileRow {
  int Number = -1;  ///< file number
  TString Name;
  TString Type;
  TString Location;        ///< path of its folder; only for results of a search and in the recovery list
  std::int64_t Size = -1;  ///< bytes; negative where there is none
  std::int64_t FreeSize = -1;
  TString FileSystem;
  TDateTime Modified = 0;
  TDateTime Created = 0;
  TEntryKind Kind = TEntryKind::File;
  TEntryStatus Status = TEntryStatus::Existing;
  TContentDoubt Doubt = TContentDoubt::None;
  bool Encrypted = false;
  bool Hidden = false;
  bool Checked = false;  ///< on the recovery list
};

/// A change of the folder tree. Nodes have numbers of their own, never used twice; 0 is the root.
struct TTreeChange {
  enum TKind : std::uint8_t { Added, Removed, Changed, Sorted, Collapsed } Kind = Changed;
  std::uint32_t Node = 0;
  std::uint32_t Parent = 0;  ///< Added
  int Index = 0;             ///< Added: among the children of the parent
  TString Caption;           ///< Added, Changed
  TEntryKind EntryKind = TEntryKind::Folder;
  bool Deleted = false;
  bool HasNil = false;               ///< may have content that was not read yet
  std::vector<std::uint32_t> Order;  ///< Sorted: the children as they stand now
};

struct TDriveSnapshot {
  int Number = -1;
  TString Caption;
  TString Device;  ///< path of the device or file
  TString FileSystem;
  TString PartitionType;
  TEntryKind Kind = TEntryKind::Volume;
  std::int64_t FirstSector = 0;  ///< on its device
  std::int64_t SectorsCount = 0;
  int BytesPerSector = 512;
  std::int64_t FreeSize = -1;  ///< bytes; negative when not known
  TAnalyseInformation Analysed = TAnalyseInformation::aiNone;
  TAnalyseInformation DeepAnalysed = TAnalyseInformation::aiNone;
  bool IsSubDrive = false;
  bool IsPhysical = false;
  bool CanBeAnalysed = false;
  std::uint32_t Node = 0;  ///< in the folder tree; 0 when it has none
  std::int64_t Size() const { return SectorsCount * BytesPerSector; }
  bool HasResults() const {
    return Analysed != TAnalyseInformation::aiNone || DeepAnalysed != TAnalyseInformation::aiNone;
  }
};

/// A list of file numbers in the order in which they are shown. Shared, never changed.
struct TListing {
  std::uint64_t Generation = 0;  ///< file numbers of another generation mean other files
  std::shared_ptr<const TIntegerDynArray> Numbers = std::make_shared<const TIntegerDynArray>();
};

enum class TViewCategory : std::uint8_t { vcDrives, vcFiles, vcSearchResults };

/// What the file list shows.
struct TPlaceSnapshot {
  TViewCategory Category = TViewCategory::vcDrives;
  std::uint64_t Place = 0;  ///< another number for every other folder, group or search
  std::vector<TString> Crumbs;
  std::uint32_t Node = 0;  ///< in the folder tree; 0 when it has none
  TListing Listing;
  std::vector<TFileRow> Head;  ///< the content of the first rows
  TSortOrder Sort;
  int SortColumn = 0;  ///< of the list's columns
  int Hidden = 0;      ///< entries that the filter keeps from view
  int Drive = -1;      ///< the drive that is shown
  bool IsDriveRoot = false;
  bool IsDeepFolder = false;
  bool CanGoBack = false, CanGoForward = false, CanGoUp = false;
};

/// What runs, and how far it is.
struct TProgressSnapshot {
  enum TKind : std::uint8_t { None, Analysing, DeepAnalysing, SearchingPartitions, SavingImage } Kind = None;
  TString Caption;              ///< of the drive
  double Position = 0;          ///< 0 to 1
  std::int64_t Bytes = 0;       ///< moved since it began
  std::int64_t Found = 0;       ///< files and folders
  std::int64_t Unreadable = 0;  ///< sectors
};

/// One line of a property sheet: label and value; the label is the text's.
struct TProperty {
  TText Label{};
  TString Value;
};

struct TProperties {
  TFileRow Row;
  TString Path;  ///< of its folder; empty for drives
  std::vector<TProperty> General;
  std::vector<TProperty> Details;
  struct TStream {
    TString Name;
    TString Type;
    std::int64_t Size = 0;  ///< bytes
    bool IsSystem = false;
  };
  std::vector<TStream> Streams;
};

}  // namespace brenlow
