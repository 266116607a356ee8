// SPDX-License-Identifier: GPL-3.0-or-later
// Where the bytes of a file lie: what a driver says of a stream, and all that a reader of it needs.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <span>

#include "core/types.h"

namespace brenlow {

struct TDriveInfo;

enum class TExtentKind : std::uint8_t {
  Stored,  ///< as it is on the volume
  Zeros,   ///< a hole: nothing was ever written there
  Lost,    ///< was written, but it is not known where: zeros, and counted as a failed read
  Inline,  ///< in `TFileStream::Inline`, from byte `Place` on
  Packed,  ///< one unit of compressed data, which `TFileStream::Unpack` turns into bytes
};

/// A part of a stream. Offsets and lengths are bytes of the stream.
struct TExtent {
  std::int64_t Offset = 0;
  std::int64_t Length = 0;
  /// Of a stored extent: its first byte, counted from the volume's start, and anything outside of the volume
  /// reads as unreadable. Of a packed one: whatever its decoder understands; -1 when it is not a place on the volume.
  std::int64_t Place = 0;
  std::uint32_t PackedBytes = 0;  ///< that a packed unit takes on the volume
  TExtentKind Kind = TExtentKind::Stored;
  bool Estimated = false;  ///< the place is a guess: reading it counts as an estimated read

  std::int64_t End() const { return Offset + Length; }
};

/// Yields the extents of a stream one after the other, for streams of very many pieces.
class IExtentSource {
 public:
  virtual ~IExtentSource() = default;
  /// The next extent, whose `Offset` the list sets. False at the end of the stream. An answer must not take
  /// long: a long run may come in several parts.
  virtual bool Next(TExtent& extent) = 0;
  /// Starts from the beginning of the stream again.
  virtual void Rewind() = 0;
};

/// The extents of a stream without gaps, from byte 0 on. What lies one after the other is kept as one extent.
/// A driver adds them all, or sets a source that is asked as far as the stream is read; of those from a source
/// only the last ones are kept.
class TExtents {
 public:
  /// Appends. A length below 1 adds nothing; no stream grows beyond `MaxLength`.
  void Add(TExtent extent);
  void AddStored(std::int64_t length, std::int64_t place) { Add({.Length = length, .Place = place}); }
  void AddZeros(std::int64_t length) { Add({.Length = length, .Kind = TExtentKind::Zeros}); }
  void AddLost(std::int64_t length) { Add({.Length = length, .Kind = TExtentKind::Lost}); }
  void SetSource(std::unique_ptr<IExtentSource> source) { FSource = std::move(source); }

  /// The extent that holds byte `offset`, in one piece at least up to `until` where it reaches that far. Nothing
  /// when the stream ends before the byte.
  std::optional<TExtent> At(std::int64_t offset, std::int64_t until);
  /// The end of the stream, or some byte at or after `until` where it is longer.
  std::int64_t EndNear(std::int64_t until);

  static constexpr std::int64_t MaxLength = std::int64_t{1} << 62;  // bytes

 private:
  static constexpr std::size_t MaxKept = 65536;   // extents of a source
  static constexpr std::size_t MinBefore = 2048;  // of those, before the byte that was asked for last

  std::int64_t KnownEnd() const { return FList.empty() ? 0 : FList.back().End(); }
  void Reach(std::int64_t offset, std::int64_t until);
  std::size_t IndexOf(std::int64_t offset) const;

  std::deque<TExtent> FList;
  std::unique_ptr<IExtentSource> FSource;
  bool FEnded = false;  // the source has no more
};

/// What becomes of a sector that cannot be read.
enum class TUnreadableRule : std::uint8_t {
  Zeros,
  /// The sector at its place in the unit (cluster) before it, so that what follows keeps its place and a table or
  /// a picture continues; zeros when none of the last 1,024 units has it.
  RepeatUnitBefore,
};

/// One stream of a file, made ready for reading. Units of length are bytes.
struct TFileStream {
  TExtents Extents;
  std::int64_t Size = 0;               ///< no byte at or after this is handed out
  std::int64_t ValidSize = INT64_MAX;  ///< from here on bytes are zeros, whatever is stored there
  std::int64_t UnitBytes = 0;          ///< cluster or block
  std::int64_t VolumeBytes = -1;       ///< where places end; -1 for the length of the drive
  TUnreadableRule Unreadable = TUnreadableRule::Zeros;
  TByteDynArray Inline;        ///< bytes that lie in the file's own record
  bool InlineDamaged = false;  ///< that record did not read whole
  /// Fills `head` with the first bytes of a packed unit. False when some of them are zeros because they could not
  /// be had. Reads what it needs through `TExtentReader::ReadPlace`, `shift` sectors on.
  std::function<bool(const TDriveInfo& drive, const TExtent& unit, std::span<std::uint8_t> head, int shift)> Unpack;

  /// As `TExtents::At`, cut to `Size`, and zeros from `ValidSize` on.
  std::optional<TExtent> At(std::int64_t offset, std::int64_t until);

  // The packed unit that was unpacked last.
  std::int64_t UnpackedUnit = -1;  // its offset
  TByteDynArray Unpacked;          // as many of its first bytes as were asked for
  bool UnpackedWhole = false;
};

}  // namespace brenlow
