// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/lznt1.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "core/numbers.h"

namespace brenlow {
namespace {

constexpr std::size_t ChunkSize = 4096;
constexpr std::size_t ShortestMatch = 3;
constexpr std::size_t MissesPerStep = 32;
constexpr std::size_t LongestStep = 7;  // positions left out
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

/// Copies a match, which may overlap its own output. There are 8 bytes of room after the end.
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
  /// Eight bytes after the chunk must be readable.
  TMatcher(const std::uint8_t* chunk, std::size_t size) : FChunk(chunk), FSize(size) { FHeads.fill(None); }

  /// Makes a position known to later ones.
  void Enter(std::size_t position) { Enter(position, Hash(position)); }
  /// The same; the result is the length of the longest match there, 0 when there is none.
  std::size_t FindAndEnter(std::size_t position, std::size_t& distance) {
    const std::size_t hash = Hash(position);
    const std::size_t length = Find(position, hash, distance);
    Enter(position, hash);
    return length;
  }
  std::size_t Find(std::size_t position, std::size_t& distance) const {
    return Find(position, Hash(position), distance);
  }

 private:
  static constexpr std::uint16_t None = 0xFFFF;
  static constexpr int MostTries = 16;  // more gains less than 1% on text
  static constexpr std::uint32_t ThreeBytes = 0xFFFFFF;

  std::uint32_t Word(std::size_t position) const {
    std::uint32_t word = 0;
    std::memcpy(&word, FChunk + position, sizeof(word));
    return word;
  }
  std::size_t Hash(std::size_t position) const { return ((Word(position) & ThreeBytes) * 0x9E3779B1U) >> 20; }
  void Enter(std::size_t position, std::size_t hash) {
    if (position + ShortestMatch > FSize) return;
    FPrevious[position] = FHeads[hash];
    FHeads[hash] = static_cast<std::uint16_t>(position);
  }
  std::size_t Find(std::size_t position, std::size_t hash, std::size_t& distance) const {
    std::uint16_t at = FHeads[hash];
    if (at == None || position + ShortestMatch > FSize) return 0;
    const std::uint32_t wanted = Word(position) & ThreeBytes;
    const std::size_t coded = (std::size_t{1} << (16U - DisplacementBits[position])) - 1 + ShortestMatch;
    const std::size_t longest = std::min(coded, FSize - position);
    std::size_t best = ShortestMatch - 1;
    for (int tries = 0; at != None && tries < MostTries && best < longest; ++tries, at = FPrevious[at]) {
      if (FChunk[at + best] != FChunk[position + best] || (Word(at) & ThreeBytes) != wanted) continue;
      const std::size_t length = CommonLength(at, position, longest);
      if (length <= best) continue;
      best = length;
      distance = position - at;
    }
    return best >= ShortestMatch ? best : 0;
  }
  std::size_t CommonLength(std::size_t first, std::size_t second, std::size_t longest) const {
    std::size_t length = 0;
    while (length < longest) {
      const std::uint64_t different = LoadLe64(FChunk + first + length) ^ LoadLe64(FChunk + second + length);
      if (different != 0) return std::min(length + static_cast<std::size_t>(std::countr_zero(different)) / 8, longest);
      length += 8;
    }
    return longest;
  }

