// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/named_systems.h"

#include <algorithm>
#include <string_view>

#include "core/numbers.h"

namespace brenlow {
namespace {

using TBytes = std::span<const std::uint8_t>;
using namespace std::literals;

bool HasText(TBytes bytes, std::size_t at, std::string_view text) {
  return at <= bytes.size() && bytes.size() - at >= text.size() &&
         std::equal(text.begin(), text.end(), bytes.begin() + static_cast<std::ptrdiff_t>(at),
                    [](char c, std::uint8_t byte) { return static_cast<std::uint8_t>(c) == byte; });
}

struct TSignature {
  std::size_t At;  // bytes from the volume's start
  std::string_view Text;
  TFileSystem System;
};

constexpr TSignature FirstSectorSignatures[] = {
    {3, "ReFS\0\0\0\0"sv, TFileSystem::fsReFS},
    {3, "-FVE-FS-"sv, TFileSystem::fsBitLocker},
    // A drive "to go" has the boot sector of a FAT32 volume, and this GUID in it.
    {0x1A8, "\x3B\xD6\x67\x49\x29\x2E\xD8\x4A\x83\x99\xF6\xA3\x39\xE3\xD0\x01"sv, TFileSystem::fsBitLocker},
    {32, "NXSB"sv, TFileSystem::fsAPFS},
    {0, "LUKS\xBA\xBE"sv, TFileSystem::fsLUKS},
};

constexpr TSignature SuperblockSignatures[] = {
    {512 + 16, "HIKVISION@HANGZHOU"sv, TFileSystem::fsHikvisionFS},
    {1024, "H+\0\4"sv, TFileSystem::fsHFS},
    {1024, "HX\0\5"sv, TFileSystem::fsHFS},
    {1024, "\x10\x20\xF5\xF2"sv, TFileSystem::fsF2FS},
    {4096, "\xFC\x4E\x2B\xA9"sv, TFileSystem::fsLinuxRaid},  // metadata 1.2; 1.1 has it at 0
    {0, "\xFC\x4E\x2B\xA9"sv, TFileSystem::fsLinuxRaid},
    {4096 - 10, "SWAPSPACE2"sv, TFileSystem::fsLinuxSwap},
    {8192 + 1372, "\x54\x19\x01\x00"sv, TFileSystem::fsUFS1},
    {8192 + 1372, "\x00\x01\x19\x54"sv, TFileSystem::fsUFS1},
    {65536 + 1372, "\x19\x01\x54\x19"sv, TFileSystem::fsUFS2},
    {65536 + 1372, "\x19\x54\x01\x19"sv, TFileSystem::fsUFS2},
    {65536 + 64, "_BHRfS_M"sv, TFileSystem::fsBtrfs},
    {65536 + 52, "ReIsErFs"sv, TFileSystem::fsReiserFS},
    {65536 + 52, "ReIsEr2Fs"sv, TFileSystem::fsReiserFS},
    {65536 + 52, "ReIsEr3Fs"sv, TFileSystem::fsReiserFS},
    {8192 + 52, "ReIsErFs"sv, TFileSystem::fsReiserFS},
    {32768, "\1CD001"sv, TFileSystem::fsISO9660},
    {32768, "\0BEA01"sv, TFileSystem::fsUDF},
};

template <std::size_t Count>
TFileSystem FirstMatch(TBytes head, const TSignature (&signatures)[Count]) {
  for (const TSignature& signature : signatures) {
    if (HasText(head, signature.At, signature.Text)) return signature.System;
  }
  return TFileSystem::fsUnknown;
}

/// The label of a physical volume lies in one of its first four sectors of 512 bytes.
bool IsLVM(TBytes head) {
  for (std::size_t at = 0; at < 4 * 512; at += 512) {
    if (HasText(head, at, "LABELONE") && HasText(head, at + 24, "LVM2 001")) return true;
  }
  return false;
}

}  // namespace

TFileSystem NameByFirstSector(std::span<const std::uint8_t> head) { return FirstMatch(head, FirstSectorSignatures); }

TFileSystem NameBySuperblock(std::span<const std::uint8_t> head) {
  if (IsLVM(head)) return TFileSystem::fsLVM;
  return FirstMatch(head, SuperblockSignatures);
}

}  // namespace brenlow
