// SPDX-License-Identifier: GPL-3.0-or-later
// The thorough search for lost partitions.
#pragma once

namespace brenlow {

class TEngine;

/// One pass over all sectors of a drive, with everything that `TEngine::PartRecSystems` asks for.
/// Boot sectors, file records and folders met anywhere feed candidate sub-drives; what is confirmed
/// stays below the drive. `AnalyseDrive` calls it while `TEngine::PartRecRunning` is set.
void FindPartitionsInDrive(TEngine& engine, int driveNumber);

}  // namespace brenlow
