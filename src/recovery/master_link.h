// SPDX-License-Identifier: GPL-3.0-or-later
// The recovery's only access to the files that it writes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/device/source_guard.h"
#include "core/extent_reader.h"
#include "core/file_records.h"
#include "core/types.h"
#include "recovery/recovery_types.h"
#include "table/folder_index.h"

namespace brenlow {

class TEngine;
class TFileWriter;
struct TTargetFile;

/// What the recovery has to know of a drive.
struct TRecoveryDrive {
  std::int64_t Size = 0;        ///< bytes
  bool StoresInLess = false;    ///< holes, compression or shared clusters: its files may list more than it holds
  TString Device;               ///< key of the device that it lies on
  std::int64_t DeviceSize = 0;  ///< bytes
};

/// Everything that the recovery asks about files and drives. An implementation may have another list of files
/// than the file table.
class TRecoveryMasterLink {
 public:
  TRecoveryMasterLink() = default;
  virtual ~TRecoveryMasterLink() = default;
  TRecoveryMasterLink(const TRecoveryMasterLink&) = delete;
  TRecoveryMasterLink& operator=(const TRecoveryMasterLink&) = delete;

  virtual bool IsFileWrongNumber(int fileNumber) const = 0;
  virtual bool GetFileIsFolder(int fileNumber) const = 0;
  virtual TStringView GetFileName(int fileNumber) const = 0;
  /// Bytes.
  virtual std::int64_t GetFileSize(int fileNumber) const = 0;
  virtual bool GetFileDeleted(int fileNumber) const = 0;
  virtual TFileKind GetFileKind(int fileNumber) const = 0;
  /// What speaks against its content before it is read.
  virtual TContentDoubt GetFileDoubt(int fileNumber) const = 0;
  /// True where that takes a look at where it begins.
  virtual bool IsPlaceOpen(int /*fileNumber*/) const { return false; }
  /// Takes that look at files that are about to be written, for `GetFileDoubt` to weigh them against all others.
  virtual void SettlePlaces(const TInt64DynArray& /*fileNumbers*/) const {}
  virtual int GetFileDriveNumber(int fileNumber) const = 0;
  virtual std::int64_t GetFileFirstCluster(int fileNumber) const = 0;
  virtual TTimeStamp GetFileTimes(int fileNumber) const = 0;
  virtual bool IsFiltered(int fileNumber, bool parentDeleted, const TFileFilter& filter) const = 0;
  /// The children of a folder as file numbers.
  virtual TInt64DynArray GetParentClusters(int driveNumber, std::int64_t number) const = 0;
  /// False for a folder entry whose content is shown under another entry that shares its place.
  virtual bool OwnsContent(int fileNumber) const = 0;
  /// `adsNumber` -1 is the main stream. A wrong number gives nothing.
  virtual void GetFileData(TByteDynArray& result, int fileNumber, int adsNumber, std::int64_t start,
                           std::int64_t size) const = 0;
  /// What of it needs no reading, from byte `start` on, at most `size` bytes; nothing: all is read.
  virtual TFileStretch GetFileStretch(int /*fileNumber*/, int /*adsNumber*/, std::int64_t /*start*/,
                                      std::int64_t /*size*/) const {
    return {};
  }
  virtual TADSDynArray GetStreams(int fileNumber) const = 0;
  /// Writes the whole file; several where it may begin at several places and all are wanted.
  virtual TFileOutcomes Recovery(TFileWriter& writer, int fileNumber, const TTargetFile& target) const = 0;
  /// Writes its alternate data streams beside the file just written.
  virtual void RecoveryAllADS(TFileWriter& writer, int fileNumber, const TTargetFile& target) const = 0;
  virtual void GetSelectedFiles(TSelectedFiles& files, const TFileFilter& filter) const = 0;
  /// The names of the folders above a file, from the drive's top on.
  virtual std::vector<TString> GetFilePath(int fileNumber) const = 0;
  /// False when there is no such drive.
  virtual bool GetDrive(int driveNumber, TRecoveryDrive& drive) const = 0;
  /// Guards everything that is read from.
  virtual TSourceGuard SourceGuard() const = 0;
};

/// The file table, the drive registry and the drivers through that interface. What is selected is for the program to
/// say: nothing here.
class TFileTableLink : public TRecoveryMasterLink {
 public:
  explicit TFileTableLink(TEngine& engine) : FEngine(engine) {}

  bool IsFileWrongNumber(int fileNumber) const override;
  bool GetFileIsFolder(int fileNumber) const override { return Info(fileNumber).blnFolder; }
  TStringView GetFileName(int fileNumber) const override { return Info(fileNumber).strName; }
  std::int64_t GetFileSize(int fileNumber) const override { return Info(fileNumber).aSize; }
  bool GetFileDeleted(int fileNumber) const override { return Info(fileNumber).blnDeleted; }
  TFileKind GetFileKind(int fileNumber) const override { return Info(fileNumber).Kind; }
  TContentDoubt GetFileDoubt(int fileNumber) const override;
  bool IsPlaceOpen(int fileNumber) const override;
  void SettlePlaces(const TInt64DynArray& fileNumbers) const override;
  int GetFileDriveNumber(int fileNumber) const override { return Info(fileNumber).aDriveNumber; }
  std::int64_t GetFileFirstCluster(int fileNumber) const override { return Info(fileNumber).FirstCluster; }
  TTimeStamp GetFileTimes(int fileNumber) const override { return Info(fileNumber).TimeStamp; }
  bool IsFiltered(int fileNumber, bool parentDeleted, const TFileFilter& filter) const override;
  TInt64DynArray GetParentClusters(int driveNumber, std::int64_t number) const override;
  bool OwnsContent(int fileNumber) const override;
  void GetFileData(TByteDynArray& result, int fileNumber, int adsNumber, std::int64_t start,
                   std::int64_t size) const override;
  TFileStretch GetFileStretch(int fileNumber, int adsNumber, std::int64_t start, std::int64_t size) const override;
  TADSDynArray GetStreams(int fileNumber) const override;
  TFileOutcomes Recovery(TFileWriter& writer, int fileNumber, const TTargetFile& target) const override;
  void RecoveryAllADS(TFileWriter& writer, int fileNumber, const TTargetFile& target) const override;
  void GetSelectedFiles(TSelectedFiles& files, const TFileFilter& filter) const override;
  std::vector<TString> GetFilePath(int fileNumber) const override;
  bool GetDrive(int driveNumber, TRecoveryDrive& drive) const override;
  TSourceGuard SourceGuard() const override;

 protected:
  TEngine& Engine() const { return FEngine; }

 private:
  const TFileInfo& Info(int fileNumber) const;

  TEngine& FEngine;
  mutable TFolderIndexCache FFolders;
};

}  // namespace brenlow
