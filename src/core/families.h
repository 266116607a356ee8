// SPDX-License-Identifier: GPL-3.0-or-later
// The families of file systems: everything about them that is a fact and not code. The registry, the
// partition search, the command line and the dialogs read this table; none of them has its own list.
// A family may be listed before it has a driver: `ServedFamilies` says which have one.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string_view>

#include "core/types.h"

namespace brenlow {

/// When the test of a family is tried on the start of a volume. The surest tests come first, and what
/// formatting may have left behind comes last.
enum class TRecognition : std::uint8_t {
  FirstSector,     ///< a signature in the first sector that leaves no doubt
  BootSector,      ///< a boot sector recognised by several fields
  WeakBootSector,  ///< a boot sector with hardly a field to test: after all other boot sectors
  Superblock,      ///< after the boot area, where an earlier file system may have left it
};

/// A value of `TFamily::CopySectors`: the sector after the last one that the volume says it has.
inline constexpr std::int64_t AfterVolume = -1;

/// What a partition table says of a partition: the type byte of an MBR entry or the GUID of a GPT entry
/// (as on disk).
struct TPartitionPromise {
  std::uint8_t Type = 0;  ///< 0 where only a GPT has a type for it
  std::array<std::uint8_t, 16> Guid{};
  TFileSystem System = TFileSystem::fsUnknown;
};

/// A file system of a family.
struct TFamilyMember {
  TFileSystem System = TFileSystem::fsUnknown;
  int SuperblockAt = 0;  ///< bytes from the volume's start to the place where the driver's test looks
};

struct TFamily {
  TPartRecSystem Bit;           ///< in the partition search; also the name of the family in code
  std::string_view ScriptName;  ///< as the value of --systems
  std::string_view Caption;     ///< of its check box
  TRecognition Recognition;
  std::span<const TFamilyMember> Members;
  /// Where copies of a boot sector or superblock always lie, in sectors from its
  /// start, or `AfterVolume`. Copies whose place depends on the volume are the driver's business.
  std::span<const std::int64_t> CopySectors;
  /// Volumes of 10 MiB and less exist (floppies), so a search believes one that is sound and lies in no
  /// other volume.
  bool MayBeSmall = false;
  std::span<const TPartitionPromise> Promises;
};

/// The rows of the table. Types of partitions: UEFI, "GUID Partition Table"; fdisk's list of MBR types.
namespace family_rows {

using enum TFileSystem;
using enum TRecognition;
using TBit = TPartRecSystem;

inline constexpr TFamilyMember MembersFAT[] = {{fsFAT12}, {fsFAT16}, {fsFAT32}};
inline constexpr TFamilyMember MembersExFAT[] = {{fsExFAT}};
inline constexpr TFamilyMember MembersNTFS[] = {{fsNTFS}};
inline constexpr TFamilyMember MembersReFS[] = {{fsReFS}};
inline constexpr TFamilyMember MembersAPFS[] = {{fsAPFS}};
inline constexpr TFamilyMember MembersHFS[] = {{fsHFS}};  // the test itself looks 1,024 bytes on
inline constexpr TFamilyMember MembersExt[] = {{fsExt2, 1024}, {fsExt3, 1024}, {fsExt4, 1024}};
inline constexpr TFamilyMember MembersXFS[] = {{fsXFS}};
inline constexpr TFamilyMember MembersBtrfs[] = {{fsBtrfs, 65536}};
inline constexpr TFamilyMember MembersReiserFS[] = {{fsReiserFS, 65536}};
inline constexpr TFamilyMember MembersUFS[] = {{fsUFS1, 8192}, {fsUFS2, 65536}};
inline constexpr TFamilyMember MembersHikvision[] = {{fsHikvisionFS, 512}};

inline constexpr std::int64_t CopiesFAT[] = {6};
inline constexpr std::int64_t CopiesExFAT[] = {12};
inline constexpr std::int64_t CopiesNTFS[] = {AfterVolume};

inline constexpr TPartitionPromise PromisesFAT[] = {
    {1, {}, fsFAT12},  {17, {}, fsFAT12}, {4, {}, fsFAT16},  {6, {}, fsFAT16},  {14, {}, fsFAT16}, {20, {}, fsFAT16},
    {22, {}, fsFAT16}, {30, {}, fsFAT16}, {11, {}, fsFAT32}, {12, {}, fsFAT32}, {27, {}, fsFAT32}, {28, {}, fsFAT32}};
inline constexpr TPartitionPromise PromisesNTFS[] = {{7, {}, fsNTFS}};
inline constexpr TPartitionPromise PromisesHFS[] = {
    {0,
     {0x00, 0x53, 0x46, 0x48, 0x00, 0x00, 0xAA, 0x11, 0xAA, 0x11, 0x00, 0x30, 0x65, 0x43, 0xEC, 0xAC},
     fsHFS}};  // 48465300-0000-11AA-AA11-00306543ECAC
inline constexpr TPartitionPromise PromisesAPFS[] = {
    {0,
     {0xEF, 0x57, 0x34, 0x7C, 0x00, 0x00, 0xAA, 0x11, 0xAA, 0x11, 0x00, 0x30, 0x65, 0x43, 0xEC, 0xAC},
     fsAPFS}};  // 7C3457EF-0000-11AA-AA11-00306543ECAC

inline constexpr TFamily All[] = {
    {TBit::NTFS, "ntfs", "NTFS", BootSector, MembersNTFS, CopiesNTFS, false, PromisesNTFS},
    {TBit::exFAT, "exfat", "exFAT", FirstSector, MembersExFAT, CopiesExFAT, false, {}},
    {TBit::FAT, "fat", "FAT", WeakBootSector, MembersFAT, CopiesFAT, true, PromisesFAT},
    {TBit::Ext, "ext", "Ext2/3/4", Superblock, MembersExt, {}, false, {}},
    {TBit::XFS, "xfs", "XFS", FirstSector, MembersXFS, {}, false, {}},
    {TBit::Btrfs, "btrfs", "Btrfs", Superblock, MembersBtrfs, {}, false, {}},
    {TBit::ReiserFS, "reiserfs", "ReiserFS", Superblock, MembersReiserFS, {}, false, {}},
    {TBit::APFS, "apfs", "APFS", FirstSector, MembersAPFS, {}, false, PromisesAPFS},
    {TBit::HFS, "hfs", "HFS+", Superblock, MembersHFS, {}, false, PromisesHFS},
    {TBit::ReFS, "refs", "ReFS", FirstSector, MembersReFS, {}, false, {}},
    {TBit::UFS, "ufs", "UFS", Superblock, MembersUFS, {}, false, {}},
    {TBit::Hikvision, "hikvision", "HikvisionFS", Superblock, MembersHikvision, {}, false, {}},
};

/// The index into `All` for every file system, -1 for those of no family: asked for every sector of a search.
inline constexpr auto IndexOf = [] {
  std::array<std::int8_t, 256> index{};
  index.fill(-1);
  for (std::size_t i = 0; i < std::size(All); ++i) {
    for (const TFamilyMember& member : All[i].Members) {
      index[static_cast<std::size_t>(member.System)] = static_cast<std::int8_t>(i);
    }
  }
  return index;
}();

}  // namespace family_rows

/// In the order of the dialogs; the first three are what a search looks for unless told otherwise.
constexpr std::span<const TFamily> Families() { return family_rows::All; }

/// The family of a file system; null for one that no driver can ever serve.
constexpr const TFamily* FamilyOf(TFileSystem system) {
  const std::int8_t index = family_rows::IndexOf[static_cast<std::size_t>(system)];
  return index < 0 ? nullptr : &family_rows::All[index];
}

/// The row of a search bit other than that of the deep analysis.
constexpr const TFamily& FamilyOf(TPartRecSystem bit) {
  const TFamily* family = family_rows::All;
  while (family->Bit != bit) ++family;
  return *family;
}

/// True for two file systems of one family, as FAT12 and FAT32.
bool SameFamily(TFileSystem a, TFileSystem b);
/// Their file systems.
TFileSystems SystemsOf(TPartRecSystems families);
/// Bytes from the volume's start to where the test of a file system looks.
int SuperblockAt(TFileSystem system);

/// The families that have a driver. `src/engine.cpp` puts them together.
TPartRecSystems ServedFamilies();

/// The file system that the type byte of an MBR entry promises; `fsUnknown` for all others.
TFileSystem FileSystemOfIndicator(std::uint8_t indicator);
/// The same for the type of a GPT entry.
TFileSystem FileSystemOfGuid(const std::array<std::uint8_t, 16>& guid);

/// "FAT32"; empty for `fsUnknown`.
TStringView FileSystemCaption(TFileSystem system);

}  // namespace brenlow
