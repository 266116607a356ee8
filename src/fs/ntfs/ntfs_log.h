// SPDX-License-Identifier: GPL-3.0-or-later
// The log of an NTFS volume ($LogFile): whole file records that were logged, and the changes made
// to them afterwards.
//
// Format facts: linux-ntfs project documentation; libyal/libfsntfs documentation.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "core/types.h"
#include "fs/ntfs/ntfs_info.h"

namespace brenlow::ntfs {

/// One logged change.
struct TNTFSLogRecord {
  std::int64_t Position = 0;  ///< in the log, bytes
  int Size = 0;               ///< bytes
  std::int64_t LSN = 0;
  std::uint16_t RedoOperation = 0;
  std::uint16_t UndoOperation = 0;
  std::uint16_t RecordOffset = 0;
  std::uint16_t AttributeOffset = 0;
  std::uint16_t ClusterBlockOffset = 0;
  std::uint32_t TargetVCN = 0;
  std::uint32_t TargetLCN = 0;
  TByteDynArray RedoData;
};

/// A logged change that is a whole file record.
struct TNTFSLogImage {
  std::int64_t EndPosition = -1;  ///< up to where changes in the log concern it; -1 for no end
  TNTFSLogRecord Record;
  TByteDynArray Image;
};

struct TNTFSLogContent {
  std::vector<TNTFSLogImage> Images;
  std::vector<TNTFSLogRecord> Changes;  ///< in the order of the log
};

/// Takes what a restart page at `start` says of the log. False when there is none.
bool ReadRestartPage(std::span<const std::uint8_t> pages, std::size_t start, TNTFSLogInfo& info);

/// Puts the bytes back that the update sequences of the pages have replaced.
void FixLogPages(std::span<std::uint8_t> pages, std::uint32_t pageSize);

enum class TLogParse { Record, Nothing, NeedsMore };
/// Looks for a record at `position` of fixed-up pages that lie at `logPosition` in the log. A record
/// goes on behind the header of the next page.
TLogParse ParseLogRecord(std::span<const std::uint8_t> pages, std::size_t position, std::int64_t logPosition,
                         const TNTFSLogInfo& info, int mftRecordSize, TNTFSLogRecord& record);

/// Collects records from `position` on, at every 8 bytes, until one does not fit any more. The
/// result is the position reached.
std::size_t CollectLogRecords(std::span<const std::uint8_t> pages, std::size_t position, std::int64_t logPosition,
                              const TNTFSLogInfo& info, int mftRecordSize, TNTFSLogContent& content);

/// Finds for each image where in the log the next one of the same place begins. The log is a ring:
/// the last one's span ends where the oldest begins.
void LinkLogImages(std::vector<TNTFSLogImage>& images);

/// Replays on each image the changes that were logged after it.
void ApplyLogRecords(TNTFSLogContent& content, int mftRecordSize);

}  // namespace brenlow::ntfs
