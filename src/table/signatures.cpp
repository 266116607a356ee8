// SPDX-License-Identifier: GPL-3.0-or-later
#include "table/signatures.h"

#include <algorithm>
#include <cctype>
#include <string>

#include "core/text.h"

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

/// Rows with an end of their own; the texts are those of the end.
constexpr struct {
  std::u16string_view Ext;
  std::string_view Footer;
} Footers[] = {
    // The name of the last member, then the end record of the ZIP directory without a comment.
    {u".docx", "2E786D6C504B050600000000xxxxxxxxxxxxxxxxxxxxxxxxxxxx"},
    {u".pptx", "2E786D6C504B050600000000xxxxxxxxxxxxxxxxxxxxxxxxxxxx"},
    {u".xlsx", "2E786D6C504B050600000000xxxxxxxxxxxxxxxxxxxxxxxxxxxx"},
    {u".jpg", "FFD9"},
};

constexpr std::string_view StartsFile =
    "ani asf avi bmp bz cab chm crw cur doc docx gif gz hlp ico jpg mdb mid mny mov mp3 mpg odp ods odt pdf png psd "
    "rar rtf rm rmi swf tif tiff wav wma wmf wri zip";
constexpr std::string_view ZeroTail = "gif pdf png rar rtf wmf";
constexpr std::int64_t SmallestMp3 = 0x100000;  // bytes

constexpr int Nibble(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

/// The cells of plain text.
TSignatureCells CellsOf(std::string_view text) { return {text.begin(), text.end()}; }

/// Calls `use` with each word of a list, as an extension with its dot.
template <typename TUse>
void ForEachExtension(std::string_view list, const TUse& use) {
  while (!list.empty()) {
    const std::size_t end = std::min(list.find(' '), list.size());
    use(u"." + FromUtf8(list.substr(0, end)));
    list.remove_prefix(std::min(end + 1, list.size()));
  }
}

}  // namespace

TSignatureCells ParseHexSignature(std::string_view text) {
  TSignatureCells cells;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
    const int high = Nibble(static_cast<char>(std::toupper(static_cast<unsigned char>(text[i]))));
    const int low = Nibble(static_cast<char>(std::toupper(static_cast<unsigned char>(text[i + 1]))));
    cells.push_back(static_cast<std::int16_t>(high < 0 || low < 0 ? -1 : high * 16 + low));
  }
  return cells;
}

TCellsHead::TCellsHead(const TSignatureCells& cells) {
  for (std::size_t i = 0; i < std::min(cells.size(), sizeof(Value)); ++i) {
    if (cells[i] < 0) continue;
    Mask |= std::uint64_t{0xFF} << (8 * i);
    Value |= static_cast<std::uint64_t>(cells[i]) << (8 * i);
  }
}

bool MatchesCells(const TSignatureCells& cells, std::span<const std::uint8_t> bytes) {
  if (bytes.size() < cells.size()) return false;
  for (std::size_t i = 0; i < cells.size(); ++i) {
    if (cells[i] >= 0 && cells[i] != bytes[i]) return false;
  }
  return true;
}

TFileSignatures::TFileSignatures() {
  BuildSignatures();
  BuildMasterFileTypes();
  BuildDeepFileTypes();
}

