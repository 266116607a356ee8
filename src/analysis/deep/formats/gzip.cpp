// SPDX-License-Identifier: GPL-3.0-or-later
// Gzip: members are unpacked to their checksums (RFC 1952).
#include <zlib.h>

#include <array>

#include "analysis/deep/structure.h"

namespace brenlow {
namespace {

/// The member that begins at `start`.
TStructure ReadMember(TFileWindow& window, std::int64_t start) {
  constexpr int gzipOnly = 16 + MAX_WBITS;
  constexpr std::int64_t outputPerByte = 8;  // unpacking so much costs as much as reading one byte
  z_stream stream{};
  if (inflateInit2(&stream, gzipOnly) != Z_OK) return {start};
  std::array<std::uint8_t, 65536> output;
  std::int64_t at = start;
  int status = Z_OK;
  while (status == Z_OK) {
    const auto input = window.Bytes(at);
    if (input.empty()) break;
    stream.next_in = const_cast<Bytef*>(input.data());
    stream.avail_in = static_cast<uInt>(input.size());
    do {
      stream.next_out = output.data();
      stream.avail_out = output.size();
      status = inflate(&stream, Z_NO_FLUSH);
      window.Charge(static_cast<std::int64_t>(output.size() - stream.avail_out) / outputPerByte);
    } while (status == Z_OK && (stream.avail_in > 0 || stream.avail_out == 0));
    if (status == Z_BUF_ERROR) status = Z_OK;  // all of the input is used up
    at += static_cast<std::int64_t>(input.size()) - stream.avail_in;
  }
  inflateEnd(&stream);
  return {at, status == Z_STREAM_END};
}

}  // namespace

TStructure ReadGzip(TFileWindow& window) {
  TStructure result = ReadMember(window, 0);
  while (result.Sound && window.Has(result.Size, "\x1F\x8B\x08")) {
    const TStructure next = ReadMember(window, result.Size);
    if (!next.Sound) break;
    result = next;
  }
  return result;
}

}  // namespace brenlow
