// SPDX-License-Identifier: GPL-3.0-or-later
// Virtual disks that keep a map from the disk's blocks to places in the file: growing `.vdi`, `.vhd`,
// `.vhdx` and `.hdd`.
#pragma once

#include <cstdint>
#include <memory>

#include "core/device/device.h"
#include "core/types.h"

namespace brenlow {

struct TBlockMap {
  std::int64_t DiskSize = 0;   ///< bytes; 0 when the file is no such disk and reads flat
  std::int64_t BlockSize = 0;  ///< bytes
  TInt64DynArray Places;       ///< bytes in the file where each block begins; -1 for one of zeros
  bool NeedsParent = false;    ///< holds only the difference to another disk
};

using TBlockMapReader = TBlockMap(IDevice& file);
/// Virtual Disk Image 1.1, as libyal documents it ("Virtual Disk Image (VDI) format").
TBlockMap ReadVDI(IDevice& file);
/// Microsoft, "Virtual Hard Disk Image Format Specification" 1.0.
TBlockMap ReadVHD(IDevice& file);
/// Microsoft, [MS-VHDX] 1.0. What stands in its log only is not read.
TBlockMap ReadVHDX(IDevice& file);
/// Parallels disk images, as the documentation of QEMU describes them (docs/interop/parallels).
TBlockMap ReadHDD(IDevice& file);

/// The disk inside, the file as it stands when it is none, or EOPNOTSUPP.
TOpenedDevice OpenBlockMapDisk(std::unique_ptr<IDevice> file, TBlockMapReader* reader);

}  // namespace brenlow
