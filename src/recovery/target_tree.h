// SPDX-License-Identifier: GPL-3.0-or-later
// The folder that a recovery writes into. Files and folders are created relative to open folders
// and never through a symbolic link. A file is written without a name, or where the file system cannot
// do that under one that nobody else has, and gets its real name when it is done, so that a real name always
// means a finished file. One run at a time writes into a folder.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/datetime.h"
#include "core/device/source_guard.h"
#include "core/types.h"

namespace brenlow {

/// An open descriptor; closes it.
class THandle {
 public:
  explicit THandle(int handle = -1) : FHandle(handle) {}
  THandle(THandle&& other) noexcept : FHandle(other.Release()) {}
  THandle& operator=(THandle&& other) noexcept;
  ~THandle() { Close(); }
  int Get() const { return FHandle; }
  bool Valid() const { return FHandle >= 0; }
  int Release();
  void Close();

 private:
  int FHandle;
};

class TTargetTree {
 public:
  TTargetTree() = default;
  TTargetTree(const TTargetTree&) = delete;
  TTargetTree& operator=(const TTargetTree&) = delete;
  ~TTargetTree() { Close(); }

  /// A folder below the target, made on disk when it is entered.
  using TPlace = std::uint32_t;
  static constexpr TPlace Root = 0;
  /// The start of names that a run uses for itself; no file from a source gets such a name.
  static constexpr const char* OwnPrefix = ".brenlow-";
  /// A file while it is written, with a process number and a random one after it.
  static constexpr const char* PartialPrefix = ".brenlow-partial";
  /// Locked by the run that writes into the folder; removed at its end.
  static constexpr const char* LockName = ".brenlow-lock";

  /// Opens the folder, creating it and its parents where missing. 0, or the errno of the failure;
  /// `TSourceGuard::Refused` when it lies on a source, unless the user agreed to that; EWOULDBLOCK when
  /// another run is writing into it.
  int Open(const std::string& path, TSourceGuard guard, bool mayLieOnSource = false);

  /// The run is over: others may write there. Folders that `Open` has made go where they are empty.
  void Close();
  /// For tests: as if the file system could not make files without a name.
  void UseNamedFiles() { FHasUnnamedFiles = false; }

  // ---- folders ----
  /// The place of a folder named on the source. Folders of one parent that are asked for one after
  /// the other share a place when they share a name. `comesAgain`: the place will be entered more
  /// than once, so the names noted in it are kept.
  TPlace Folder(TPlace parent, TStringView name, const TTimeStamp& times, bool comesAgain = false);
  /// Makes a folder the current one, creating it and those above it. 0, or the errno.
  int Enter(TPlace place);
  /// Path below the target, empty or ending in a slash.
  std::string PathOf(TPlace place) const;
  /// Gives all folders entered their times; at the end, as each file in a folder changes them.
  void SetFolderTimes();

  // ---- files in the current folder ----
  /// True when something has that name.
  bool Exists(const std::string& name) const;
  /// True while nothing can be in the current folder but files of claimed names: this run has made
  /// it and enters it once. Saves a check of the target for every file.
  bool HoldsOnlyClaimed() const {
    return FFolders[FCurrent.Place].IsNew && !FFolders[FCurrent.Place].ComesAgain && !FIsOfWindows;
  }
  /// The name with the first number from 2 on that is free.
  std::string FreeName(const std::string& name);
  /// Notes a name for a file of this run; the result is the name, or where it was noted before, a
  /// numbered one.
  std::string Claim(const std::string& name);
  /// The same for this name alone; false when a file of this run has it.
  bool ClaimExactly(const std::string& name) { return FClaimed.try_emplace(Key(name), 1).second; }
  /// Starts a file. 0, or the errno.
  int CreatePartial(THandle& handle);
  /// True when what has that name must never be replaced, as a source is read from it.
  bool IsSource(const std::string& name) const { return FGuard.IsSource(Here(), name); }
  /// Gives the file just written its name. 0, or the errno; EEXIST when the name is taken and
  /// `replace` is not set, or when a source has the name.
  int Finish(const std::string& name, bool replace);
  /// Makes a symbolic link to a path, which is not looked at. 0, or the errno, as `Finish` has it.
  int MakeLink(const std::string& name, const std::string& leadsTo, bool replace, const TTimeStamp& times);
  /// The file just written stays unfinished: "NAME.partial" marks what there is of it, and nothing
  /// is kept of an empty one. The result is the name that it got.
  std::string KeepPartial(const std::string& name);
  /// Opens a finished file for changes. Not valid when there is none.
  THandle OpenFile(const std::string& name) const;

  // ---- the target's file system ----
  const std::string& Path() const { return FPath; }
  /// Has alternate data streams itself.
  bool IsNTFS() const { return FIsNTFS; }
  /// FAT, exFAT or NTFS: other systems will read it, and upper and lower case are the same.
  bool IsOfWindows() const { return FIsOfWindows; }
  /// Bytes that may still be written; -1 when not known.
  std::int64_t FreeBytes() const;

 private:
  struct TFolder {
    TPlace Above = Root;
    std::uint32_t Depth = 0;
    std::string Name;  // as it is on the target once it was entered
    TTimeStamp Times;
    bool Entered = false;
    bool ComesAgain = false;
    bool IsNew = false;  // made by this run
  };
  using TNumbers = std::unordered_map<std::string, int>;  // name to the last number given
  struct TOpenFolder {
    TPlace Place = Root;
    THandle Handle;
  };
  // Descriptors are a limited resource: content deeper than this stays in the folder at this depth.
  static constexpr std::uint32_t MaxDepth = 200;

  /// The file that is being written.
  struct TPartial {
    THandle Handle;
    std::string Name;  // empty while it has none
  };

  int TakeLock();
  void DropPartial();
  int CreateNamed();
  int GiveName(const std::string& name);
  int LinkBeside();
  int Here() const { return FCurrent.Handle.Valid() ? FCurrent.Handle.Get() : FRoot.Get(); }
  int OpenBelow(int above, TFolder& folder, THandle& handle);
  void LookAtFileSystem();
  void Leave();
  std::string Key(const std::string& name) const;

  bool IsForbidden(const THandle& folder) const;

  std::string FPath;
  THandle FRoot;
  THandle FLock;
  TPartial FPartial;
  bool FHasUnnamedFiles = false;  // the file system makes files without a name
  TSourceGuard FGuard;
  bool FMayLieOnSource = false;
  std::vector<std::string> FMade;  // folders that `Open` has made, the innermost first
  std::vector<TFolder> FFolders;
  TOpenFolder FCurrent;                              // the current folder; without a handle it is the root
  TOpenFolder FAbove;                                // the folder above it, for the next one beside it
  TNumbers FClaimed;                                 // names noted in the current folder
  TNumbers FTaken;                                   // numbers found in use in the current folder
  std::unordered_map<TPlace, TNumbers> FKeptClaims;  // of folders that come again
  TPlace FSiblingsOf = Root;
  std::unordered_map<std::string, TPlace> FSiblings;  // places below `FSiblingsOf`, by name
  bool FIsNTFS = false;
  bool FIsOfWindows = false;
};

/// Gives an open file or folder its times; unknown ones stay. Creation times cannot be set here.
void SetTimes(int handle, const TTimeStamp& times);

}  // namespace brenlow
