// SPDX-License-Identifier: GPL-3.0-or-later
// One 32-byte directory entry, and the joining of long names from the entries before it.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "core/file_records.h"
#include "core/types.h"

namespace brenlow::fat {

using TOemTable = std::array<char16_t, 256>;

/// Characters of IBM code page 437, with the pictures that its low half shows.
TOemTable CodePage437();
/// Another single-byte code page by its number. False when the system does not have it.
bool LoadCodePage(int codePage, TOemTable& table);

/// The times of a directory entry.
TTimeStamp EntryTimes(std::span<const std::uint8_t> entry);

class TEntryParser {
 public:
  /// `oem` must outlive the parser and its copies.
  explicit TEntryParser(const TOemTable& oem) : FOem(&oem) {}

  enum class TResult {
    End,     ///< a dot entry, an all-zero entry or one without a name: the sector is left
    NoFile,  ///< a piece of a long name, a volume label: the walk goes on
    File,    ///< the record describes a file or folder
  };

  /// Parses one entry into `file`, whose name views this parser until the next call. With
  /// `labelMode` only a volume label counts, and all 11 bytes form the name.
  TResult Parse(std::span<const std::uint8_t> entry, bool labelMode, TFileInfo& file);

  bool LastWasAllZero() const { return FAllZero; }
  /// Long-name pieces wait for their entry.
  bool HasPieces() const { return FPieceCount > 0; }
  std::uint8_t PieceChecksum() const { return FPieces[(FPieceCount - 1) % MaxPieces].Checksum; }
  void ClearPieces() { FPieceCount = 0; }
  /// What stood before the next entry cannot be read. Of a long name that was cut off there its first
  /// part is left, which then gets the extension of the 8.3 name.
  void NoteGap() {
    FPieceCount = 0;
    FAfterGap = true;
  }

 private:
  struct TPiece {
    std::array<char16_t, 13> Units;
    std::uint8_t Length;
    std::uint8_t Checksum;
  };
  // A name has at most 20 pieces; of a longer row of them the last ones count.
  static constexpr std::size_t MaxPieces = 64;

  void Push(std::span<const std::uint8_t> entry);
  bool JoinPieces();
  void AddExtension(std::span<const std::uint8_t> entry);
  void ShortName(std::span<const std::uint8_t> entry, bool labelMode);
  TString Decode(std::span<const std::uint8_t> bytes, bool lostFirst, bool lowerCase) const;

  const TOemTable* FOem;
  TString FName;
  TString FJoined;
  std::array<TPiece, MaxPieces> FPieces;
  std::size_t FPieceCount = 0;
  bool FAllZero = false;
  bool FAfterGap = false;
  bool FNameCut = false;  // the pieces with the end of the name were lost
};

/// Strict test of an entry that no folder vouches for: true when it can only be a directory entry
/// as drivers write them, or all zero.
bool IsPlausibleEntry(std::span<const std::uint8_t> entry, std::int64_t clusterRoom);

}  // namespace brenlow::fat
