// SPDX-License-Identifier: GPL-3.0-or-later
// Image files that are more than the bytes of a disk: what decodes each of them.
#pragma once

#include <string>

#include "core/device/device.h"

namespace brenlow {

/// Opens a block device or a file. An image file with its own format reads as the disk inside, recognised by
/// its magic, whatever its name: compressed `.dsk`, `.vmdk`, `.vdi`, `.vhd`, `.vhdx`, `.hdd` and `.hds`,
/// qcow2. A difference to another disk is read with that disk, which must lie beside it. Any other file is
/// the bytes of a disk. EOPNOTSUPP with a `TImageProblem` for images that cannot be read right.
TOpenedDevice OpenSource(const std::string& path);

}  // namespace brenlow
