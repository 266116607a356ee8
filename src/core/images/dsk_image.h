// SPDX-License-Identifier: GPL-3.0-or-later
// Compressed disk images (`.dsk`): a head, a table of lengths, blocks of 64 KiB compressed with LZNT1.
//
// All integers little-endian. 0: "DSK FILE"; 8: size of the disk in bytes (64 bits); 16: number of
// blocks (64 bits); 24: for each block the 16-bit length that it has in the file, 65535 for one that
// is stored as it is; after the table the blocks without gaps. A raw `.dsk` has no head.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include "core/device/device.h"
#include "core/images/virtual_disk.h"
#include "core/types.h"

namespace brenlow {

namespace dsk {
inline constexpr std::int64_t BlockSize = 65536;  // bytes of the disk
inline constexpr std::int64_t HeadSize = 24;      // bytes
inline constexpr char Magic[] = "DSK FILE";
inline constexpr std::uint16_t StoredRaw = 0xFFFF;
}  // namespace dsk

/// Where the blocks of a compressed image lie.
class TDiskImage {
 public:
  struct TBlock {
    std::int64_t Place = 0;   ///< byte in the file
    std::int64_t Length = 0;  ///< bytes in the file, at most a block's
    bool Raw = false;         ///< stored as it is
  };
  /// Goes through the table of `count` lengths once. An image that was not finished ends at the first block
  /// that was not reached.
  TDiskImage(IDevice& file, std::int64_t count);
  /// How many blocks there are.
  std::int64_t Count() const { return FCount; }
  /// A block below `Count()`; nothing when its length cannot be read any more.
  std::optional<TBlock> Find(std::int64_t number);

 private:
  static constexpr std::int64_t Step = 256;  // blocks
  std::optional<std::uint16_t> StoredLength(std::int64_t number);

  std::int64_t CompressedFileSize;  // bytes
  TTableReader FLengths;            // they stay in the file: 16 TiB have 268 million blocks
  std::int64_t FCount = 0;
  TInt64DynArray Table;     // places of the blocks 0, Step, 2 * Step, ...
  std::int64_t FLast = -1;  // the block that was found last, and its place
  std::int64_t FLastPlace = 0;
};

bool IsCompressedImage(std::span<const std::uint8_t> head);
/// The disk inside; the file as it is when the head makes no sense.
TOpenedDevice OpenCompressedImage(std::unique_ptr<IDevice> file);

}  // namespace brenlow
