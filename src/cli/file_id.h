// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <string>
#include <unordered_set>

#include "core/file_records.h"

namespace brenlow {
class TEngine;
class TLanguage;
}  // namespace brenlow

namespace brenlow::cli {

/// Names an entry of a source: by the start of its volume, the place of its directory entry or record
/// and its name. A second run on the same source gives the same id, in every language, whatever else
/// is selected. Two entries of a source have the same one in one of 10^19 cases.
using TFileId = std::uint64_t;
using TFileIds = std::unordered_set<TFileId>;

TFileId FileId(TEngine& engine, const TFile& file);
/// 16 hexadecimal digits.
std::string FileIdText(TFileId id);

/// Takes the ids of a list: one a line, or JSON Lines whose objects have an "id" (others are passed
/// over). `path` "-" is standard input. The result is a complaint, empty when all is well.
std::string ReadFileIds(const TLanguage& texts, const std::string& path, TFileIds& ids);

}  // namespace brenlow::cli
