// SPDX-License-Identifier: GPL-3.0-or-later
// VMware virtual disks: one sparse file, or a text descriptor with flat and sparse extents.
//
// Format facts: VMware, "Virtual Disk Format 5.0"; libyal, "VMware Virtual Disk (VMDK) format".
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/device/device.h"
#include "core/types.h"

namespace brenlow {

/// One grain of a sparse extent.
struct TVMwareGrain {
  std::uint32_t Number = 0;    ///< in the extent
  std::uint32_t Location = 0;  ///< sector in the extent's file; 0: never written
};

struct TVMwareFile {
  std::int64_t StartingSector = 0;  ///< of the extent on the virtual disk
  std::int64_t SectorsCount = 0;
  std::vector<TVMwareGrain> Grains;  ///< ascending by number
  TString strPath;                   ///< of the extent's file; empty for an extent of zeros
  int GrainSize = 128;               ///< sectors
  bool Flat = false;                 ///< no grains: sector after sector, from `FirstSector` of the file on
  std::int64_t FirstSector = 0;
};

struct TVMwareInfo {
  std::vector<TVMwareFile> Files;
};

/// The disk that the file `path` describes or holds; the file as it stands when it is neither.
/// EOPNOTSUPP for compressed disks and for kinds of extents that are not read here.
TOpenedDevice OpenVMwareDisk(const std::string& path, std::unique_ptr<IDevice> file);

}  // namespace brenlow
