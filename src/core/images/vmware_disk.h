// SPDX-License-Identifier: GPL-3.0-or-later
// VMware virtual disks: one sparse or compressed file, or a text descriptor with flat and sparse extents,
// and differences to another such disk.
//
// Format facts: VMware, "Virtual Disk Format 5.0"; libyal, "VMware Virtual Disk (VMDK) format".
#pragma once

#include <cstdint>
#include <string>

#include "core/device/device.h"
#include "core/images/virtual_disk.h"
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
  TString strPath;             ///< of the extent's file; empty for an extent of zeros
  int GrainSize = 128;         ///< sectors
  std::int64_t Directory = 0;  ///< sector of the list of grain tables
  bool ZeroGrains = false;     ///< a location of 1 is a grain of zeros
  bool Compressed = false;     ///< grains are packed, each after its own head
  bool Flat = false;           ///< no grains: sector after sector, from `FirstSector` of the file on
  std::int64_t FirstSector = 0;
};

struct TVMwareInfo {
  std::vector<TVMwareFile> Files;
  std::string Parent;               ///< name of the disk that this one is the difference to; empty for none
  std::uint32_t ParentContent = 0;  ///< the identity of what the parent held
};

/// By the magic of a sparse extent, or the first line of a descriptor.
bool IsVMwareDisk(const TImageMarks& marks);

/// The disk that the file describes or holds; the file as it is when it does neither, as the flat extent
/// of a descriptor is. A refusal for kinds of extents that are not read here.
TOpenedDevice OpenVMwareDisk(TImageFile image);

}  // namespace brenlow
