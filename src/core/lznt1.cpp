// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/lznt1.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace brenlow {
namespace {

constexpr std::size_t ChunkSize = 4096;
constexpr std::size_t ShortestMatch = 3;
constexpr unsigned StoredHeader = 0x3000;
constexpr unsigned CompressedHeader = 0xB000;

/// Bits of the displacement when `position` bytes (at least 1) of the chunk are out: the smallest
/// number from 4 on that reaches the chunk's start.
constexpr std::array<std::uint8_t, ChunkSize + 1> MakeDisplacementBits() {
  std::array<std::uint8_t, ChunkSize + 1> bits{};
  std::uint8_t current = 4;
  for (std::size_t position = 0; position <= ChunkSize; ++position) {
    while ((std::size_t{1} << current) < position) ++current;
    bits[position] = current;
  }
  return bits;
}
constexpr auto DisplacementBits = MakeDisplacementBits();

// ---- decompression --------------------------------------------------------------------------

/// Copies a match, which may overlap what it makes. There are 8 bytes of room behind the end.
void CopyMatch(std::uint8_t* to, std::size_t distance, std::size_t length) {
  const std::uint8_t* from = to - distance;
  if (distance >= 8) {
    for (std::size_t i = 0; i < length; i += 8) std::memcpy(to + i, from + i, 8);
  } else {
    for (std::size_t i = 0; i < length; ++i) to[i] = from[i];
  }
}

/// Decompresses one chunk's body into `chunk`, which has room for `ChunkSize` + 8 bytes. The
/// result is the size, or above `ChunkSize` for damage.
std::size_t DecompressChunk(std::span<const std::uint8_t> body, std::uint8_t* chunk) {
  constexpr std::size_t damaged = ChunkSize + 1;
  const std::uint8_t* in = body.data();
  const std::uint8_t* const end = in + body.size();
  std::size_t out = 0;
  while (in < end) {
    unsigned flags = *in++;
    if (flags == 0 && end - in >= 8 && out + 8 <= ChunkSize) {
      std::memcpy(chunk + out, in, 8);
      in += 8;
      out += 8;
      continue;
    }
    for (int item = 0; item < 8 && in < end; ++item, flags >>= 1) {
      if ((flags & 1) == 0) {
        if (out == ChunkSize) return damaged;
        chunk[out++] = *in++;
        continue;
      }
      if (end - in < 2) return damaged;
      const unsigned word = in[0] | (static_cast<unsigned>(in[1]) << 8);
      in += 2;
      const unsigned lengthBits = 16U - DisplacementBits[out];
      const std::size_t distance = (word >> lengthBits) + 1;
      const std::size_t length = (word & ((1U << lengthBits) - 1)) + ShortestMatch;
      if (distance > out || length > ChunkSize - out) return damaged;
      CopyMatch(chunk + out, distance, length);
      out += length;
    }
  }
  return out;
}

// ---- compression ----------------------------------------------------------------------------

/// Finds matches within one chunk through chains of equal three-byte hashes.
class TMatcher {
 public:
  explicit TMatcher(std::span<const std::uint8_t> chunk) : FChunk(chunk) { FHeads.fill(None); }

  /// Makes a position known to later ones.
  void Enter(std::size_t position) {
    if (position + ShortestMatch > FChunk.size()) return;
    std::uint16_t& head = FHeads[Hash(position)];
    FPrevious[position] = head;
    head = static_cast<std::uint16_t>(position);
  }
  /// Length of the longest match at a position that is not entered yet, 0 when there is none.
  std::size_t Find(std::size_t position, std::size_t& distance) const {
    if (position + ShortestMatch > FChunk.size()) return 0;
    const std::size_t coded = (std::size_t{1} << (16U - DisplacementBits[position])) - 1 + ShortestMatch;
    const std::size_t longest = std::min(coded, FChunk.size() - position);
    std::size_t best = ShortestMatch - 1;
    std::uint16_t at = FHeads[Hash(position)];
    for (int tries = 0; at != None && tries < MostTries && best < longest; ++tries, at = FPrevious[at]) {
      if (FChunk[at + best] != FChunk[position + best]) continue;
      std::size_t length = 0;
      while (length < longest && FChunk[at + length] == FChunk[position + length]) ++length;
      if (length <= best) continue;
      best = length;
      distance = position - at;
    }
    return best >= ShortestMatch ? best : 0;
  }

