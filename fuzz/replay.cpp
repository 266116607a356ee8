// SPDX-License-Identifier: GPL-3.0-or-later
// Runs a fuzz target over every file of the folders given. A fault ends the program.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  int files = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      std::ifstream file(entry.path(), std::ios::binary);
      const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
      LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
      ++files;
    }
  }
  std::printf("%d inputs\n", files);
  return files > 0 ? 0 : 1;
}
