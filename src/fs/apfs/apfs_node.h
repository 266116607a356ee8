// SPDX-License-Identifier: GPL-3.0-or-later
// Objects, nodes of trees, and the records of a file system tree.
//
// Format facts: "Apple File System Reference", Apple; libyal, "Apple File System (APFS)".
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "core/datetime.h"
#include "core/numbers.h"
#include "fs/file_type.h"

namespace brenlow::apfs {

using TBytes = std::span<const std::uint8_t>;

inline constexpr std::uint32_t ContainerMark = 0x4253584E;  // "NXSB"
inline constexpr std::uint32_t VolumeMark = 0x42535041;     // "APSB"

enum TObjectType : std::uint16_t {
  ContainerSuperblock = 1,
  TreeRoot = 2,
  TreeNode = 3,
  ObjectMap = 11,
  CheckpointMap = 12,
  VolumeSuperblock = 13,
  FileSystemTree = 14,  // only as a subtype
};

inline std::uint16_t TypeOf(TBytes object) { return ReadLe16(object, 24); }
inline std::int64_t Id(TBytes bytes, std::size_t at) { return static_cast<std::int64_t>(ReadLe64(bytes, at)); }
inline std::uint64_t TransactionOf(TBytes object) { return ReadLe64(object, 16); }
/// True when the checksum at the start of a block (Fletcher, over 32-bit words) agrees with the rest of it.
bool IsSound(TBytes object);

/// A node over the bytes of its block. Every key and value that it hands out lies inside of them.
class TNode {
 public:
  /// Nothing when the block is no node of a tree with that subtype.
  static std::optional<TNode> From(TBytes block, std::uint16_t subtype);

  struct TEntry {
    TBytes Key;
    TBytes Value;
    std::size_t Offset = 0;  ///< of the key in the block
  };
  bool IsLeaf() const { return (FFlags & 2) != 0; }
  int Level() const { return FLevel; }
  std::uint32_t Count() const { return FCount; }
  /// False when the entry leads out of the node.
  bool Entry(std::uint32_t index, TEntry& entry) const;

 private:
  TBytes FBlock;
  std::uint16_t FFlags = 0;
  std::uint16_t FLevel = 0;
  std::uint32_t FCount = 0;
  std::size_t FKeys = 0;
  std::size_t FValueEnd = 0;
};

// ---- records --------------------------------------------------------------------------------

enum TRecordType : std::uint8_t { InodeRecord = 3, AttributeRecord = 4, ExtentRecord = 8, DirectoryRecord = 9 };

inline std::int64_t KeyId(TBytes key) { return Id(key, 0) & 0x0FFFFFFFFFFFFFFF; }
inline std::uint8_t KeyType(TBytes key) { return static_cast<std::uint8_t>(ReadLe64(key, 0) >> 60); }

struct TInode {
  std::int64_t ParentID = 0;
  std::int64_t PrivateID = 0;
  std::int64_t Size = 0;  ///< bytes
  TTimeStamp TimeStamp;
  TFileType FileType = TFileType::ftUnknown;
  bool Compressed = false;  ///< the content lies in attributes
  std::string Name;         ///< UTF-8; may be missing
};
/// Reads the value of an inode record; fields that overrun it end the reading. False when it is too short.
bool ReadInode(TBytes value, TInode& inode);

/// The name in the key of a directory record, with or without a hash; empty when it does not fit.
std::string_view DirectoryName(TBytes key);
/// The name in the key of an attribute record.
std::string_view AttributeName(TBytes key);

}  // namespace brenlow::apfs
