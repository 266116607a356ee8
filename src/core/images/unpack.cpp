// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/images/unpack.h"

#include <zlib.h>
#include <zstd.h>

#include <memory>

namespace brenlow {
namespace {

std::size_t Inflate(std::span<const std::uint8_t> input, std::span<std::uint8_t> output, int windowBits) {
  z_stream stream{};
  if (inflateInit2(&stream, windowBits) != Z_OK) return 0;
  stream.next_in = const_cast<Bytef*>(input.data());  // zlib does not write there
  stream.avail_in = static_cast<uInt>(input.size());
  stream.next_out = output.data();
  stream.avail_out = static_cast<uInt>(output.size());
  inflate(&stream, Z_FINISH);
  const std::size_t got = output.size() - stream.avail_out;
  inflateEnd(&stream);
  return got;
}

std::size_t UnpackZstd(std::span<const std::uint8_t> input, std::span<std::uint8_t> output) {
  const std::unique_ptr<ZSTD_DStream, decltype(&ZSTD_freeDStream)> stream(ZSTD_createDStream(), ZSTD_freeDStream);
  ZSTD_inBuffer in{input.data(), input.size(), 0};
  ZSTD_outBuffer out{output.data(), output.size(), 0};
  while (stream && out.pos < out.size) {
    const std::size_t inBefore = in.pos;
    const std::size_t outBefore = out.pos;
    const std::size_t result = ZSTD_decompressStream(stream.get(), &out, &in);
    const bool stuck = in.pos == inBefore && out.pos == outBefore;
    if (ZSTD_isError(result) != 0 || result == 0 || stuck) break;
  }
  return out.pos;
}

}  // namespace

std::size_t Unpack(TPacking packing, std::span<const std::uint8_t> input, std::span<std::uint8_t> output) {
  if (input.empty() || output.empty()) return 0;
  if (packing == TPacking::Zstd) return UnpackZstd(input, output);
  return Inflate(input, output, packing == TPacking::Zlib ? 15 : -15);
}

}  // namespace brenlow
