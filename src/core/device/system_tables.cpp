// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/device/system_tables.h"

#include <sys/sysmacros.h>

#include <charconv>
#include <fstream>
#include <sstream>

namespace brenlow {

namespace fs = std::filesystem;

std::string ReadLine(const fs::path& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  const std::size_t first = line.find_first_not_of(" \t");
  const std::size_t last = line.find_last_not_of(" \t");
  return first == std::string::npos ? std::string() : line.substr(first, last - first + 1);
}

std::int64_t ReadInteger(const fs::path& path) {
  const std::string line = ReadLine(path);
  std::int64_t value = 0;
  std::from_chars(line.data(), line.data() + line.size(), value);
  return value;
}

dev_t DeviceNumber(const std::string& text) {
  unsigned numbers[2] = {0, 0};
  const std::size_t colon = text.find(':');
  if (colon == std::string::npos) return 0;
  std::from_chars(text.data(), text.data() + colon, numbers[0]);
  std::from_chars(text.data() + colon + 1, text.data() + text.size(), numbers[1]);
  return makedev(numbers[0], numbers[1]);
}

fs::path SysfsFolder(dev_t device, const std::string& root) {
  std::error_code error;
  const std::string name = std::to_string(major(device)) + ":" + std::to_string(minor(device));
  return fs::canonical(root + "/sys/dev/block/" + name, error);
}

std::string WithoutOctalEscapes(const std::string& text) {
  const auto isOctal = [](char c) { return c >= '0' && c <= '7'; };
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool escape =
        text[i] == '\\' && i + 3 < text.size() && isOctal(text[i + 1]) && isOctal(text[i + 2]) && isOctal(text[i + 3]);
    if (escape) {
      out += static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + (text[i + 3] - '0'));
      i += 3;
    } else {
      out += text[i];
    }
  }
  return out;
}

std::vector<TMount> ReadMounts(const std::string& root) {
  std::vector<TMount> mounts;
  std::ifstream file(root + "/proc/self/mountinfo");
  for (std::string line; std::getline(file, line);) {
    // id, parent, major:minor, root, mount point, options, tags ... "-", type, source, options
    std::istringstream fields(line);
    TMount mount;
    std::string parent, device, inside, point, word, source;
    fields >> mount.Id >> parent >> device >> inside >> point;
    while (fields >> word && word != "-") {
    }
    if (!(fields >> mount.Type >> source)) continue;
    fields >> mount.Options;
    mount.Device = DeviceNumber(device);
    mount.Point = WithoutOctalEscapes(point);
    mount.Source = WithoutOctalEscapes(source);
    mounts.push_back(std::move(mount));
  }
  return mounts;
}

}  // namespace brenlow
