// SPDX-License-Identifier: GPL-3.0-or-later
// The vocabulary of file types: signatures by content, and the types offered to the user.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "core/types.h"

namespace brenlow {

/// Bytes to compare, one a cell; -1 matches any byte.
using TSignatureCells = std::vector<std::int16_t>;

/// Text inside a file that names its real type.
struct TFileSubSignature {
  TString Ext;              ///< without the dot
  TSignatureCells Pattern;  ///< empty: the type when no other one is found
};

struct TFileSignature {
  TString Ext;                                   ///< lower case, with its dot
  TSignatureCells Header;                        ///< bytes at the file's start
  TSignatureCells Footer;                        ///< bytes that end the file; empty when there are none
  std::vector<TSignatureCells> HalfFileMarkers;  ///< endings of a sector that mean that the file continues
  std::vector<TFileSubSignature> SubSignatures;
  bool CanStartFile = false;         ///< a header of this row opens a file in deep analysis
  bool EndsAtZeroTail = false;       ///< the file ends at a sector ending in 16 zero bytes
  bool NeedsZeroTailBefore = false;  ///< a new file inside one of its own type only after two zero bytes
  std::int64_t MinSize = 0;          ///< bytes; smaller files are dropped
};

/// A type offered to the user.
struct TMasterFileType {
  TString Ext;      ///< upper case, without the dot
  TString Caption;  ///< "JPEG Image (*.jpg)"
  int Group = 0;    ///< index into the groups
};
using TMasterFileTypes = std::vector<TMasterFileType>;
/// The captions of groups, by number in the section "MasterFileTypes" of the language files.
using TFileTypeGroups = std::vector<int>;

/// Builds a cell array from hexadecimal text, two characters a byte; a pair with an X is a
/// wildcard (-1).
TSignatureCells ParseHexSignature(std::string_view text);

/// The first eight cells as numbers, to compare them at once with a word of `LoadLe64`.
struct TCellsHead {
  explicit TCellsHead(const TSignatureCells& cells);
  bool Fits(std::uint64_t word) const { return (word & Mask) == Value; }

  std::uint64_t Mask = 0;
  std::uint64_t Value = 0;
};

/// Whether the bytes from their start on fit the cells; false when there are fewer bytes.
bool MatchesCells(const TSignatureCells& cells, std::span<const std::uint8_t> bytes);

class TFileSignatures {
 public:
  TFileSignatures();

  const std::vector<TFileSignature>& Signatures() const { return FSignatures; }
  /// Headers of types whose row in the table matches no file that real programs write. They come
  /// after the table: they count where none of its rows matches.
  const std::vector<TFileSignature>& PublishedHeaders() const { return FPublishedHeaders; }
  /// Number of the first row of an extension (lower case, with its dot); -1 when there is none.
  int FirstRowOf(TStringView extension) const;

  /// The types known for filters and choices, and those that the deep analysis can find.
  const TMasterFileTypes& MasterFileTypes() const { return FMasterFileTypes; }
  const TFileTypeGroups& MasterFileTypeGroups() const { return FMasterFileTypeGroups; }
  const TMasterFileTypes& DeepFileTypes() const { return FDeepFileTypes; }
  const TFileTypeGroups& DeepFileTypeGroups() const { return FDeepFileTypeGroups; }
  /// What an extension (upper case, without the dot) means: its caption without the bracket;
  /// empty for an unknown one.
  TString Description(TStringView extension) const;
  static void AddFileType(TMasterFileTypes& types, int group, std::string_view extension, std::string_view caption);
  static void AddFileTypeGroup(TFileTypeGroups& groups, int languageId) { groups.push_back(languageId); }

  /// The extension that the content names, with its dot; empty when nothing fits.
  TString GetFileExtBySignature(std::span<const std::uint8_t> buffer) const;

  /// Whether the bytes from `start` on fit the extension (lower case, with its dot).
  /// `found`: there is a row that is not longer than the data. `same`: one of them matches.
  void CheckSignatureByFileExt(TStringView extension, std::span<const std::uint8_t> buffer, std::size_t start,
                               bool& found, bool& same) const;

 private:
  void BuildSignatures();
  void BuildMasterFileTypes();
  void BuildDeepFileTypes();
  void SetFlags(std::string_view extensions, bool TFileSignature::*flag);
  TFileSignature& FirstRow(TStringView extension);

  std::vector<TFileSignature> FSignatures;
  std::vector<TFileSignature> FPublishedHeaders;
  TFileTypeGroups FMasterFileTypeGroups;
  TMasterFileTypes FMasterFileTypes;
  TFileTypeGroups FDeepFileTypeGroups;
  TMasterFileTypes FDeepFileTypes;
};

}  // namespace brenlow
