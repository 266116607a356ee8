// SPDX-License-Identifier: GPL-3.0-or-later
#include "support/truth.h"

#include <doctest/doctest.h>
#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "analysis/analysis.h"

namespace brenlow::test {

std::vector<TTruthLine> LoadTruth(const std::string& name) {
  std::ifstream file(std::string(BRENLOW_TEST_DATA) + "/" + name);
  std::vector<TTruthLine> lines;
  for (std::string line; std::getline(file, line);) {
    std::istringstream fields(line);
    std::string state, size, crc, time, path;
    std::getline(fields, state, '\t');
    std::getline(fields, size, '\t');
    std::getline(fields, crc, '\t');
    std::getline(fields, time, '\t');
    std::getline(fields, path);
    const bool live = state == "live";
    lines.push_back({live, fmt::format(" {} {}{} {}\n", size, live ? "" : "deleted ", time, crc), path});
  }
  REQUIRE(!lines.empty());
  return lines;
}

std::string Walk(const TImage& image) {
  TEngine engine;
  const int number = Mount(engine, image).Number;
  REQUIRE(number >= 0);
  AnalyseDrive(engine, number);
  return WalkText(engine, number);
}

int CountFound(const std::vector<TTruthLine>& truth, const std::string& walk, bool live) {
  int found = 0;
  for (const TTruthLine& line : truth) {
    if (line.Live != live) continue;
    const std::string wanted = live ? line.Path + line.Text : line.Text;
    if (walk.find(wanted) != std::string::npos) ++found;
  }
  return found;
}

int Count(const std::vector<TTruthLine>& truth, bool live) {
  return static_cast<int>(
      std::count_if(truth.begin(), truth.end(), [&](const TTruthLine& l) { return l.Live == live; }));
}

}  // namespace brenlow::test
