// SPDX-License-Identifier: GPL-3.0-or-later
// The engine object: owns everything that lives for a run. No part of the engine is global.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include "core/types.h"

namespace brenlow {

class TAllFS;
class TDeviceTable;
class TDriverCalls;
class TDrives;
class TExtX;
class TExtentReader;
class TFAT;
class TexFAT;
class TFiles;
class TFolders;
class TFileSignatures;
class TLanguage;
class TNTFS;
class TPartitionsInfo;
class TSectorReader;
class TAPFS;
class TXFS;
struct TDriveInfo;
struct TFile;
enum class TText : std::uint16_t;

/// A message of the engine for the user, in the language in force.
struct TEngineMessage {
  TText Id{};
  TString Text;
};

/// Exactly one thread at a time runs engine code. Only the go-on flags may be cleared from
/// elsewhere (another thread, a signal handler).
class TEngine {
 public:
  TEngine();
  ~TEngine();
  TEngine(const TEngine&) = delete;
  TEngine& operator=(const TEngine&) = delete;

  // ---- state of the run ----
  std::atomic<bool> Analysing{false};   ///< every scan tests it; clearing it stops the scan
  std::atomic<bool> Recovering{false};  ///< a recovery is running; clearing it stops it
  TPartRecSystems PartRecSystems;       ///< what it looks for
  bool PartRecRunning = false;          ///< the current analysis is a partition search
  double AnalyseProgressBase = 0;       ///< shown position = position * scale + base
  double AnalyseProgressScale = 1;

  std::function<void(int driveNumber, bool status)> OnChangeAnalysingStatus;
  /// Position of the current scan, 0.0 to 1.0.
  std::function<void(double)> OnAnalyseProgress;
  std::function<void(const TEngineMessage&)> OnMessage;
  /// A question with the answers "OK, try again" (true) and "Cancel".
  std::function<bool(const TString& question)> OnAskRetry;
  /// Called from the pump a few dozen times a second while the engine works.
  std::function<void()> OnPump;

  /// Clears the go-on flags of scans, searches and images; from any thread.
  void StopScans();
  void ChangeAnalysingStatus(int driveNumber, bool status);
  /// Publishes the position of one volume's scan, mapped onto its share of the whole.
  void AnalyseProgress(double position);
  void ShowMessage(TText text);
  /// Says of a drive that what lies on it has no driver.
  void ShowNoDriver(const TDriveInfo& drive);

  /// Lets waiting events run. Scans call it for every unit of work, so it costs next to nothing
  /// unless some time has passed.
  void Pump() {
    if ((++FPumpCalls & 15U) == 0) PumpSlowly();
  }

  /// Time may have passed, as when a device was read: the next call of `Pump` reads the clock.
  void PumpSoon() { FPumpCalls |= 15U; }

  // ---- what the drive registry needs of upper layers ----
  /// Drive records have moved: whatever is kept of them is dropped.
  void DriveListChanged();
  void ClearDriveFiles(int driveNumber, bool deleteDrive);
  void BeginDriveFiles(int driveNumber);

  // ---- what the file table needs of upper layers ----
  /// Bytes that a file occupies; its size where no driver knows.
  std::int64_t SizeOnDisk(const TFile& file);

  // ---- parts ----
  const TLanguage& Language() const { return *FLanguage; }
  /// Changes all texts, those of known drives and files included.
  void ChangeLanguage(TLanguage language);
  TDeviceTable& Devices() { return *FDevices; }
  /// What the registry asks the drivers.
  TDriverCalls& Drivers() { return *FDrivers; }
  TSectorReader& Reader() { return *FReader; }
  TExtentReader& Content() { return *FContent; }
  TPartitionsInfo& Partitions() { return *FPartitions; }
  TDrives& Drives() { return *FDrives; }
  TFiles& Files() { return *FFiles; }
  TFolders& Folders() { return *FFolders; }
  const TFileSignatures& Signatures() const { return *FSignatures; }
  TAllFS& AllFS() { return *FAllFS; }
  TFAT& FAT() { return *FFAT; }
  TexFAT& exFAT() { return *FexFAT; }
  TNTFS& NTFS() { return *FNTFS; }
  TExtX& ExtX() { return *FExtX; }
  TXFS& XFS() { return *FXFS; }
  TAPFS& APFS() { return *FAPFS; }

 private:
  void PumpSlowly();

  std::uint32_t FPumpCalls = 0;
  std::int64_t FLastPump = 0;  // steady clock, milliseconds
  bool FPumping = false;

  std::unique_ptr<TLanguage> FLanguage;
  std::unique_ptr<TDeviceTable> FDevices;
  std::unique_ptr<TSectorReader> FReader;
  std::unique_ptr<TExtentReader> FContent;
  std::unique_ptr<TPartitionsInfo> FPartitions;
  std::unique_ptr<TDrives> FDrives;
  std::unique_ptr<TDriverCalls> FDrivers;
  std::unique_ptr<TFileSignatures> FSignatures;
  std::unique_ptr<TFiles> FFiles;
  std::unique_ptr<TFolders> FFolders;
  std::unique_ptr<TAllFS> FAllFS;
  std::unique_ptr<TFAT> FFAT;
  std::unique_ptr<TexFAT> FexFAT;
  std::unique_ptr<TNTFS> FNTFS;
  std::unique_ptr<TExtX> FExtX;
  std::unique_ptr<TXFS> FXFS;
  std::unique_ptr<TAPFS> FAPFS;
};

}  // namespace brenlow
