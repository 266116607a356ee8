// SPDX-License-Identifier: GPL-3.0-or-later
// The only way from the extents of a file to its bytes. Recovery, previews and structure readers get the same bytes
// of a file from it, in whatever pieces they ask, and the counts of `TSectorReader` tell which of them could not be
// read or come from a place that is a guess.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <span>
#include <vector>

#include "core/drive_records.h"
#include "core/extents.h"
#include "core/file_records.h"
#include "core/types.h"

namespace brenlow {

class TEngine;

/// Bytes of a buffer from `First` to before `End`.
struct TBufferRange {
  std::size_t First = 0;
  std::size_t End = 0;
};

/// A stretch of a stream that can be had without reading it: a hole, or bytes of a file of this system.
struct TFileStretch {
  std::int64_t Length = 0;  ///< bytes; 0 where it has to be read
  bool IsHole = false;
  int File = -1;              ///< otherwise an open descriptor, read-only
  std::int64_t Position = 0;  ///< there
};

class TExtentReader {
 public:
  explicit TExtentReader(TEngine& engine) : FEngine(engine) {}

  /// A stream (-1 is the main one) of a file of the drive, kept between reads. `map` fills it when it is not known;
  /// null when that gives false. It is known by the drive's device and first sector and by the place of the row, so
  /// that records may move in memory.
  std::shared_ptr<TFileStream> Open(const TDriveInfo& drive, const TFileInfo& file, int stream,
                                    const std::function<bool(TFileStream&)>& map);
  /// Drops what is kept: what is known of a volume has changed.
  void Forget() { FKept.clear(); }

  /// Fills `result` with at most `size` bytes from byte `start` of the stream on; less at its end. What cannot be
  /// read follows the stream's rule and counts as a failed read. `shift` is added to every sector.
  void Read(const TDriveInfo& drive, TFileStream& stream, std::int64_t start, std::int64_t size, TByteDynArray& result,
            int shift = 0);

  /// The stretch that begins at byte `start` of the stream, at most `size` bytes of it.
  TFileStretch StretchAt(const TDriveInfo& drive, TFileStream& stream, std::int64_t start, std::int64_t size);

  /// Fills the buffer from byte `place` of the volume on. False when some of it could not be read: that is zeros,
  /// named in `lost` where it is given, and counts as a failed read.
  bool ReadPlace(const TDriveInfo& drive, std::int64_t place, std::span<std::uint8_t> buffer, int shift = 0,
                 std::vector<TBufferRange>* lost = nullptr);

 private:
  struct TKey {
    TString Device;
    std::int64_t FirstSector = 0;
    std::int64_t SectorsCount = 0;
    TFileSystem FileSystem = TFileSystem::fsUnknown;
    int Stream = -1;
    std::int64_t RowSector = 0;
    std::int64_t RowOffset = 0;
    std::int64_t FirstCluster = 0;
    std::int64_t DataSector = 0;
    std::int64_t Journal = 0;
    std::int64_t Size = 0;
    std::int64_t DefaultSize = 0;
    bool Deleted = false;
    bool operator==(const TKey&) const = default;
  };
  struct TKept {
    TKey Key;
    std::shared_ptr<TFileStream> Stream;
  };
  /// Whole sectors of a stored extent, on their way into a buffer.
  struct TSectors {
    const TDriveInfo& Drive;
    TFileStream& Stream;
    std::int64_t Offset = 0;  ///< of the first byte, in the stream
    std::int64_t Place = 0;   ///< of the first byte, on the volume
    std::span<std::uint8_t> Bytes;
    int Shift = 0;
  };

  void ReadExtent(const TDriveInfo& drive, TFileStream& stream, const TExtent& extent, std::int64_t start,
                  std::span<std::uint8_t> bytes, std::size_t room, int shift);
  void ReadStored(const TDriveInfo& drive, TFileStream& stream, const TExtent& extent, std::int64_t start,
                  std::span<std::uint8_t> bytes, std::size_t room, int shift);
  void ReadInline(const TFileStream& stream, std::int64_t place, std::span<std::uint8_t> bytes);
  void ReadPacked(const TDriveInfo& drive, TFileStream& stream, const TExtent& unit, std::int64_t start,
                  std::span<std::uint8_t> bytes, int shift);
  std::vector<TBufferRange> ReadSectors(const TDriveInfo& drive, std::int64_t place, std::int64_t volumeBytes,
                                        std::span<std::uint8_t> bytes, int shift);
  void RepeatUnits(const TSectors& sectors, const std::vector<TBufferRange>& lost);
  int RepeatFromBefore(const TSectors& sectors, std::int64_t offset, std::span<std::uint8_t> sector);

  TEngine& FEngine;
  std::list<TKept> FKept;  // the one used last in front
};

/// The layout of a stream in file order, as far as its size; a hole has the sector -1.
TFileFragments FragmentsOf(const TDriveInfo& drive, TFileStream& stream);

/// Bytes of the volume that a stream takes, all of its extents.
std::int64_t StoredBytes(TFileStream& stream);

}  // namespace brenlow
