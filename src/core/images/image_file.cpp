// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/images/image_file.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "core/images/block_map_disk.h"
#include "core/images/dsk_image.h"
#include "core/images/vmware_disk.h"

namespace brenlow {
namespace {

bool HasExtension(std::string_view path, std::string_view extension) {
  if (path.size() < extension.size()) return false;
  const std::string_view end = path.substr(path.size() - extension.size());
  return std::equal(end.begin(), end.end(), extension.begin(),
                    [](char a, char b) { return (a >= 'A' && a <= 'Z' ? a - 'A' + 'a' : a) == b; });
}

}  // namespace

TOpenedDevice OpenSource(const std::string& path) {
  TOpenedDevice opened = OpenDevice(path);
  if (!opened.Device || opened.Device->SectorSize() != 0) return opened;  // no regular file
  if (IsCompressedImage(*opened.Device)) return OpenCompressedImage(std::move(opened.Device));
  if (HasExtension(path, ".vmdk")) return OpenVMwareDisk(path, std::move(opened.Device));
  constexpr std::pair<std::string_view, TBlockMapReader*> formats[] = {
      {".vdi", ReadVDI}, {".vhd", ReadVHD}, {".vhdx", ReadVHDX}, {".hdd", ReadHDD}};
  for (const auto& [extension, reader] : formats) {
    if (HasExtension(path, extension)) return OpenBlockMapDisk(std::move(opened.Device), reader);
  }
  return opened;
}

}  // namespace brenlow
