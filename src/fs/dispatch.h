// SPDX-License-Identifier: GPL-3.0-or-later
// The one place that knows which driver serves a file system.
#pragma once

#include "core/engine.h"
#include "core/types.h"
#include "fs/fat/fat.h"
#include "fs/ntfs/ntfs.h"

namespace brenlow {

/// Calls `callable(driver)` with the driver of `fileSystem`; where there is none the result is
/// `otherwise`.
template <typename TCallable, typename TResult>
TResult WithDriver(TEngine& engine, TFileSystem fileSystem, TCallable&& callable, TResult otherwise) {
  switch (fileSystem) {
    case TFileSystem::fsFAT12:
    case TFileSystem::fsFAT16:
    case TFileSystem::fsFAT32:
      return callable(engine.FAT());
    case TFileSystem::fsNTFS:
      return callable(engine.NTFS());
    default:
      return otherwise;
  }
}

}  // namespace brenlow
