// SPDX-License-Identifier: GPL-3.0-or-later
// Images with a format of their own, and map files. The first byte picks the format, the next two
// where reading starts. What a disk says of its size and holes must hold.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "core/images/dsk_image.h"
#include "core/images/rescue_map.h"
#include "core/images/vhdx_log.h"
#include "core/images/virtual_disks.h"
#include "core/images/vmware_disk.h"
#include "memory_device.h"

namespace {

using namespace brenlow;

void ReadMap(const std::uint8_t* data, std::size_t size) {
  const std::string path = "/tmp/brenlow-fuzz-map-" + std::to_string(::getpid());
  if (std::FILE* file = std::fopen(path.c_str(), "wb")) {
    std::fwrite(data, 1, size, file);
    std::fclose(file);
  }
  TRescueMap map(0);
  const bool loaded = TRescueMap::Load(path, map) == 0;
  std::remove(path.c_str());
  if (!loaded) return;
  std::int64_t sum = 0;
  for (const char status : {'?', '*', '/', '-', '+'}) sum += map.Count(static_cast<TMapStatus>(status));
  if (sum != map.Size()) std::abort();
}

/// The input is a log and the file that it writes to.
void ReadLogged(const std::uint8_t* data, std::size_t size) {
  TVhdxLogPlace place{TByteDynArray(16, 'L'), 0, static_cast<std::int64_t>(size) / 4096 * 4096};
  const auto file = WithReplayedLog(std::make_unique<fuzz::TInputDevice>(data, size), place);
  if (!file) return;
  TByteDynArray bytes(100000);
  for (const std::int64_t at : {std::int64_t{0}, file->Size() / 2, file->Size() - 1}) {
    if (file->Read(at, bytes) > bytes.size()) std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 3) return 0;
  const std::uint8_t way = data[0] % 9;
  const std::int64_t start = std::int64_t{data[1]} * 4099 + data[2];
  if (way == 6) {
    ReadMap(data + 3, size - 3);
    return 0;
  }
  if (way == 8) {
    ReadLogged(data + 3, size - 3);
    return 0;
  }
  TImageFile image{"/nowhere/disk.vmdk", std::make_unique<fuzz::TInputDevice>(data + 3, size - 3), 0};
  constexpr TOpenedDevice (*openers[])(TImageFile) = {nullptr,  OpenVMwareDisk,    OpenVDI, OpenVHD,
                                                      OpenVHDX, OpenParallelsDisk, nullptr, OpenQcow2};
  TOpenedDevice opened = way == 0 ? OpenCompressedImage(std::move(image.File)) : openers[way](std::move(image));
  if (!opened.Device) return 0;
  IDevice& disk = *opened.Device;
  if (disk.Size() < 0) std::abort();
  TByteDynArray bytes(100000);
  for (const std::int64_t at : {std::int64_t{0}, start, disk.Size() - 1, disk.Size() / 2, INT64_MAX - 5}) {
    const std::size_t got = disk.Read(at, bytes);
    if (got > bytes.size() || (at >= 0 && at < disk.Size() && static_cast<std::int64_t>(got) > disk.Size() - at)) {
      std::abort();
    }
    if (at >= 0 && at < disk.Size() && disk.NextData(at) < at) std::abort();
  }
  return 0;
}
