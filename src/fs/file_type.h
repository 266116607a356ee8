// SPDX-License-Identifier: GPL-3.0-or-later
// What a Unix file system says an object is: the four highest bits of a mode, which some directories hold as well.
// Source of the numbers: Linux, inode(7); whiteouts: BSD, stat(2).
#pragma once

#include <cstdint>

namespace brenlow {

enum class TFileType : std::uint8_t {
  ftUnknown,
  ftFIFO,
  ftCharacterDevice,
  ftDirectory,
  ftBlockDevice,
  ftRegularFile,
  ftSymbolicLink,
  ftSocket,
  ftWhiteout,
};

/// By those four bits.
constexpr TFileType FileTypeOf(unsigned bits) {
  switch (bits) {
    case 1:
      return TFileType::ftFIFO;
    case 2:
      return TFileType::ftCharacterDevice;
    case 4:
      return TFileType::ftDirectory;
    case 6:
      return TFileType::ftBlockDevice;
    case 8:
      return TFileType::ftRegularFile;
    case 10:
      return TFileType::ftSymbolicLink;
    case 12:
      return TFileType::ftSocket;
    case 14:
      return TFileType::ftWhiteout;
    default:
      return TFileType::ftUnknown;
  }
}

/// By the mode of an inode of Linux, which has no whiteouts.
constexpr TFileType TypeOfMode(std::uint16_t mode) {
  const TFileType type = FileTypeOf(mode >> 12);
  return type == TFileType::ftWhiteout ? TFileType::ftUnknown : type;
}

}  // namespace brenlow
