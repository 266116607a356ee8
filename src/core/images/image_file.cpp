// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/images/image_file.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "core/images/dsk_image.h"
#include "core/images/virtual_disks.h"
#include "core/images/vmware_disk.h"

namespace brenlow {
namespace {

using namespace std::string_view_literals;

struct TFormat {
  const char* Name;
  bool (*Is)(const TImageMarks&);
  TOpenedDevice (*Open)(TImageFile);
};
constexpr TFormat Formats[] = {{"VMDK", IsVMwareDisk, OpenVMwareDisk},
                               {"VDI", IsVDI, OpenVDI},
                               {"VHDX", IsVHDX, OpenVHDX},
                               {"Parallels", IsParallelsDisk, OpenParallelsDisk},
                               {"qcow2", IsQcow2, OpenQcow2},
                               {"VHD", IsVHD, OpenVHD}};

/// Formats that are known by their magic only.
struct TForeign {
  std::string_view Magic;  // at the start of the file
  const char* Name;
};
constexpr TForeign Foreign[] = {{"\xBE\xBA\xFE\xCA\0\0\0\0"sv, "VMDK, SESPARSE"},
                                {"COWD\1\0\0\0"sv, "VMDK, VMFSSPARSE"},
                                {"QED\0"sv, "QED"},
                                {"EVF\x09\x0D\x0A\xFF\0"sv, "EWF (.E01)"},
                                {"EVF2\x0D\x0A\x81\0"sv, "EWF 2 (.Ex01)"},
                                {"LVF\x09\x0D\x0A\xFF\0"sv, "EWF (.L01)"},
                                {"AFF10\x0D\x0A\0"sv, "AFF"}};

bool HasExtension(std::string_view path, std::string_view extension) {
  if (path.size() < extension.size()) return false;
  const std::string_view end = path.substr(path.size() - extension.size());
  return std::equal(end.begin(), end.end(), extension.begin(),
                    [](char a, char b) { return (a >= 'A' && a <= 'Z' ? a - 'A' + 'a' : a) == b; });
}

/// The disk inside, refused when its tables promise more than there is.
TOpenedDevice OpenVirtualDisk(const TFormat& format, TImageFile image) {
  TOpenedDevice opened = format.Open(std::move(image));
  auto* disk = dynamic_cast<TVirtualDisk*>(opened.Device.get());
  if (disk != nullptr && !disk->IsBackedByFiles()) return RefuseImage(TImageProblem::Damaged, format.Name);
  return opened;
}

}  // namespace

TOpenedDevice OpenImage(const std::string& path, int depth) {
  TOpenedDevice opened = OpenDevice(path);
  if (!opened.Device || opened.Device->SectorSize() != 0) return opened;  // no regular file
  const TImageMarks marks(*opened.Device);
  if (IsCompressedImage(marks.Head)) return OpenCompressedImage(std::move(opened.Device));
  TImageFile image{path, std::move(opened.Device), depth};
  for (const TFormat& format : Formats) {
    if (format.Is(marks)) return OpenVirtualDisk(format, std::move(image));
  }
  for (const auto& [magic, name] : Foreign) {
    if (IsAt(marks.Head, 0, magic)) return RefuseImage(TImageProblem::UnknownKind, name);
  }
  // A descriptor that does not begin as they all do.
  if (HasExtension(path, ".vmdk")) return OpenVirtualDisk(Formats[0], std::move(image));
  return {std::move(image.File), 0};
}

TOpenedDevice OpenSource(const std::string& path) { return OpenImage(path, 0); }

}  // namespace brenlow
