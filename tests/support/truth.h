// SPDX-License-Identifier: GPL-3.0-or-later
// What must come back of an image of tests/data, and how much of it does.
#pragma once

#include <string>
#include <vector>

#include "support/images.h"

namespace brenlow::test {

struct TTruthLine {
  bool Live = false;
  std::string Text;  // as `WalkText` prints it, without the path of deleted files
  std::string Path;
};

/// Lines of a file of tests/data: state, size, CRC-32, modified, path.
std::vector<TTruthLine> LoadTruth(const std::string& name);

/// Mounts and analyses an image of one volume; what `WalkText` says of it.
std::string Walk(const TImage& image);

/// How many of the lines with that state come back; live ones must have their path too.
int CountFound(const std::vector<TTruthLine>& truth, const std::string& walk, bool live);
/// How many there are.
int Count(const std::vector<TTruthLine>& truth, bool live);

}  // namespace brenlow::test
