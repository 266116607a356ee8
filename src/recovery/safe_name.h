// SPDX-License-Identifier: GPL-3.0-or-later
// Names from a source are hostile; names on the target are harmless.
#pragma once

#include <string>

#include "core/types.h"

namespace brenlow {

/// A single path component for the target, in UTF-8: the characters \ / : * ? " < > | and control
/// characters become `replacement`, ".", ".." and an empty name become visible names, and a name of
/// more than 255 bytes is cut before its extension.
std::string SafeName(TStringView name, char16_t replacement = u'_');

/// Puts a number before the extension: "a.txt" and 2 give "a (2).txt". Still at most 255 bytes.
std::string NumberedName(const std::string& name, int number);

/// Adds a suffix to a name that is already safe, cutting the name so that it still fits.
std::string WithSuffix(const std::string& name, const std::string& suffix);

/// The name of a file that holds an alternate data stream of a file: "NAME:STREAM", both safe already, with a
/// number from 2 on in the stream's part where names meet.
std::string StreamFileName(const std::string& file, const std::string& stream, int number);

/// The same for an extended attribute: "user.STREAM".
std::string StreamAttributeName(const std::string& stream, int number);

}  // namespace brenlow
