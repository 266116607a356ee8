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

  /// Appends. 0, or the errno.
  int Write(std::span<const std::uint8_t> bytes);
  /// Gives the file its length where it ends in a hole. 0, or the errno.
  int Finish();
  /// In hexadecimal; empty when it was not asked for. Once.
  std::string Digest();

 private:
  int WriteData(std::int64_t offset, std::span<const std::uint8_t> bytes);

  int FHandle;
  std::int64_t FLength = 0;    // of all that was appended
  std::int64_t FOnTarget = 0;  // end of what was written
  evp_md_ctx_st* FDigest = nullptr;
};

}  // namespace brenlow
