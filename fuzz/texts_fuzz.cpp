// SPDX-License-Identifier: GPL-3.0-or-later
// INI text, as settings and as a language: any bytes as the file.
#include <cstdint>
#include <cstdlib>

#include "core/ini_file.h"
#include "core/language.h"
#include "shell/settings.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace brenlow;
  if (size > (1 << 16)) return 0;
  TIniFile file = TIniFile::Parse({reinterpret_cast<const char*>(data), size});
  TSettings settings;
  settings.ReadFrom(file);
  settings.FTP.RememberPassword = settings.Proxy.RememberPassword = true;
  settings.WriteTo(file);
  // What was written reads back as it was.
  const TIniFile again = TIniFile::Parse(file.Text());
  TSettings readBack;
  readBack.ReadFrom(again);
  if (readBack.Main.Width != settings.Main.Width || readBack.Find.Text != settings.Find.Text) std::abort();
  TLanguage language = TLanguage::English();
  language.Read(file);
  for (const TTextPlace& place : TextPlaces()) language.Format(place.Text, {u"one", u"two"});
  return 0;
}
