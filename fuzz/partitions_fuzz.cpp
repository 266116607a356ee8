// SPDX-License-Identifier: GPL-3.0-or-later
// Partition tables: any bytes as the whole of a disk. The drive is told to be larger than the
// input, so that sectors beyond it fail to read.
#include <cstdint>
#include <cstdlib>

#include "core/drives.h"
#include "core/engine.h"
#include "core/partitions.h"
#include "memory_device.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace brenlow;
  if (size < 512 || size > (1 << 20)) return 0;
  for (const int bytesPerSector : {512, 4096}) {
    TEngine engine;
    TDriveInfo drive;
    drive.Drive = u"/input";
    drive.BytesPerSector = bytesPerSector;
    drive.SectorsCount = static_cast<std::int64_t>(size) / bytesPerSector + 1000;
    engine.Devices().Insert(drive.Drive, std::make_unique<fuzz::TInputDevice>(data, size));
    TPhysicalDrive disk;
    engine.Partitions().GetPhysicalDrive(drive, disk);
    for (const TVolume& volume : disk.Volumes) {
      if (static_cast<std::int64_t>(volume.StartingSector) < 0) std::abort();
    }
  }
  TEngine engine;
  fuzz::MountInput(engine, data, size);
  return 0;
}
