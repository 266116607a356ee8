// SPDX-License-Identifier: GPL-3.0-or-later
#include "recovery/file_sink.h"

#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "core/file_io.h"
#include "core/numbers.h"

namespace brenlow {
namespace {

constexpr std::int64_t HoleBlock = 4096;  // bytes; the smallest hole of most file systems

}  // namespace

TFileSink::TFileSink(int handle, bool digest) : FHandle(handle) {
  if (!digest) return;
  FDigest = EVP_MD_CTX_new();
  EVP_DigestInit_ex(FDigest, EVP_sha256(), nullptr);
}

TFileSink::~TFileSink() { EVP_MD_CTX_free(FDigest); }

int TFileSink::Write(std::span<const std::uint8_t> bytes) {
  if (FDigest != nullptr) EVP_DigestUpdate(FDigest, bytes.data(), bytes.size());
  // Runs of blocks that are all zeros or not, with borders at whole blocks of the file.
  const auto size = static_cast<std::int64_t>(bytes.size());
  std::int64_t dataStart = 0;
  for (std::int64_t at = 0; at < size;) {
    const std::int64_t end = std::min(size, at + HoleBlock - (FLength + at) % HoleBlock);
    const auto block = bytes.subspan(static_cast<std::size_t>(at), static_cast<std::size_t>(end - at));
    if (IsAllZero(block)) {
      const auto data = bytes.subspan(static_cast<std::size_t>(dataStart), static_cast<std::size_t>(at - dataStart));
      if (const int error = WriteData(FLength + dataStart, data); error != 0) return error;
      dataStart = end;
    }
    at = end;
  }
  if (const int error = WriteData(FLength + dataStart, bytes.subspan(static_cast<std::size_t>(dataStart)));
      error != 0) {
    return error;
  }
  FLength += size;
  return 0;
}

int TFileSink::WriteData(std::int64_t offset, std::span<const std::uint8_t> bytes) {
  if (bytes.empty()) return 0;
  if (const int error = WriteAt(FHandle, bytes, offset); error != 0) return error;
  FOnTarget = offset + static_cast<std::int64_t>(bytes.size());
  return 0;
}

int TFileSink::Finish() {
  if (FLength == FOnTarget) return 0;
  return ::ftruncate(FHandle, FLength) == 0 ? 0 : errno;
}

std::string TFileSink::Digest() {
  if (FDigest == nullptr) return {};
  unsigned char bytes[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  EVP_DigestFinal_ex(FDigest, bytes, &length);
  std::string text;
  for (unsigned i = 0; i < length; ++i) {
    constexpr const char* digits = "0123456789abcdef";
    text += digits[bytes[i] >> 4];
    text += digits[bytes[i] & 15];
  }
  return text;
}

}  // namespace brenlow
