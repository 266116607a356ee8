// SPDX-License-Identifier: GPL-3.0-or-later
#include "analysis/signatures.h"

#include <cctype>

namespace brenlow {
namespace {

struct TRow {
  TStringView Ext;
  std::string_view Header;
};

// In a fixed order: where several rows share a header, the order decides which one names it.
constexpr TRow Rows[] = {
    {u".386", "4D5Axxxxxx0000000400xxxxFFFFxx00"},
    {u".ani", "52494646xxxxxxxx41434F4E"},
    {u".asf", "3026B2758E66CF11A6D900AA0062CE6C"},
    {u".avi", "52494646xxxxxxxx415649204C495354"},
    {u".ax", "4D5Axxxxxx0000000400xxxxFFFFxx00"},
    {u".bmp", "424Dxxxxxx0000000000xxxx00002800"},
    {u".bz", "425Axx39"},
    {u".cab", "4D534346"},
    {u".chm", "49545346"},
    {u".cpl", "4D5Axxxxxx0000000400xxxxFFFFxx00"},
    {u".cr2", "49492A0010000000"},
    {u".crw", "4949xxxxxxxx4845415043434452"},
    {u".cur", "00000200xx00"},
    {u".db", "D0CF11E0A1B11AE1"},
    {u".dll", "4D5Axxxxxx0000000400xxxxFFFFxx00"},
    {u".doc", "D0CF11E0A1B11AE1"},
    {u".docx", "504B030414000600"},
    {u".dot", "D0CF11E0A1B11AE1"},
    {u".drv", "4D5Axxxxxx000000xx00xxxxFFFFxx00"},
    {u".exe", "4D5Axxxxxx0000000400xxxxFFFFxx00"},
    {u".fon", "4D5Axxxxxx0000000400xxxxFFFFxx00"},
    {u".gif", "47494638xx61"},
    {u".gz", "1F8B08"},
    {u".hlp", "3F5F0300"},
    {u".ico", "00000100"},
    {u".jfi", "FFD8FF"},
    {u".jfif", "FFD8FF"},
    {u".jpe", "FFD8FF"},
    {u".jpeg", "FFD8FF"},
    {u".jpg", "FFD8FF"},
    {u".mdb", "000100005374616E64617264204A6474204442"},
    {u".mid", "4D546864"},
    {u".midi", "4D546864"},
    {u".mny", "000100004D534953414D204461746162617365"},
    {u".mov", "xxxxxxxx6D6F6F76"},
    {u".mp3", "FFFB"},
    {u".mp3", "FFFA"},
    {u".mp3", "494433"},
    {u".mpeg", "000001BA2100xxxxxx80xxxx000001BB00xx80xxxxxxE1FF"},
    {u".mpg", "000001BA2100xxxxxx80xxxx000001BB00xx80xxxxxxE1FF"},
    {u".msc", "D0CF11E0A1B11AE1"},
    {u".msi", "D0CF11E0A1B11AE1"},
    {u".ocx", "4D5Axxxxxx0000000400xxxxFFFFxx00"},
    {u".odp", "504B0304"},
    {u".ods", "504B0304"},
    {u".odt", "504B0304"},
    {u".p65", "D0CF11E0A1B11AE1"},
    {u".pdf", "25504446"},
    {u".png", "89504E470D0A1A0A"},
    {u".pot", "D0CF11E0A1B11AE1"},
    {u".ppp", "D0CF11E0A1B11AE1"},
    {u".pps", "D0CF11E0A1B11AE1"},
    {u".ppt", "D0CF11E0A1B11AE1"},
    {u".pptx", "504B030414000600"},
    {u".ppz", "4D534346"},
    {u".psd", "38425053"},
    {u".rar", "526172"},
    {u".rm", "2E524D46"},
    {u".rmi", "49464646xxxxxxxx524D494464617461"},
    {u".rtf", "7B5C72746631"},
    {u".scr", "4D5Axxxxxx0000000400xxxxFFFFxx00"},
    {u".swf", "465753"},
    {u".sys", "4D5A9000030000000400xxxxFFFFxx00"},
    {u".tif", "49492A00"},
    {u".tiff", "4D4D002A"},
    {u".vbx", "4D5Axxxxxx0000000400xxxxFFFFxx00"},
    {u".vsd", "D0CF11E0A1B11AE1"},
    {u".vxd", "4D5Axxxxxx0000000400xxxxFFFFxx00"},
    {u".wav", "52494646xxxxxxxxxx415645666D7420"},
    {u".wiz", "D0CF11E0A1B11AE1"},
    {u".wma", "3026B2758E66CF11"},
    {u".wmf", "D7CDC69A"},
    {u".wri", "xxBE000000AB0000000000000000"},
    {u".xla", "D0CF11E0A1B11AE1"},
    {u".xls", "D0CF11E0A1B11AE1"},
    {u".xlsx", "504B030414000600"},
    {u".xlt", "D0CF11E0A1B11AE1"},
    {u".xlw", "D0CF11E0A1B11AE1"},
    {u".zip", "504B0304"},
};

constexpr int Nibble(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool Matches(const std::vector<std::int16_t>& header, std::span<const std::uint8_t> bytes) {
  for (std::size_t i = 0; i < header.size(); ++i) {
    if (header[i] >= 0 && header[i] != bytes[i]) return false;
  }
  return true;
}

}  // namespace

std::vector<std::int16_t> ParseHexSignature(std::string_view text) {
  std::vector<std::int16_t> cells;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
    const int high = Nibble(static_cast<char>(std::toupper(static_cast<unsigned char>(text[i]))));
    const int low = Nibble(static_cast<char>(std::toupper(static_cast<unsigned char>(text[i + 1]))));
    cells.push_back(static_cast<std::int16_t>(high < 0 || low < 0 ? -1 : high * 16 + low));
  }
  return cells;
}

TFileSignatures::TFileSignatures() {
  for (const TRow& row : Rows) FSignatures.push_back({TString(row.Ext), ParseHexSignature(row.Header)});
}

void TFileSignatures::CheckSignatureByFileExt(TStringView extension, std::span<const std::uint8_t> buffer,
                                              std::size_t start, bool& found, bool& same) const {
  found = same = false;
  if (buffer.empty() || start > buffer.size()) return;
  const auto bytes = buffer.subspan(start);
  for (const TFileSignature& row : FSignatures) {
    if (row.Ext != extension || bytes.size() < row.Header.size()) continue;
    found = true;
    same = Matches(row.Header, bytes);
    if (same) return;
  }
}

}  // namespace brenlow
