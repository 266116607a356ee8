// SPDX-License-Identifier: GPL-3.0-or-later
// The one place that knows which driver serves a file system.
#pragma once

#include <tuple>
#include <type_traits>
#include <utility>

#include "core/engine.h"
#include "core/families.h"
#include "core/types.h"
#include "fs/apfs/apfs.h"
#include "fs/driver.h"
#include "fs/exfat/exfat.h"
#include "fs/ext/ext.h"
#include "fs/fat/fat.h"
#include "fs/ntfs/ntfs.h"
#include "fs/xfs/xfs.h"

namespace brenlow {

/// Every driver, in the order of the search bits.
inline constexpr std::tuple AllDrivers{&TEngine::FAT,  &TEngine::exFAT, &TEngine::NTFS,
                                       &TEngine::ExtX, &TEngine::XFS,   &TEngine::APFS};

/// Calls `callable(driver)` for every driver, in the order of the search bits.
template <typename TCallable>
void ForEachDriver(TEngine& engine, TCallable&& callable) {
  const auto call = [&](auto& driver) {
    static_assert(TFileSystemDriver<std::remove_reference_t<decltype(driver)>>);
    callable(driver);
  };
  std::apply([&](auto... get) { (call((engine.*get)()), ...); }, AllDrivers);
}

/// Calls `callable(driver)` with the driver of `fileSystem`; where there is none the result is
/// `otherwise`.
template <typename TCallable, typename TResult>
TResult WithDriver(TEngine& engine, TFileSystem fileSystem, TCallable&& callable, TResult otherwise) {
  const TFamily* family = FamilyOf(fileSystem);
  if (family == nullptr) return otherwise;
  TResult result = std::move(otherwise);
  ForEachDriver(engine, [&](auto& driver) {
    if (std::remove_reference_t<decltype(driver)>::Family == family->Bit) result = callable(driver);
  });
  return result;
}

}  // namespace brenlow