  const std::uint8_t* FChunk;
  std::size_t FSize;
  std::array<std::uint16_t, 4096> FHeads;
  std::array<std::uint16_t, ChunkSize> FPrevious;
};

/// Compresses a chunk into `body`, which has room for two bytes more than it. The result is the
/// length, 0 when the body would not be shorter than the chunk.
std::size_t CompressChunk(std::span<const std::uint8_t> input, std::uint8_t* body) {
  std::array<std::uint8_t, ChunkSize + 8> chunk;
  std::copy(input.begin(), input.end(), chunk.begin());
  std::fill_n(chunk.begin() + static_cast<std::ptrdiff_t>(input.size()), 8, std::uint8_t{0});
  const std::size_t size = input.size();
  TMatcher matcher(chunk.data(), size);
  std::size_t flagsAt = 0;
  std::size_t end = 0;
  unsigned item = 8;
  std::size_t position = 0;
  std::size_t distance = 0;
  std::size_t length = 0;
  std::size_t misses = 0;
  std::size_t nextLook = 0;
  bool known = false;  // `length` was found already, for this position
  while (position < size) {
    if (end + 3 > size) return 0;
    if (item == 8) {
      flagsAt = end++;
      body[flagsAt] = 0;
      item = 0;
    }
    if (known) {
      matcher.Enter(position);
    } else if (position < nextLook) {
      length = 0;
    } else {
      length = matcher.FindAndEnter(position, distance);
      // Where nothing repeats, fewer and fewer positions are tried.
      misses = length > 0 ? 0 : misses + 1;
      nextLook = position + 1 + std::min(misses / MissesPerStep, LongestStep);
    }
    known = false;
    if (length > 0 && length < 64) {
      // A literal is worth it when a longer match follows.
      std::size_t nextDistance = 0;
      const std::size_t next = matcher.Find(position + 1, nextDistance);
      if (next > length) {
        body[end++] = chunk[position++];
        ++item;
        length = next;
        distance = nextDistance;
        known = true;
        continue;
      }
    }
    if (length == 0) {
      body[end++] = chunk[position++];
    } else {
      nextLook = 0;
      const unsigned lengthBits = 16U - DisplacementBits[position];
      const auto word = static_cast<unsigned>(((distance - 1) << lengthBits) | (length - ShortestMatch));
      body[end++] = static_cast<std::uint8_t>(word);
      body[end++] = static_cast<std::uint8_t>(word >> 8);
      body[flagsAt] = static_cast<std::uint8_t>(body[flagsAt] | (1U << item));
      for (std::size_t i = 1; i < length; ++i) matcher.Enter(position + i);
      position += length;
    }
    ++item;
  }
  return end < size ? end : 0;
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
  for (std::size_t start = 0; input.size() >= 2 && output.size() < limit; start += ChunkSize) {
    const unsigned header = input[0] | (static_cast<unsigned>(input[1]) << 8);
    if (header == 0) break;
    // A chunk that fell short is filled up once another follows.
    output.resize(std::min(start, limit));
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

bool SalvageLZNT1(std::span<const std::uint8_t> input, std::span<std::uint8_t> output,
                  const std::function<bool(std::size_t first, std::size_t end)>& isUnreadable) {
  std::fill(output.begin(), output.end(), std::uint8_t{0});
  std::array<std::uint8_t, ChunkSize + 8> chunk;
  bool whole = true;
  for (std::size_t at = 0, out = 0; at + 2 <= input.size() && out < output.size(); out += ChunkSize) {
    if (isUnreadable(at, at + 2)) return false;  // the chain of headers ends here
    const unsigned header = input[at] | (static_cast<unsigned>(input[at + 1]) << 8);
    if (header == 0) break;
    const std::size_t bodySize = (header & 0xFFFU) + 1;
    if (bodySize > input.size() - at - 2) return false;
    const auto body = input.subspan(at + 2, bodySize);
    at += 2 + bodySize;
    const bool compressed = (header & 0x8000U) != 0;
    const std::size_t size = compressed ? DecompressChunk(body, chunk.data()) : bodySize;
    if (size > ChunkSize || isUnreadable(at - bodySize, at)) {
      whole = false;
      continue;
    }
    const std::uint8_t* data = compressed ? chunk.data() : body.data();
    std::copy_n(data, std::min(size, output.size() - out), output.begin() + static_cast<std::ptrdiff_t>(out));
  }
  return whole;
}

bool CompressLZNT1(std::span<const std::uint8_t> input, TByteDynArray& output, std::size_t capacity) {
  output.clear();
  while (!input.empty()) {
    const auto chunk = input.first(std::min(input.size(), ChunkSize));
    input = input.subspan(chunk.size());
    std::array<std::uint8_t, ChunkSize + 2> body;
    const std::size_t size = CompressChunk(chunk, body.data());
    const auto stored = size > 0 ? std::span<const std::uint8_t>(body).first(size) : chunk;
    const std::size_t headerAt = output.size();
    output.resize(headerAt + 2);
    PutHeader(output, headerAt, size > 0 ? CompressedHeader : StoredHeader, stored.size());
    output.insert(output.end(), stored.begin(), stored.end());
    if (output.size() > capacity) return false;
  }
  return true;
}

}  // namespace brenlow
