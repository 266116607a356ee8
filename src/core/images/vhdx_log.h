// SPDX-License-Identifier: GPL-3.0-or-later
// The log of a `.vhdx`: writes to its tables that were not carried out when the machine went down.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "core/device/device.h"
#include "core/types.h"

namespace brenlow {

/// Where the header in force says that the log lies.
struct TVhdxLogPlace {
  TByteDynArray Guid;  ///< of 16 bytes; entries of another one are old
  std::int64_t Start = 0;
  std::int64_t Length = 0;  ///< bytes
};

/// The file as it would be with its log carried out; the file itself when the log holds nothing. Null when
/// the log is damaged, so that what belongs in the tables is unknown.
std::unique_ptr<IDevice> WithReplayedLog(std::unique_ptr<IDevice> file, const TVhdxLogPlace& place);

/// CRC-32C (Castagnoli) of bytes, those of the 4 at `hole` counted as zeros.
std::uint32_t Crc32C(std::span<const std::uint8_t> bytes, std::size_t hole);

}  // namespace brenlow
