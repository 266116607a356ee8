// SPDX-License-Identifier: GPL-3.0-or-later
// Who called sudo. What a run makes belongs to that user, not to root, so that the results can be used, moved
// and deleted without sudo. Only what the run itself has made is given away, and only through open descriptors:
// what was there before keeps its owner, and no link leads to another file.
#pragma once

#include <sys/types.h>

#include <string>

namespace brenlow {

/// Gives a file or folder that this run has just made to the user who called sudo (SUDO_UID, SUDO_GID). Does
/// nothing without sudo; a file system that knows no owners is left as it is.
void GiveToCaller(int handle);

/// `openat` with `flags` and O_CREAT; a file that this makes goes to the user who called sudo. The descriptor,
/// or -1 with errno.
int OpenOrCreate(int folder, const char* path, int flags, mode_t mode);

/// Makes the folder and those above it where missing, for the user who called sudo. 0, or the errno.
int CreateFolders(const std::string& path);

/// The same for an open folder that this run has made by `mkdirat`: only while it is empty and root's own, as
/// somebody may have put another in its place meanwhile.
void GiveNewFolderToCaller(int handle);

/// True under sudo, when the innermost folder on the way to `path` that exists is the caller's own.
bool LiesWithCaller(const std::string& path);

}  // namespace brenlow
