// SPDX-License-Identifier: GPL-3.0-or-later
// Open devices and images by the key that drives name them with.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "core/device/device.h"
#include "core/types.h"

namespace brenlow {

/// The path for a drive key: a text of 4 or more characters is a path as it is; a shorter one
/// that is a number names the physical drive of that number in the system's list; any other
/// short text names a volume, which this system does not have.
std::string DevicePath(TStringView drive);

/// Open devices by drive key. A failed open stays failed, without a new attempt, until another
/// key is asked for or everything is closed.
class TDeviceTable {
 public:
  /// Null when the device cannot be opened; `LastError` then says why.
  IDevice* Get(TStringView drive);
  void CloseAll();
  void Close(TStringView drive);
  /// errno of the last failed open.
  int LastError() const { return FLastError; }
  /// What was wrong with an image file that could be read; only after an error of EOPNOTSUPP.
  TImageProblem LastProblem() const { return FLastProblem; }
  const std::string& LastDetail() const { return FLastDetail; }
  /// Puts a device of the caller's under a key, in place of what the system has there. It stays
  /// through `Close` and `CloseAll`: it could not be opened again.
  void Insert(TStringView drive, std::unique_ptr<IDevice> device);
  /// A device that is made of others (an array, a volume of a pool), under a key that no other device has or
  /// had; the result is the key. Reads, lengths and holes of such a drive all come from it.
  TString InsertComposite(std::unique_ptr<IDevice> device);
  static bool IsComposite(TStringView drive) { return drive.starts_with(CompositePrefix); }
  /// Takes an inserted device away.
  void Remove(TStringView drive);

 private:
  static constexpr TStringView CompositePrefix = u"composite:";

  int FComposites = 0;
  std::map<TString, std::unique_ptr<IDevice>, std::less<>> FOpen;
  std::map<TString, std::unique_ptr<IDevice>, std::less<>> FInserted;
  TString FLastKey;  // the device used last, spared the search
  IDevice* FLastDevice = nullptr;
  TString FFailedKey;
  bool FHasFailed = false;
  int FLastError = 0;
  TImageProblem FLastProblem = TImageProblem::None;
  std::string FLastDetail;
};

}  // namespace brenlow
