// SPDX-License-Identifier: GPL-3.0-or-later
// Small vocabulary types shared by the whole engine.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace brenlow {

/// Text inside the engine is UTF-16; unpaired surrogates survive. Conversion happens at the edges.
using TString = std::u16string;
using TStringView = std::u16string_view;

using TByteDynArray = std::vector<std::uint8_t>;
using TInt64DynArray = std::vector<std::int64_t>;
using TIntegerDynArray = std::vector<int>;
using TLongWordDynArray = std::vector<std::uint32_t>;

/// A set of the values of one enumeration, one bit each.
template <typename TEnum, typename TBits = std::uint16_t>
class TEnumSet {
 public:
  constexpr TEnumSet() = default;
  constexpr TEnumSet(std::initializer_list<TEnum> values) {
    for (TEnum value : values) Add(value);
  }
  constexpr bool Has(TEnum value) const { return (FBits & Bit(value)) != 0; }
  constexpr bool Empty() const { return FBits == 0; }
  constexpr void Add(TEnum value) { FBits = static_cast<TBits>(FBits | Bit(value)); }
  constexpr void Remove(TEnum value) { FBits = static_cast<TBits>(FBits & ~Bit(value)); }
  constexpr bool operator==(const TEnumSet&) const = default;

 private:
  static constexpr TBits Bit(TEnum value) { return static_cast<TBits>(TBits{1} << static_cast<unsigned>(value)); }
  TBits FBits = 0;
};

enum class TFileSystem : std::uint8_t {
  fsUnknown,
  fsFAT12,
  fsFAT16,
  fsFAT32,
  fsExFAT,
  fsNTFS,
  fsReFS,
  fsAPFS,
  fsHFS,
  fsExt2,
  fsExt3,
  fsExt4,
  fsXFS,
  fsBtrfs,
  fsReiserFS,
  fsUFS1,
  fsUFS2,
  fsHikvisionFS,
  // What is on volumes but is not a file system to read from, or is one that is only recognised by name.
  fsBitLocker,
  fsLUKS,
  fsLVM,
  fsLinuxRaid,
  fsLinuxSwap,
  fsISO9660,
  fsUDF,
  fsF2FS,
};

/// FAT12, FAT16 or FAT32.
constexpr bool IsFAT(TFileSystem system) {
  return system == TFileSystem::fsFAT12 || system == TFileSystem::fsFAT16 || system == TFileSystem::fsFAT32;
}

using TFileSystems = TEnumSet<TFileSystem, std::uint32_t>;

/// What a partition search searches for, by bit.
enum class TPartRecSystem : std::uint8_t {
  FAT,
  exFAT,
  NTFS,
  ReFS,
  APFS,
  HFS,
  Ext,
  XFS,
  Btrfs,
  ReiserFS,
  UFS,
  Hikvision,
  DeepAnalysis,  ///< files by their content, during the same pass
};
using TPartRecSystems = TEnumSet<TPartRecSystem>;

enum class TDriveType : std::uint8_t {
  dtPhysical,
  dtVolume,
  dtRemovable,
  dtWSS,
  dtLVM,
  dtRaid,
  dtFound,
  dtMounted,
  dtVirtual,
  dtVMWare,
  dtHidden,
};
using TDriveTypes = TEnumSet<TDriveType>;

enum class TPartitionType : std::uint8_t {
  ptBoot,
  ptPrimary,
  ptLogical,
  ptEFI,
  ptReserved,
  ptRecovery,
  ptLdmMetadata,
  ptLdmData,
  ptAppleRaid,
};
using TPartitionTypes = TEnumSet<TPartitionType>;

/// How a volume became known.
enum class TReceivedType : std::uint8_t {
  rtUnknown,
  rtBySystem,
  rtByMBR,
  rtBySystemAndMBR,
  rtByUnallocatedSpace,
  rtAutodetected,
};

/// How far a scan got: not begun, begun or stopped, ended.
enum class TAnalyseInformation : std::uint8_t { aiNone, aiPartial, aiFull };

/// How to read a file's `FirstCluster`: as it is; unknown with candidates; as a sector number.
enum class TFirstClusterInfo : std::uint8_t { fciNormal, fciUnknown, fciSector };

/// How it is known where the content of a file lies. Anything but `Stored` reaches the lists, the JSON
/// output, the report and the summary of a recovery.
enum class TPlaceSource : std::uint8_t {
  Stored,     ///< as the file system has it
  FromCopy,   ///< from a copy of its structures, as sound as they are
  Estimated,  ///< worked out from traces (start, cluster size, record number, table width): may be wrong
  ByContent,  ///< where a file of this kind begins, regardless of the file system
};

/// What a file is, where its file system knows more than files and folders.
enum class TFileKind : std::uint8_t {
  Regular,
  SymbolicLink,  ///< its content is the path that it leads to
  Pipe,
  CharacterDevice,
  BlockDevice,
  Socket,
};

/// Whether the place of a file still holds its content, as the rest of its volume and the bytes themselves
/// tell. All from `Overwritten` on is a reason to doubt it, and reaches the lists, the JSON output, the
/// report and the summary of a recovery.
enum class TContentDoubt : std::uint8_t {
  Unchecked,          ///< nobody has looked
  None,               ///< nothing else is known to have been written there
  Overwritten,        ///< something else begins where it began
  PartlyOverwritten,  ///< something else lies in a part of it
  LaterFile,          ///< a file that came after it, and was deleted too, lay in a part of it
  Contested,          ///< another deleted file claims a part of it, and which came last is not known
  PlaceEstimated,     ///< `TPlaceSource::Estimated`
  OtherType,          ///< it does not begin as files of its type do
  OnlyZeros,          ///< nothing but zeros: what was there was wiped or discarded
  NameOnly,           ///< its name is all that is left: neither its size nor its place is known
};

/// Special values of `TFileInfo::FirstCluster` and `TFile::ParentCluster`.
namespace SpecialCluster {
inline constexpr std::int64_t Unselected = -1;
inline constexpr std::int64_t Root = -8;
inline constexpr std::int64_t NTFSSystemData = -9;
inline constexpr std::int64_t LostAndFound = -10;
inline constexpr std::int64_t DeepAnalyse = -11;
inline constexpr std::int64_t NoKnownPlace = -12;
}  // namespace SpecialCluster

}  // namespace brenlow
