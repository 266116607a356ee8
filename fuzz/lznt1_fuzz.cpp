// SPDX-License-Identifier: GPL-3.0-or-later
// LZNT1: any bytes as a stream, and as data that must survive being compressed.
#include <cstdint>
#include <cstdlib>

#include "core/lznt1.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace brenlow;
  if (size > (1 << 17)) return 0;
  TByteDynArray output;
  const bool sound = DecompressLZNT1({data, size}, output);
  if (output.size() > 65536) std::abort();
  // Where nothing is damaged, what goes on after damage gives the same.
  TByteDynArray salvaged(output.size());
  const bool whole = SalvageLZNT1({data, size}, salvaged, [](std::size_t, std::size_t) { return false; });
  if (sound && (!whole || salvaged != output)) std::abort();
  TByteDynArray packed;
  if (!CompressLZNT1({data, size}, packed, size * 2 + 64)) std::abort();
  if (!DecompressLZNT1(packed, output, size + 1)) std::abort();
  if (output != TByteDynArray(data, data + size)) std::abort();
  return 0;
}
