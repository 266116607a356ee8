// SPDX-License-Identifier: GPL-3.0-or-later
// What the engine knows of one file or folder, and the arrays that hold such rows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "core/datetime.h"
#include "core/types.h"

namespace brenlow {

struct TAtributes {
  bool blnReadOnly : 1 = false;
  bool blnHidden : 1 = false;
  bool blnSystem : 1 = false;
  bool blnArchive : 1 = false;
  bool blnCompressed : 1 = false;
  bool blnEncrypted : 1 = false;
};

/// A list of candidates that nearly every file lacks. As large as a pointer, with none and with one value; copies are
/// deep.
class TCandidateList {
 public:
  TCandidateList() = default;
  TCandidateList(const TCandidateList& other) { *this = other; }
  TCandidateList(TCandidateList&& other) noexcept : FWord(std::exchange(other.FWord, 0)) {}
  TCandidateList& operator=(const TCandidateList& other) {
    if (this == &other) return *this;
    clear();
    FWord = other.HasList() ? WordOf(new TInt64DynArray(other.List())) : other.FWord;
    return *this;
  }
  TCandidateList& operator=(TCandidateList&& other) noexcept {
    std::swap(FWord, other.FWord);
    return *this;
  }
  ~TCandidateList() { clear(); }

  std::size_t size() const { return HasList() ? List().size() : FWord == 0 ? 0 : 1; }
  bool empty() const { return size() == 0; }
  std::int64_t operator[](std::size_t index) const { return HasList() ? List()[index] : Single(); }
  void clear() {
    if (HasList()) delete &List();
    FWord = 0;
  }
  void push_back(std::int64_t value) {
    if (FWord == 0 && Fits(value)) {
      FWord = static_cast<std::uint64_t>(value) << 1 | 1;
      return;
    }
    if (!HasList()) FWord = WordOf(FWord == 0 ? new TInt64DynArray() : new TInt64DynArray{Single()});
    List().push_back(value);
  }

 private:
  // 0: none; an odd word: one value, twice as large; an even one: the address of a list.
  static bool Fits(std::int64_t value) { return value >= INT64_MIN / 2 && value <= INT64_MAX / 2; }
  static std::uint64_t WordOf(TInt64DynArray* list) { return reinterpret_cast<std::uintptr_t>(list); }
  bool HasList() const { return FWord != 0 && (FWord & 1) == 0; }
  TInt64DynArray& List() const { return *reinterpret_cast<TInt64DynArray*>(FWord); }
  std::int64_t Single() const { return static_cast<std::int64_t>(FWord) >> 1; }

  std::uint64_t FWord = 0;
};

/// All that a driver reports of one file or folder. Millions of these are kept: mind the size.
struct TFileInfo {
  /// Key of the object in its file system (first cluster, record number, inode, ...), used as
  /// parent reference by its children, or a `SpecialCluster` value.
  std::int64_t FirstCluster = 0;
  /// Sector, from the volume's start, of the directory entry or record that described the
  /// object; -1 for none.
  std::int64_t FirstSector = -1;
  std::int64_t aSize = 0;        ///< bytes; the user may change it
  std::int64_t DefaultSize = 0;  ///< bytes, as found; `TFiles::Add` copies it from `aSize`
  /// Sector where the data begins when known without the key, else -1. Part of a file's identity.
  std::int64_t DataStartingSector = -1;
  std::int64_t JournalPosition = 0;
  TTimeStamp TimeStamp;
  /// The name. In a driver's working record it views the driver's own buffer; the array that
  /// stores the row keeps a copy.
  TStringView strName;
  TCandidateList FirstClusters;
  std::int32_t OffsetInSector = 0;  ///< byte offset of the entry in `FirstSector`
  std::int32_t aDriveNumber = -1;
  std::int32_t IconIndex = -1;
  TAtributes Atributes;
  bool blnFolder : 1 = true;
  bool blnDeleted : 1 = false;
  bool aDeepAnalyse : 1 = false;
  bool FirstClustersChanged : 1 = false;
  bool blnFragmented : 1 = false;
  bool blnChecked : 1 = true;
  /// Deleted, but not so marked: it was there when the volume was formatted, or its folder lost.
  bool WasAlive : 1 = false;
  TFirstClusterInfo FirstClusterInfo : 2 = TFirstClusterInfo::fciNormal;
  TPlaceSource Place : 2 = TPlaceSource::Stored;   ///< of this row; ask `PlaceOf` for the whole answer
  TFileKind Kind : 4 = TFileKind::Regular;         ///< of what is not a folder
  TContentDoubt Doubt = TContentDoubt::Unchecked;  ///< noted at the end of an analysis; ask `DoubtOf`
};

/// One row of a file table. `ParentCluster` is the `FirstCluster` of the folder it lies in.
struct TFile {
  std::int64_t ParentCluster = 0;
  TFileInfo FileInfo;
};
static_assert(sizeof(TFile) <= 128, "ten million rows must fit an ordinary machine");

/// Append-only array of `TFile` rows. Rows keep their addresses until `Clear` or `EraseIf`, and
/// growing never copies them. The names of the rows live in the array.
class TFileArray {
 public:
  TFileArray() = default;
  TFileArray(TFileArray&& other) noexcept { Swap(other); }
  TFileArray& operator=(TFileArray&& other) noexcept {
    Swap(other);
    return *this;
  }
  ~TFileArray() { Clear(); }