void TFileSignatures::BuildSignatures() {
  for (const TRow& row : Rows) {
    TFileSignature signature;
    signature.Ext = row.Ext;
    signature.Header = ParseHexSignature(row.Header);
    FSignatures.push_back(std::move(signature));
  }
  for (const auto& [extension, footer] : Footers) FirstRow(extension).Footer = ParseHexSignature(footer);
  SetFlags(StartsFile, &TFileSignature::CanStartFile);
  SetFlags(ZeroTail, &TFileSignature::EndsAtZeroTail);
  SetFlags("mp3", &TFileSignature::NeedsZeroTailBefore);
  for (TFileSignature& row : FSignatures) {
    if (row.Ext == u".mp3") row.MinSize = SmallestMp3;
  }
  // A sector of a picture's head that ends so is followed by the embedded preview.
  for (const std::string_view marker : {"FFFF", "FF7F", "FEFF", "FE7F", "2C01"}) {
    FirstRow(u".jpg").HalfFileMarkers.push_back(ParseHexSignature(marker));
  }
  FirstRow(u".doc").SubSignatures = {{u"doc", CellsOf("Microsoft Word")},
                                     {u"xls", CellsOf("Microsoft Excel")},
                                     {u"ppt", CellsOf("Microsoft PowerPoint")}};
  FirstRow(u".docx").SubSignatures = {
      {u"docx", CellsOf("word/_rels")}, {u"xlsx", CellsOf("xl/_rels")}, {u"pptx", CellsOf("ppt/slides/_rels")}};
  // The mimetype entry of a document, then the signature of the next ZIP header.
  constexpr std::string_view document = "mimetypeapplication/vnd.oasis.opendocument.";
  const auto openDocument = [&](std::string_view kind, std::string_view next) {
    return CellsOf(std::string(document).append(kind).append(next));
  };
  FirstRow(u".odp").SubSignatures = {{u"odp", openDocument("presentation", "PK\3\4")},
                                     {u"ods", openDocument("spreadsheet", "PK")},
                                     {u"odt", openDocument("text", "PK")},
                                     {u"zip", {}}};

  const auto publish = [this](TStringView extension, std::string_view header) {
    TFileSignature signature = FirstRow(extension);
    signature.Header = ParseHexSignature(header);
    FPublishedHeaders.push_back(std::move(signature));
  };
  // "Standard Jet DB" at offset 4 (Library of Congress, fdd000462); the table's row has another
  // spelling.
  publish(u".mdb", "000100005374616E64617264204A6574204442");
  // A RIFF file of form RMID with a data chunk (Microsoft, Multimedia Programming Interface and
  // Data Specifications 1.0); the table's row begins with another letter.
  publish(u".rmi", "52494646xxxxxxxx524D494464617461");
}

void TFileSignatures::SetFlags(std::string_view extensions, bool TFileSignature::*flag) {
  ForEachExtension(extensions, [&](const TString& extension) {
    for (TFileSignature& row : FSignatures) {
      if (row.Ext == extension) row.*flag = true;
    }
  });
}

int TFileSignatures::FirstRowOf(TStringView extension) const {
  const auto row = std::find_if(FSignatures.begin(), FSignatures.end(),
                                [&](const TFileSignature& signature) { return signature.Ext == extension; });
  return row == FSignatures.end() ? -1 : static_cast<int>(row - FSignatures.begin());
}

TFileSignature& TFileSignatures::FirstRow(TStringView extension) {
  return FSignatures[static_cast<std::size_t>(FirstRowOf(extension))];
}

TString TFileSignatures::Description(TStringView extension) const {
  const auto type = std::find_if(FMasterFileTypes.begin(), FMasterFileTypes.end(),
                                 [&](const TMasterFileType& row) { return row.Ext == extension; });
  return type == FMasterFileTypes.end() ? TString() : type->Caption.substr(0, type->Caption.rfind(u" ("));
}

TString TFileSignatures::GetFileExtBySignature(std::span<const std::uint8_t> buffer) const {
  TString extension;
  for (const TFileSignature& row : FSignatures) {
    if (MatchesCells(row.Header, buffer)) extension = row.Ext;
  }
  for (const TFileSignature& row : FPublishedHeaders) {
    if (extension.empty() && MatchesCells(row.Header, buffer)) extension = row.Ext;
  }
  return extension == u".jfi" ? u".jpg" : extension;
}

void TFileSignatures::CheckSignatureByFileExt(TStringView extension, std::span<const std::uint8_t> buffer,
                                              std::size_t start, bool& found, bool& same) const {
  found = same = false;
  if (buffer.empty() || start > buffer.size()) return;
  const auto bytes = buffer.subspan(start);
  for (const auto* rows : {&FSignatures, &FPublishedHeaders}) {
    for (const TFileSignature& row : *rows) {
      if (row.Ext != extension || bytes.size() < row.Header.size()) continue;
      found = true;
      same = MatchesCells(row.Header, bytes);
      if (same) return;
    }
  }
}

}  // namespace brenlow
