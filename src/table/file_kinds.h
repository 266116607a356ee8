// SPDX-License-Identifier: GPL-3.0-or-later
// The six kinds of files that views and recoveries can be narrowed to, by extension.
#pragma once

#include "core/file_records.h"
#include "core/types.h"

namespace brenlow {

enum class TContentKind { Archive, Audio, Database, Document, Image, Video };

/// True when the extension of `name` is in the table of that kind.
bool IsOfKind(TContentKind kind, TStringView name);

/// True when the filter wants all files or one of the kinds that the name belongs to.
bool PassesKindFilter(const TFileFilter& filter, TStringView name);

}  // namespace brenlow