  std::size_t size() const { return FSize; }
  bool empty() const { return FSize == 0; }
  TFile& operator[](std::size_t index) { return *At(index); }
  const TFile& operator[](std::size_t index) const { return *At(index); }

  /// Appends a copy of the record with its own copy of the name; the result is its index.
  std::size_t Add(const TFileInfo& info, std::int64_t parentCluster);
  /// Gives a row another name, kept by the array.
  void Rename(std::size_t index, TStringView name) { At(index)->FileInfo.strName = Keep(name); }
  void Clear();

  /// Removes the rows that `doomed(index, row)` names, in one pass. `newNumbers`, when given, gets
  /// for each old index the new one, or `Erased`.
  static constexpr std::uint32_t Erased = 0xFFFFFFFF;
  std::size_t EraseIf(const std::function<bool(std::size_t, const TFile&)>& doomed,
                      std::vector<std::uint32_t>* newNumbers = nullptr);

 private:
  static constexpr std::size_t RowsPerChunk = 4096;
  static constexpr std::size_t NameUnitsPerChunk = 32768;
  struct TRowChunk {
    alignas(TFile) std::byte Bytes[RowsPerChunk * sizeof(TFile)];
  };

  TFile* At(std::size_t index) const {
    return reinterpret_cast<TFile*>(FRows[index / RowsPerChunk]->Bytes) + index % RowsPerChunk;
  }
  TStringView Keep(TStringView name);
  void Swap(TFileArray& other) noexcept;

  std::vector<std::unique_ptr<TRowChunk>> FRows;
  std::vector<std::unique_ptr<char16_t[]>> FNames;
  std::size_t FNameRoom = 0;  // units left in the last chunk of names
  std::size_t FSize = 0;
};

/// One alternate data stream or attribute of a file.
struct TADS {
  std::int64_t aType = 0;
  std::int64_t aSize = 0;  ///< bytes
  bool IsSystem = false;   ///< for the file system's own use; only others are streams for users
  TString sType;
  TString Name;
};
using TADSDynArray = std::vector<TADS>;

/// Part of a file's layout, in sectors; `FirstSectorInDrive` counts from the volume's start.
struct TFileFragment {
  std::int64_t FirstSectorInDrive = 0;
  std::int64_t FirstSectorInFile = 0;
  std::int64_t SectorCount = 0;
};
using TFileFragments = std::vector<TFileFragment>;

/// Which entries a view or a recovery wants.
struct TFileFilter {
  bool Existing = true;
  bool Deleted = true;
  bool AllFiles = true;
  bool Archive = false;
  bool Audio = false;
  bool Database = false;
  bool Document = false;
  bool Image = false;
  bool Video = false;
};

}  // namespace brenlow
