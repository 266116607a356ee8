// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/device_table.h"

#include <algorithm>

#include "core/device/system_disks.h"
#include "core/images/image_file.h"
#include "core/text.h"

namespace brenlow {

std::string DevicePath(TStringView drive) {
  if (drive.size() >= 4) return PathFromText(drive);
  const bool number =
      !drive.empty() && std::all_of(drive.begin(), drive.end(), [](char16_t c) { return c >= u'0' && c <= u'9'; });
  if (!number) return "\\\\.\\" + ToUtf8(drive) + ":";
  const auto wanted = static_cast<std::size_t>(std::stoi(ToUtf8(drive)));
  const std::vector<TSystemDisk> disks = ListSystemDisks();
  return wanted < disks.size() ? disks[wanted].Path : "\\\\.\\PhysicalDrive" + ToUtf8(drive);
}

IDevice* TDeviceTable::Get(TStringView drive) {
  if (FHasFailed && FFailedKey == drive) return nullptr;
  FHasFailed = false;
  if (FLastDevice != nullptr && FLastKey == drive) return FLastDevice;
  if (const auto inserted = FInserted.find(drive); inserted != FInserted.end()) return inserted->second.get();
  auto found = FOpen.find(drive);
  if (found == FOpen.end()) {
    TOpenedDevice opened = OpenSource(DevicePath(drive));
    if (!opened.Device) {
      FHasFailed = true;
      FFailedKey = drive;
      FLastError = opened.Error;
      FLastProblem = opened.Problem;
      FLastDetail = std::move(opened.Detail);
      return nullptr;
    }
    found = FOpen.emplace(TString(drive), std::move(opened.Device)).first;
  }
  FLastKey = drive;
  FLastDevice = found->second.get();
  return FLastDevice;
}

void TDeviceTable::CloseAll() {
  FOpen.clear();
  FLastDevice = nullptr;
  FHasFailed = false;
}

void TDeviceTable::Close(TStringView drive) {
  const auto found = FOpen.find(drive);
  if (found != FOpen.end()) FOpen.erase(found);
  FLastDevice = nullptr;
  FHasFailed = false;
}

void TDeviceTable::Insert(TStringView drive, std::unique_ptr<IDevice> device) {
  Close(drive);
  FInserted[TString(drive)] = std::move(device);
}

TString TDeviceTable::InsertComposite(std::unique_ptr<IDevice> device) {
  TString key = TString(CompositePrefix) + NumberText(++FComposites);
  Insert(key, std::move(device));
  return key;
}

void TDeviceTable::Remove(TStringView drive) {
  Close(drive);
  const auto found = FInserted.find(drive);
  if (found != FInserted.end()) FInserted.erase(found);
}

}  // namespace brenlow
