// SPDX-License-Identifier: GPL-3.0-or-later
// Compressed disk images (`.dsk`): a head, a table of lengths, blocks of 64 KiB compressed with LZNT1.
//
// All integers little-endian. 0: "DSK FILE"; 8: size of the disk in bytes (64 bits); 16: number of
// blocks (64 bits); 24: for each block the 16-bit length that it has in the file, 65535 for one that
// is stored as it is; behind the table the blocks without gaps. A raw `.dsk` has no head.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "core/device/device.h"
#include "core/types.h"

namespace brenlow {

namespace dsk {
inline constexpr std::int64_t BlockSize = 65536;  // bytes of the disk
inline constexpr std::int64_t HeadSize = 24;      // bytes
inline constexpr char Magic[] = "DSK FILE";
inline constexpr std::uint16_t StoredRaw = 0xFFFF;
}  // namespace dsk

struct TDiskImage {
  bool Compressed = false;
  std::int64_t CompressedFileSize = 0;  ///< bytes
  /// Position of each block in the file; negative for one that is stored as it is. An image that
  /// was not finished ends at the first block that was not reached.
  TInt64DynArray Table;
};

bool IsCompressedImage(std::span<const std::uint8_t> head);
/// The disk inside; the file as it stands when the head makes no sense.
TOpenedDevice OpenCompressedImage(std::unique_ptr<IDevice> file);

}  // namespace brenlow
