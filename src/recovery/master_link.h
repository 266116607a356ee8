// SPDX-License-Identifier: GPL-3.0-or-later
// The recovery's only door to the rest of the program, one replaceable operation each. With other
// operations put in, it works on a list of files that is not the file table.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "core/file_records.h"
#include "core/types.h"
#include "recovery/recovery_types.h"

namespace brenlow {

class TEngine;
class TFileWriter;
struct TTargetFile;

/// An operation that may be replaced; without one a call does nothing and gives a default value.
template <typename TSignature>
class TOperation;
template <typename TResult, typename... TArguments>
class TOperation<TResult(TArguments...)> {
 public:
  TOperation& operator=(std::function<TResult(TArguments...)> function) {
    FFunction = std::move(function);
    return *this;
  }
  void Reset() { FFunction = nullptr; }
  TResult operator()(TArguments... arguments) const {
    return FFunction ? FFunction(static_cast<TArguments>(arguments)...) : TResult();
  }

 private:
  std::function<TResult(TArguments...)> FFunction;
};

class TRecoveryMasterLink {
 public:
  explicit TRecoveryMasterLink(TEngine& engine) : FEngine(engine) { ResetToDefaults(); }
  TRecoveryMasterLink(const TRecoveryMasterLink&) = delete;
  TRecoveryMasterLink& operator=(const TRecoveryMasterLink&) = delete;

  /// Every operation to the file table, the drive registry and the drivers. `GetSelectedFiles` is
  /// the caller's.
  void ResetToDefaults();

  TOperation<bool(int fileNumber)> IsFileWrongNumber;
  TOperation<bool(int fileNumber)> GetFileIsFolder;
  TOperation<TStringView(int fileNumber)> GetFileName;
  TOperation<std::int64_t(int fileNumber)> GetFileSize;
  TOperation<bool(int fileNumber)> GetFileDeleted;
  TOperation<int(int fileNumber)> GetFileIconIndex;
  TOperation<int(int fileNumber)> GetFileDriveNumber;
  TOperation<std::int64_t(int fileNumber)> GetFileFirstCluster;
  TOperation<TTimeStamp(int fileNumber)> GetFileTimes;
  TOperation<bool(int fileNumber, bool parentDeleted, const TFileFilter& filter)> IsFiltered;
  TOperation<bool(bool fileDeleted, bool parentDeleted, bool showExisting, bool showDeleted)> IsFilteredByState;
  /// The children of a folder as file numbers.
  TOperation<TInt64DynArray(int driveNumber, std::int64_t number)> GetParentClusters;
  /// False for a folder entry whose content is shown under another entry that shares its place.
  TOperation<bool(int fileNumber)> OwnsContent;
  /// `adsNumber` -1 is the main stream.
  TOperation<void(TByteDynArray& result, int fileNumber, int adsNumber, std::int64_t start, std::int64_t size)>
      GetFileData;
  TOperation<TADSDynArray(int fileNumber)> GetStreams;
  /// Writes the whole file; several where it may begin at several places and all are wanted.
  TOperation<TFileOutcomes(TFileWriter& writer, int fileNumber, const TTargetFile& target)> Recovery;
  /// Writes its alternate data streams beside the file just written.
  TOperation<void(TFileWriter& writer, int fileNumber, const TTargetFile& target)> RecoveryAllADS;
  TOperation<void(TSelectedFiles& files, const TFileFilter& filter)> GetSelectedFiles;
  /// The names of the folders above a file, from the drive's top on.
  TOperation<std::vector<TString>(int fileNumber)> GetFilePath;

 private:
  const TFileInfo& Info(int fileNumber) const;

  TEngine& FEngine;
};

}  // namespace brenlow
