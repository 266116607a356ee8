// SPDX-License-Identifier: GPL-3.0-or-later
#include "recovery/file_sink.h"

#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <array>
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

void TFileSink::Hash(std::span<const std::uint8_t> bytes) {
  if (FDigest != nullptr) EVP_DigestUpdate(FDigest, bytes.data(), bytes.size());
}

void TFileSink::HashZeros(std::int64_t length) {
  static constexpr std::array<std::uint8_t, 65536> zeros{};
  while (HasDigest() && length > 0) {
    const std::int64_t count = std::min<std::int64_t>(length, zeros.size());
    Hash(std::span(zeros).first(static_cast<std::size_t>(count)));
    length -= count;
  }
}

std::int64_t TFileSink::CopyFrom(int file, std::int64_t position, std::int64_t length) {
  std::int64_t copied = 0;
  while (copied < length) {
    off64_t from = position + copied;
    off64_t to = FLength;
    const ssize_t count = ::copy_file_range(file, &from, FHandle, &to, static_cast<std::size_t>(length - copied), 0);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    copied += count;
    FOnTarget = FLength += count;
  }
  return copied;
}

int TFileSink::Append(std::span<const std::uint8_t> bytes) {
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
