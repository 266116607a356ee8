// SPDX-License-Identifier: GPL-3.0-or-later
// The narrow door to everything that reads as bytes: regular files and block devices, read-only.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace brenlow {

/// What a path leads to: a file by its file system and inode, a block device by its
/// number.
struct TFileIdentity {
  std::uint64_t FileSystem = 0;  ///< st_dev of a file; 0 for a block device
  std::uint64_t Node = 0;        ///< st_ino of a file; st_rdev of a block device
  /// The mount that it was reached through, as /proc/self/mountinfo numbers them; -1 when not known. No
  /// part of what it is.
  int Mount = -1;
  bool operator==(const TFileIdentity& other) const { return FileSystem == other.FileSystem && Node == other.Node; }
};

/// What an open file, folder or device is; nothing when the system does not say.
std::optional<TFileIdentity> IdentityOf(int handle);
/// The same for what a path leads to, through links; nothing when there is nothing.
std::optional<TFileIdentity> IdentityOf(const std::string& path);

/// Something that reads as bytes. Implementations never write.
class IDevice {
 public:
  virtual ~IDevice() = default;
  /// Bytes read into `buffer` from byte `position` on; short at the end or before a fault, 0 on
  /// failure. What was not read stays untouched.
  virtual std::size_t Read(std::int64_t position, std::span<std::uint8_t> buffer) = 0;
  virtual std::int64_t Size() const = 0;  ///< bytes
  /// Logical sector size in bytes; 0 when the source states none (an image file).
  virtual int SectorSize() const = 0;
  /// First byte at or after `position` that may be anything but zero; `Size()` when none is.
  virtual std::int64_t NextData(std::int64_t position) { return position; }
  /// Open descriptor of a regular file, read-only, that has just the bytes of the device in their places; -1 when
  /// there is none.
  virtual int PlainFile() const { return -1; }
  /// Appends the files and devices that its bytes come from; those must never be written to. Every
  /// implementation that reads from another device or file passes the question on.
  virtual void AddOrigins(std::vector<TFileIdentity>& origins) const = 0;
};

/// Why an image file is refused although it can be read.
enum class TImageProblem : std::uint8_t {
  None,
  UnknownKind,  ///< a kind of virtual disk that is not read here
  Encrypted,
  Damaged,        ///< its tables cannot be right
  ParentMissing,  ///< the difference to another disk that is not there
  ParentChanged,  ///< what has the parent's name is another disk, or was written to since
};

struct TOpenedDevice {
  std::unique_ptr<IDevice> Device;  ///< null on failure
  int Error = 0;                    ///< errno of the failure; EOPNOTSUPP with a problem
  TImageProblem Problem = TImageProblem::None;
  std::string Detail = {};  ///< of the problem: what the image is, or the name of its parent
};

/// Opens a regular file or block device for reading; anything else is refused with ENOTBLK.
TOpenedDevice OpenDevice(const std::string& path);

}  // namespace brenlow
