// SPDX-License-Identifier: GPL-3.0-or-later
// Contents of volumes that no driver serves, recognised by their published signatures, so that a volume is
// called what it is and not by the promise of its partition type.
#pragma once

#include <cstdint>
#include <span>

#include "core/types.h"

namespace brenlow {

/// What the first sector says beyond doubt: its signature leaves no room for another boot sector.
/// `head` begins at the volume's start; `fsUnknown` when nothing is known there.
TFileSystem NameByFirstSector(std::span<const std::uint8_t> head);

/// What a superblock after the boot area says. A volume that was formatted again may still hold one, so
/// boot sectors are to be asked first.
TFileSystem NameBySuperblock(std::span<const std::uint8_t> head);

}  // namespace brenlow
