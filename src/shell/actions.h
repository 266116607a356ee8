// SPDX-License-Identifier: GPL-3.0-or-later
// The actions of the main window and when each of them can be chosen.
#pragma once

#include <bitset>
#include <cstdint>
#include <iterator>
#include <string_view>

#include "core/file_records.h"
#include "core/types.h"
#include "shell/file_order.h"

namespace brenlow {

enum class TText : std::uint16_t;

/// Those with `Folders` in their names act on the node selected in the tree, the others on the selection in the file
/// list.
enum class TAction : std::uint8_t {
#define BRENLOW_ACTION(id, ...) id,
#include "shell/actions.inc"
#undef BRENLOW_ACTION
};
inline constexpr TAction AllActions[] = {
#define BRENLOW_ACTION(id, ...) TAction::id,
#include "shell/actions.inc"
#undef BRENLOW_ACTION
};
inline constexpr std::size_t ActionCount = std::size(AllActions);

/// A set of actions.
class TActions {
 public:
  bool Has(TAction action) const { return FBits.test(static_cast<std::size_t>(action)); }
  void Add(TAction action) { FBits.set(static_cast<std::size_t>(action)); }
  bool operator==(const TActions&) const = default;

 private:
  std::bitset<ActionCount> FBits;
};

struct TShellState;

enum class TActionLook : std::uint8_t { Button, Switch };

/// When a chosen action is carried out while something runs.
enum class TActionOrder : std::uint8_t { InTurn, AtOnce, AtOnceIfOpen };

struct TActionInfo {
  TAction Action;
  std::string_view Name;  ///< as "actOpen"
  TText Caption;
  const char* Icon;      ///< "" for none
  const char* Shortcut;  ///< "" for none
  TActionLook Look;
  bool (*IsEnabled)(const TShellState& state);
  TActionOrder Order;
};

const TActionInfo& InfoOf(TAction action);

/// What the actions ask of a selection, in the list or in the tree.
struct TSelectionState {
  bool Any = false;            ///< something that may be acted on
  bool OneFolder = false;      ///< one folder or drive, which can be opened
  bool OpensAtOnce = false;    ///< the one folder can be opened without an analysis
  bool Blank = false;          ///< one drive or folder that shows nothing before an analysis
  bool Recoverable = false;    ///< files or folders of an analysed drive
  bool DriveAnalysed = false;  ///< its drive has results that can be thrown away for new ones
  bool CanCloseDisk = false;   ///< holds a drive that may be taken off the list
  bool Mounted = false;        ///< holds a mounted image
  int Drive = -1;              ///< the drive of the one thing that is selected
  int Number = -1;             ///< the file number of the one thing that is selected
  std::int64_t Count = 0;      ///< things selected
  std::int64_t Size = 0;       ///< bytes of the selected files
};

/// All that decides which actions can be chosen, as plain values.
struct TShellState {
  bool Analysing = false;
  bool Recovering = false;
  bool Searching = false;  ///< a search for partitions runs, or an image is written
  TSelectionState List;
  TSelectionState Tree;
  int ShownFiles = 0;  ///< rows in the file list
  bool ShowsDrives = false;
  bool ShowsSearch = false;  ///< the rows are results of a search
  bool RecoveryListShown = false;
  int RecoveryListFiles = 0;
};

/// While a scan or a recovery runs, whatever could touch drives or files is off; stopping a scan is
/// possible only then. Folders that are already there can still be opened.
TActions CheckActionsEnabled(const TShellState& state);

/// The switches of the view's filter.
struct TFilterAction {
  TAction Action;
  bool TFileFilter::*Field;
};
inline constexpr TFilterAction FilterActions[] = {
    {TAction::actFilterExisting, &TFileFilter::Existing}, {TAction::actFilterDeleted, &TFileFilter::Deleted},
    {TAction::actFilterAllFiles, &TFileFilter::AllFiles}, {TAction::actFilterArchive, &TFileFilter::Archive},
    {TAction::actFilterAudio, &TFileFilter::Audio},       {TAction::actFilterDatabase, &TFileFilter::Database},
    {TAction::actFilterDocument, &TFileFilter::Document}, {TAction::actFilterImage, &TFileFilter::Image},
    {TAction::actFilterVideo, &TFileFilter::Video}};
/// True for the actions of the six kinds of files.
constexpr bool IsKindFilter(TAction action) {
  return action >= TAction::actFilterArchive && action <= TAction::actFilterVideo;
}

/// What the list is sorted by.
struct TSortAction {
  TAction Action;
  TSortKey Key;
};
inline constexpr TSortAction SortActions[] = {{TAction::actSortByName, TSortKey::Name},
                                              {TAction::actSortByType, TSortKey::Type},
                                              {TAction::actSortBySize, TSortKey::Size},
                                              {TAction::actSortByFreeSize, TSortKey::FreeSize},
                                              {TAction::actSortByFileSystem, TSortKey::FileSystem},
                                              {TAction::actSortByStatus, TSortKey::Status},
                                              {TAction::actSortByModified, TSortKey::Modified},
                                              {TAction::actSortByCreated, TSortKey::Created}};

}  // namespace brenlow
