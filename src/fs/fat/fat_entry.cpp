// SPDX-License-Identifier: GPL-3.0-or-later
#include "fs/fat/fat_entry.h"

#include <iconv.h>

#include <algorithm>
#include <string>

#include "core/datetime.h"
#include "core/numbers.h"
#include "core/text.h"
#include "fs/fat/fat_layout.h"

namespace brenlow::fat {
namespace {

// Unicode's published mapping of IBM code page 437, upper half.
constexpr TStringView UpperHalf437 =
    u"ÇüéâäàåçêëèïîìÄÅÉæÆôöòûùÿÖÜ¢£¥₧ƒáíóúñÑªº¿⌐¬½¼¡«»░▒▓│┤╡╢╖╕╣║╗╝╜╛┐└┴┬├─┼╞╟╚╔╩╦╠═╬╧╨╤╥╙╘╒╓╫╪┘┌█▄▌▐▀αßΓπΣσµτΦΘΩδ∞φε∩≡"
    u"±≥≤⌠⌡÷≈°∙·√ⁿ²■\u00A0";
// What the page shows for control codes 1 to 31.
constexpr TStringView Pictures437 = u"☺☻♥♦♣♠•◘○◙♂♀♪♫☼►◄↕‼¶§▬↨↑↓→←∟↔▲▼";
static_assert(UpperHalf437.size() == 128 && Pictures437.size() == 31);

// Byte 12 of an entry: the parts of an 8.3 name that were typed in lower case (Windows NT).
constexpr std::size_t CaseFlagsAt = 12;
constexpr std::uint8_t LowerCaseBase = 0x08;
constexpr std::uint8_t LowerCaseExtension = 0x10;

TDateTime DateOf(std::uint16_t date) {
  if (date == 0) return 0;
  return EncodeDate(1980 + (date >> 9), (date >> 5) & 15, date & 31);
}

TDateTime TimeOf(std::uint16_t date, std::uint16_t time, std::uint8_t hundredths) {
  const TDateTime day = DateOf(date);
  if (day == 0) return 0;
  const int second = (time & 31) * 2 + (hundredths >= 100 ? 1 : 0);
  return day + EncodeTime(time >> 11, (time >> 5) & 63, second, hundredths % 100 * 10);
}

bool IsDotEntry(std::span<const std::uint8_t> entry) {
  for (std::size_t i = 0; i < 2; ++i) {
    if (entry[i] != '.' && entry[i] != ' ') return false;
  }
  return std::all_of(entry.begin() + 2, entry.begin() + 11, [](std::uint8_t c) { return c == ' '; });
}

bool IsPlausibleShortEntry(std::span<const std::uint8_t> entry, std::int64_t clusterRoom) {
  constexpr std::string_view refused = "\"*+,./:;<=>?[\\]|";
  for (std::size_t i = 0; i < 11; ++i) {
    const std::uint8_t c = entry[i];
    if (i == 0 && (c == DeletedMark || c == 0x05)) continue;
    if (c < ' ' || refused.find(static_cast<char>(c)) != std::string_view::npos) return false;
  }
  if (entry[0] == ' ' || (entry[11] & AttrVolume) != 0) return false;
  const std::uint16_t date = ReadLe16(entry, 24);
  const std::uint16_t time = ReadLe16(entry, 22);
  if (DateOf(date) == 0 || (time >> 11) > 23 || ((time >> 5) & 63) > 59 || (time & 31) > 29) return false;
  if ((entry[11] & AttrFolder) != 0 && ReadLe32(entry, 28) != 0) return false;
  return EntryCluster(entry, 0) <= clusterRoom + 2;
}

bool IsPlausibleLongEntry(std::span<const std::uint8_t> entry) {
  const std::uint8_t number = entry[0] & 0x3F;
  const bool numbered = (entry[0] & 0x80) == 0 && number >= 1 && number <= 20;
  return (numbered || entry[0] == DeletedMark) && entry[CaseFlagsAt] == 0 && ReadLe16(entry, 26) == 0;
}

}  // namespace

TOemTable CodePage437() {
  TOemTable table{};
  for (std::size_t c = 0; c < 128; ++c) table[c] = static_cast<char16_t>(c);
  for (std::size_t c = 1; c < 32; ++c) table[c] = Pictures437[c - 1];
  table[0x7F] = 0x2302;
  for (std::size_t c = 128; c < 256; ++c) table[c] = UpperHalf437[c - 128];
  return table;
}

bool LoadCodePage(int codePage, TOemTable& table) {
  table = CodePage437();
  if (codePage == 437) return true;
  const iconv_t converter = iconv_open("UTF-16LE", ("CP" + std::to_string(codePage)).c_str());
  if (converter == reinterpret_cast<iconv_t>(-1)) return false;
  for (std::size_t c = 128; c < 256; ++c) {
    char byte = static_cast<char>(c);
    std::array<std::uint8_t, 8> out{};
    char* from = &byte;
    char* to = reinterpret_cast<char*>(out.data());
    std::size_t fromLeft = 1;
    std::size_t toLeft = out.size();
    iconv(converter, nullptr, nullptr, nullptr, nullptr);
    const bool good = iconv(converter, &from, &fromLeft, &to, &toLeft) != static_cast<std::size_t>(-1);
    table[c] = good ? ReadLe16(out, 0) : u'\uFFFD';
  }
  iconv_close(converter);
  return true;
}

TTimeStamp EntryTimes(std::span<const std::uint8_t> entry) {
  TTimeStamp times;
  times.dtCreated = TimeOf(ReadLe16(entry, 16), ReadLe16(entry, 14), entry[13]);
  times.dtModified = TimeOf(ReadLe16(entry, 24), ReadLe16(entry, 22), 0);
  times.dtAccessed = DateOf(ReadLe16(entry, 18));
  return times;
}

TEntryParser::TResult TEntryParser::Parse(std::span<const std::uint8_t> entry, bool labelMode, TFileInfo& file) {
  FAllZero = IsAllZero(entry);
  if (FAllZero || IsDotEntry(entry)) return TResult::End;
  const std::uint8_t attributes = entry[11];
  if (attributes == AttrLongName) {
    Push(entry);
    return TResult::NoFile;
  }
  FAfterGap = false;
  if (((attributes & AttrVolume) != 0) != labelMode) {
    FPieceCount = 0;
    return TResult::NoFile;
  }
  file.blnFolder = (attributes & AttrFolder) != 0;
  file.Atributes.blnReadOnly = (attributes & AttrReadOnly) != 0;
  file.Atributes.blnHidden = (attributes & AttrHidden) != 0;
  file.Atributes.blnSystem = (attributes & AttrSystem) != 0;
  file.Atributes.blnArchive = (attributes & AttrArchive) != 0;
  // Entries behind the end mark are read too.
  file.blnDeleted = entry[0] == DeletedMark || entry[0] == 0;
  file.aSize = file.DefaultSize = ReadLe32(entry, 28);
  file.FirstCluster = EntryCluster(entry, 0);
  file.TimeStamp = EntryTimes(entry);
  if (!JoinPieces()) {
    ShortName(entry, labelMode);
  } else if (FNameCut) {
    AddExtension(entry);
  }
  file.strName = FName;
  return FName.empty() ? TResult::End : TResult::File;
}

void TEntryParser::Push(std::span<const std::uint8_t> entry) {
  constexpr std::uint8_t lastPiece = 0x40;
  if (FPieceCount == 0) FNameCut = FAfterGap && entry[0] != DeletedMark && (entry[0] & lastPiece) == 0;
  FAfterGap = false;
  TPiece& piece = FPieces[FPieceCount++ % MaxPieces];
  piece.Length = 0;
  piece.Checksum = entry[13];
  const auto take = [&](std::size_t at, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      const std::uint16_t unit = ReadLe16(entry, at + 2 * i);
      if (unit != 0 && unit != 0xFFFF) piece.Units[piece.Length++] = unit;
    }
  };
  take(1, 5);
  take(14, 6);
  take(28, 2);
}

