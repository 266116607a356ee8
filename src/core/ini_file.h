// SPDX-License-Identifier: GPL-3.0-or-later
// INI text: "[Section]" headings and "Key=value" lines in UTF-8. What a change does not concern
// (order, comments, keys that this version does not know) comes back unchanged.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace brenlow {

class TIniFile {
 public:
  struct TLine {
    std::string Section;
    std::string Key;    ///< empty for headings, comments and blank lines
    std::string Value;  ///< without blanks at its ends
    std::string Raw;    ///< the line as it is, without its line end
  };

  TIniFile() = default;
  /// UTF-8 with or without a byte order mark, or UTF-16 with one.
  static TIniFile Parse(std::string_view bytes);
  /// 0, or the errno: ENOENT when there is none, EFBIG when it is far too large to be one.
  int Load(const std::string& path);
  /// Writes beside the file and moves over it, so that a crash leaves the old or the new one.
  bool Save(const std::string& path) const;
  std::string Text() const;

  /// Names of sections and keys compare without regard to ASCII case; of several equal keys the
  /// first counts.
  std::optional<std::string_view> Value(std::string_view section, std::string_view key) const;
  /// Changes the key, or adds it at the end of its section. Line breaks become "<br>".
  void SetValue(std::string_view section, std::string_view key, std::string_view value);
  void Remove(std::string_view section, std::string_view key);

  const std::vector<TLine>& Lines() const { return FLines; }

 private:
  std::vector<TLine>::const_iterator Find(std::string_view section, std::string_view key) const;

  std::vector<TLine> FLines;
};

}  // namespace brenlow
