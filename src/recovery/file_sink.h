// SPDX-License-Identifier: GPL-3.0-or-later
// Where the bytes of one file go.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

struct evp_md_ctx_st;

namespace brenlow {

/// Writes a new, empty file from its start on. Blocks of zeros become holes.
class TFileSink {
 public:
  /// `digest`: also works out the SHA-256 of everything.
  TFileSink(int handle, bool digest);
  ~TFileSink();
  TFileSink(const TFileSink&) = delete;
  TFileSink& operator=(const TFileSink&) = delete;

  /// Appends to the file and to the digest. 0, or the errno.
  int Write(std::span<const std::uint8_t> bytes) {
    Hash(bytes);
    return Append(bytes);
  }
  // The two halves of that; two threads may do one each.
  int Append(std::span<const std::uint8_t> bytes);
  void Hash(std::span<const std::uint8_t> bytes);
  /// Appends a hole, without the digest.
  void AppendHole(std::int64_t length) { FLength += length; }
  void HashZeros(std::int64_t length);
  bool HasDigest() const { return FDigest != nullptr; }
  /// Whether the system copies from a place of another file faster than reading and writing does: both must lie alike
  /// in their pages.
  static bool CanCopy(std::int64_t from, std::int64_t to) { return (from - to) % PageBytes == 0; }
  /// Appends bytes of another open file, as many as the system copies by itself: the result is their count. Without
  /// the digest.
  std::int64_t CopyFrom(int file, std::int64_t position, std::int64_t length);
  /// Gives the file its length where it ends in a hole. 0, or the errno.
  int Finish();
  /// In hexadecimal; empty when it was not asked for. Once.
  std::string Digest();

 private:
  static constexpr std::int64_t PageBytes = 4096;
  int WriteData(std::int64_t offset, std::span<const std::uint8_t> bytes);

  int FHandle;
  std::int64_t FLength = 0;    // of all that was appended
  std::int64_t FOnTarget = 0;  // end of what was written
  evp_md_ctx_st* FDigest = nullptr;
};

}  // namespace brenlow
