// SPDX-License-Identifier: GPL-3.0-or-later
// Puts the engine together; the only unit that knows all of its parts.
#include "core/engine.h"

#include "analysis/deep/all_fs.h"
#include "analysis/folders.h"
#include "core/datetime.h"
#include "core/device_table.h"
#include "core/driver_calls.h"
#include "core/drives.h"
#include "core/extent_reader.h"
#include "core/language.h"
#include "core/partitions.h"
#include "core/sector_reader.h"
#include "fs/dispatch.h"
#include "table/files.h"
#include "table/signatures.h"

namespace brenlow {
namespace {

constexpr std::int64_t PumpInterval = 30;  // milliseconds between two events

}  // namespace

TEngine::TEngine()
    : FLanguage(std::make_unique<TLanguage>(TLanguage::English())),
      FDevices(std::make_unique<TDeviceTable>()),
      FReader(std::make_unique<TSectorReader>(*this)),
      FContent(std::make_unique<TExtentReader>(*this)),
      FPartitions(std::make_unique<TPartitionsInfo>(*this)),
      FDrives(std::make_unique<TDrives>(*this)),
      FDrivers(std::make_unique<TDriverCalls>(*this)),
      FSignatures(std::make_unique<TFileSignatures>()),
      FFiles(std::make_unique<TFiles>(*this)),
      FFolders(std::make_unique<TFolders>(*this)),
      FAllFS(std::make_unique<TAllFS>(*this)),
      FFAT(std::make_unique<TFAT>(*this)),
      FexFAT(std::make_unique<TexFAT>(*this)),
      FNTFS(std::make_unique<TNTFS>(*this)),
      FExtX(std::make_unique<TExtX>(*this)),
      FXFS(std::make_unique<TXFS>(*this)),
      FAPFS(std::make_unique<TAPFS>(*this)) {
  FFiles->Tree = FFolders.get();
}

TEngine::~TEngine() = default;

void TEngine::StopScans() {
  Analysing = false;
  FDrives->CanSearch = false;
  FDrives->CanSave = false;
}

void TEngine::ChangeAnalysingStatus(int driveNumber, bool status) {
  Analysing = status;
  FContent->Forget();
  if (status) {
    FFiles->FoundCount = 0;
    FFolders->FoundCount = 0;
  }
  if (OnChangeAnalysingStatus) OnChangeAnalysingStatus(driveNumber, status);
}

void TEngine::AnalyseProgress(double position) {
  if (OnAnalyseProgress) OnAnalyseProgress(position * AnalyseProgressScale + AnalyseProgressBase);
}

void TEngine::ShowMessage(TText text) {
  if (OnMessage) OnMessage({text, (*FLanguage)[text]});
}

void TEngine::ShowNoDriver(const TDriveInfo& drive) {
  const TString system(TDrives::GetSystemNameBySystem(drive.FileSystem));
  if (OnMessage)
    OnMessage({TText::SystemWithoutDriver, FLanguage->Format(TText::SystemWithoutDriver, {drive.Caption, system})});
}

void TEngine::ChangeLanguage(TLanguage language) {
  *FLanguage = std::move(language);
  FDrives->UpdateLanguage();
  FFiles->UpdateLanguage();
  FFolders->UpdateLanguage();
}

TPartRecSystems ServedFamilies() {
  static constexpr TPartRecSystems served = std::apply(
      [](auto... get) {
        return TPartRecSystems{std::remove_reference_t<decltype((std::declval<TEngine&>().*get)())>::Family...};
      },
      AllDrivers);
  return served;
}

void TEngine::DriveListChanged() { FContent->Forget(); }
void TEngine::ClearDriveFiles(int driveNumber, bool deleteDrive) { FFiles->Clear(driveNumber, deleteDrive); }
void TEngine::BeginDriveFiles(int driveNumber) { FFiles->DoBeforeAnalyse(driveNumber); }

std::int64_t TEngine::SizeOnDisk(const TFile& file) {
  const TFileInfo& info = file.FileInfo;
  if (info.aDeepAnalyse) return FAllFS->GetSizeOnDisk(file);
  if (FDrives->IsWrongNumber(info.aDriveNumber)) return info.aSize;
  const TFileSystem system = FDrives->List[static_cast<std::size_t>(info.aDriveNumber)].FileSystem;
  return WithDriver(
      *this, system, [&](auto& driver) { return driver.GetSizeOnDisk(file); }, info.aSize);
}

void TEngine::PumpSlowly() {
  if (!OnPump || FPumping) return;
  const std::int64_t now = SteadyMilliseconds();
  if (now - FLastPump < PumpInterval) return;
  FLastPump = now;
  // Also where what it calls throws: a scan that is tried again must be served.
  const std::unique_ptr<bool, void (*)(bool*)> pumping(&FPumping, [](bool* flag) { *flag = false; });
  FPumping = true;
  OnPump();
}

}  // namespace brenlow
