// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/families.h"

namespace brenlow {
namespace {

constexpr TStringView Captions[] = {
    u"",          u"FAT12", u"FAT16", u"FAT32",      u"exFAT",      u"NTFS",     u"ReFS", u"APFS", u"HFS+",
    u"Ext2",      u"Ext3",  u"Ext4",  u"XFS",        u"Btrfs",      u"ReiserFS", u"UFS1", u"UFS2", u"HikvisionFS",
    u"BitLocker", u"LUKS",  u"LVM2",  u"Linux RAID", u"Linux swap", u"ISO 9660", u"UDF",  u"F2FS"};

constexpr std::size_t SystemCount = std::size(Captions);
template <typename TPredicate>
TFileSystem Promised(TPredicate&& fits) {
  for (const TFamily& family : Families()) {
    for (const TPartitionPromise& promise : family.Promises) {
      if (fits(promise)) return promise.System;
    }
  }
  return TFileSystem::fsUnknown;
}

}  // namespace

bool SameFamily(TFileSystem a, TFileSystem b) {
  const TFamily* family = FamilyOf(a);
  return a == b || (family != nullptr && family == FamilyOf(b));
}

TFileSystems SystemsOf(TPartRecSystems families) {
  TFileSystems systems;
  for (const TFamily& family : Families()) {
    if (!families.Has(family.Bit)) continue;
    for (const TFamilyMember& member : family.Members) systems.Add(member.System);
  }
  return systems;
}

int SuperblockAt(TFileSystem system) {
  const TFamily* family = FamilyOf(system);
  if (family == nullptr) return 0;
  for (const TFamilyMember& member : family->Members) {
    if (member.System == system) return member.SuperblockAt;
  }
  return 0;
}

TFileSystem FileSystemOfIndicator(std::uint8_t indicator) {
  return Promised([&](const TPartitionPromise& promise) { return promise.Type != 0 && promise.Type == indicator; });
}

TFileSystem FileSystemOfGuid(const std::array<std::uint8_t, 16>& guid) {
  return Promised([&](const TPartitionPromise& promise) {
    return promise.Guid != std::array<std::uint8_t, 16>{} && promise.Guid == guid;
  });
}

TStringView FileSystemCaption(TFileSystem system) {
  const auto index = static_cast<std::size_t>(system);
  return index < SystemCount ? Captions[index] : TStringView();
}

}  // namespace brenlow