/// The name is written back to front: its last piece stands nearest to the entry. Pieces of
/// another checksum than the nearest one belong to something else. False when there is no long name.
bool TEntryParser::JoinPieces() {
  if (FPieceCount == 0) return false;
  FJoined.clear();
  const std::uint8_t checksum = PieceChecksum();
  const std::size_t kept = std::min(FPieceCount, MaxPieces);
  for (std::size_t i = 1; i <= kept; ++i) {
    const TPiece& piece = FPieces[(FPieceCount - i) % MaxPieces];
    if (piece.Checksum == checksum) FJoined.append(piece.Units.data(), piece.Length);
  }
  FPieceCount = 0;
  FName = Trim(FJoined);
  return !FName.empty();
}

void TEntryParser::AddExtension(std::span<const std::uint8_t> entry) {
  const TString extension = Decode(entry.subspan(8, 3), false, true);
  if (!extension.empty() && !LowerCase(FName).ends_with(u"." + extension)) (FName += u'.') += extension;
}

TString TEntryParser::Decode(std::span<const std::uint8_t> bytes, bool lostFirst, bool lowerCase) const {
  TString text;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    // 0x05 stands for a first byte 0xE5, which would read as deleted.
    const std::uint8_t byte = i == 0 && bytes[i] == 0x05 && bytes.size() == 8 ? DeletedMark : bytes[i];
    text += i == 0 && lostFirst ? u'?' : (*FOem)[byte];
  }
  text = Trim(text);
  if (text.find(u'\u00A6') != TString::npos || text.find(u'\u00AC') != TString::npos) {
    const std::string raw(bytes.begin(), bytes.end());
    bool valid = false;
    text = FromUtf8(raw, &valid);
    if (!valid) {
      text = FromUtf8(std::string_view(raw).substr(2), &valid);
      text = valid ? u"?" + text : TString(u"?");
    }
    text = Trim(text);
  }
  if (lowerCase) {
    for (char16_t& c : text) {
      if (c >= u'A' && c <= u'Z') c = static_cast<char16_t>(c + 32);
    }
  }
  return text;
}

void TEntryParser::ShortName(std::span<const std::uint8_t> entry, bool labelMode) {
  const bool lostFirst = entry[0] == DeletedMark || entry[0] == 0;
  if (labelMode) {
    FName = Decode(entry.first(LabelSize), lostFirst, false);
    return;
  }
  const std::uint8_t flags = entry[CaseFlagsAt];
  FName = Decode(entry.first(8), lostFirst, (flags & LowerCaseBase) != 0);
  const TString extension = Decode(entry.subspan(8, 3), false, (flags & LowerCaseExtension) != 0);
  if (!extension.empty()) (FName += u'.') += extension;
}

bool IsPlausibleEntry(std::span<const std::uint8_t> entry, std::int64_t clusterRoom) {
  if (IsAllZero(entry)) return true;
  if ((entry[11] & 0xC0) != 0) return false;
  return entry[11] == AttrLongName ? IsPlausibleLongEntry(entry) : IsPlausibleShortEntry(entry, clusterRoom);
}

}  // namespace brenlow::fat