 private:
  static constexpr std::uint16_t None = 0xFFFF;
  static constexpr int MostTries = 32;  // more gains less than 1% on text
  std::size_t Hash(std::size_t position) const {
    const std::uint32_t bytes = FChunk[position] | (static_cast<std::uint32_t>(FChunk[position + 1]) << 8) |
                                (static_cast<std::uint32_t>(FChunk[position + 2]) << 16);
    return (bytes * 0x9E3779B1U) >> 20;
  }

  std::span<const std::uint8_t> FChunk;
  std::array<std::uint16_t, 4096> FHeads;
  std::array<std::uint16_t, ChunkSize> FPrevious;
};

/// Appends the compressed body of a chunk. False when it would not be shorter than the chunk.
bool CompressChunk(std::span<const std::uint8_t> chunk, TByteDynArray& output) {
  const std::size_t start = output.size();
  TMatcher matcher(chunk);
  std::size_t flagsAt = 0;
  int item = 8;
  std::size_t position = 0;
  std::size_t distance = 0;
  std::size_t length = 0;
  bool known = false;  // `length` was found already, for this position
  while (position < chunk.size()) {
    if (output.size() - start + 3 > chunk.size()) return false;
    if (item == 8) {
      flagsAt = output.size();
      output.push_back(0);
      item = 0;
    }
    if (!known) length = matcher.Find(position, distance);
    known = false;
    matcher.Enter(position);
    if (length > 0 && length < 64) {
      // A literal is worth it when a longer match follows.
      std::size_t nextDistance = 0;
      const std::size_t next = matcher.Find(position + 1, nextDistance);
      if (next > length) {
        output.push_back(chunk[position++]);
        ++item;
        length = next;
        distance = nextDistance;
        known = true;
        continue;
      }
    }
    if (length == 0) {
      output.push_back(chunk[position++]);
    } else {
      const unsigned lengthBits = 16U - DisplacementBits[position];
      const auto word = static_cast<unsigned>(((distance - 1) << lengthBits) | (length - ShortestMatch));
      output.push_back(static_cast<std::uint8_t>(word));
      output.push_back(static_cast<std::uint8_t>(word >> 8));
      output[flagsAt] = static_cast<std::uint8_t>(output[flagsAt] | (1U << item));
      for (std::size_t i = 1; i < length; ++i) matcher.Enter(position + i);
      position += length;
    }
    ++item;
  }
  return output.size() - start < chunk.size();
}

void PutHeader(TByteDynArray& output, std::size_t at, unsigned kind, std::size_t bodySize) {
  const unsigned header = kind | static_cast<unsigned>(bodySize - 1);
  output[at] = static_cast<std::uint8_t>(header);
  output[at + 1] = static_cast<std::uint8_t>(header >> 8);
}

}  // namespace

bool DecompressLZNT1(std::span<const std::uint8_t> input, TByteDynArray& output, std::size_t limit) {
  output.clear();
  output.reserve(limit);
  std::array<std::uint8_t, ChunkSize + 8> chunk;
  while (input.size() >= 2 && output.size() < limit) {
    const unsigned header = input[0] | (static_cast<unsigned>(input[1]) << 8);
    if (header == 0) break;
    // A chunk that fell short is filled up once another follows.
    output.resize(std::min((output.size() + ChunkSize - 1) / ChunkSize * ChunkSize, limit));
    const std::size_t bodySize = (header & 0xFFFU) + 1;
    if (bodySize > input.size() - 2) return false;
    const auto body = input.subspan(2, bodySize);
    input = input.subspan(2 + bodySize);
    const bool compressed = (header & 0x8000U) != 0;
    const std::size_t size = compressed ? DecompressChunk(body, chunk.data()) : bodySize;
    if (size > ChunkSize) return false;
    const std::uint8_t* data = compressed ? chunk.data() : body.data();
    output.insert(output.end(), data, data + std::min(size, limit - output.size()));
  }
  return true;
}

bool CompressLZNT1(std::span<const std::uint8_t> input, TByteDynArray& output, std::size_t capacity) {
  output.clear();
  while (!input.empty()) {
    const auto chunk = input.first(std::min(input.size(), ChunkSize));
    input = input.subspan(chunk.size());
    const std::size_t headerAt = output.size();
    output.resize(headerAt + 2);
    if (CompressChunk(chunk, output)) {
      PutHeader(output, headerAt, CompressedHeader, output.size() - headerAt - 2);
    } else {
      output.resize(headerAt + 2);
      output.insert(output.end(), chunk.begin(), chunk.end());
      PutHeader(output, headerAt, StoredHeader, chunk.size());
    }
    if (output.size() > capacity) return false;
  }
  return true;
}

}  // namespace brenlow
