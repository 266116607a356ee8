// SPDX-License-Identifier: GPL-3.0-or-later
#include "core/messages.h"

namespace brenlow {
namespace {

struct TText {
  std::string_view Section;
  int Number;
  TStringView Text;
};

constexpr TText Texts[] = {
    {"e_Message", 0, u"No known file system was found on this drive, so there is nothing to analyse."},
    {"e_Message", 1, u"There is no disk in drive %s Put one in and try again."},
    {"e_Message", 7, u"Nothing was found. Without administrator rights raw devices cannot be read: try again as root."},
    {"e_General", 8, u"Folder %d"},
    {"e_Files", 0, u"Lost and found"},
    {"e_Files", 1, u"Deep analysis"},
    {"e_Files", 2, u"File"},
    {"e_Files", 3, u"%s file"},
    {"e_Drives", 0, u"Unallocated space %d"},
    {"e_Drives", 1, u"Physical drive %d"},
    {"e_Drives", 2, u"Volume"},
    {"e_Drives", 3, u"Removable volume"},
    {"e_Drives", 4, u"Partition %d"},
    {"e_Drives", 10, u"primary"},
    {"e_Drives", 11, u"logical"},
    {"e_Drives", 12, u"boot"},
    {"e_Drives", 13, u"EFI system"},
    {"e_Drives", 14, u"reserved"},
    {"e_Drives", 15, u"recovery"},
    {"e_Drives", 16, u"dynamic disk metadata"},
    {"e_Drives", 17, u"dynamic disk data"},
    {"e_Drives", 18, u"Apple RAID"},
};

}  // namespace

TString MessageText(std::string_view section, int number) {
  for (const TText& text : Texts) {
    if (text.Section == section && text.Number == number) return TString(text.Text);
  }
  return {};
}

TString FormatMessage(std::string_view section, int number, TStringView argument) {
  TString text = MessageText(section, number);
  const std::size_t at = text.find(u'%');
  if (at != TString::npos && at + 1 < text.size()) text.replace(at, 2, argument);
  return text;
}

}  // namespace brenlow
