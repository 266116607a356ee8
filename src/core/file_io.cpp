// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/file_io.h"

#include <unistd.h>

#include <cerrno>

namespace brenlow {

int WriteAt(int file, std::span<const std::uint8_t> bytes, std::int64_t position) {
  while (!bytes.empty()) {
    const ssize_t written = ::pwrite64(file, bytes.data(), bytes.size(), position);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return written < 0 ? errno : ENOSPC;
    bytes = bytes.subspan(static_cast<std::size_t>(written));
    position += written;
  }
  return 0;
}

}  // namespace brenlow
