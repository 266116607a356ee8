// SPDX-License-Identifier: GPL-3.0-or-later
// Image files that are more than the bytes of a disk: what decodes each of them.
#pragma once

#include <memory>
#include <string>

#include "core/device/device.h"

namespace brenlow {

/// Opens a block device or a file. An image file with a format of its own reads as the disk inside:
/// compressed `.dsk` by content; `.vmdk`, `.vdi`, `.vhd`, `.vhdx` and `.hdd` by name. One without a
/// valid header of its format is flat. EOPNOTSUPP for images that need a parent or are compressed
/// in a way that is not read here.
TOpenedDevice OpenSource(const std::string& path);

}  // namespace brenlow
