// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/settings.h"

#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <filesystem>

#include "core/device/caller.h"
#include "core/language.h"
#include "core/text.h"

namespace brenlow {
namespace {

template <typename TVisitor, std::size_t Count>
void VisitColumns(TVisitor& visit, const char* section, std::array<int, Count>& widths) {
  for (std::size_t i = 0; i < Count; ++i) visit(section, "Column" + std::to_string(i) + "Width", widths[i]);
}

template <typename TVisitor>
void VisitWindow(TSettings& s, TVisitor& visit) {
  const char* section = "Main";
  visit(section, "Language", s.Main.Language);
  visit(section, "Left", s.Main.Left);
  visit(section, "Top", s.Main.Top);
  visit(section, "Width", s.Main.Width);
  visit(section, "Height", s.Main.Height);
  visit(section, "Maximize", s.Main.Maximize);
  visit(section, "TreeWidth", s.Main.TreeWidth);
  visit(section, "RightPanelsWidth", s.Main.RightPanelsWidth);
  visit(section, "FindFileBar", s.Main.FindFileBar);
  visit(section, "ImageBar", s.Main.ImageBar);
  visit(section, "WhereBar", s.Main.WhereBar);
  visit(section, "EncryptedInColor", s.Main.EncryptedInColor);
  visit(section, "DontAskOnClose", s.Main.DontAskOnClose);
  visit(section, "EngineerMode", s.Main.EngineerMode);
}

template <typename TVisitor>
void VisitViews(TSettings& s, TVisitor& visit) {
  const char* section = "FileList";
  visit(section, "Tab", s.FileList.Tab);
  visit(section, "ViewStyle", s.FileList.ViewStyle);
  visit(section, "SortIndex", s.FileList.SortIndex);
  visit(section, "SortRevers", s.FileList.SortRevers);
  VisitColumns(visit, section, s.FileList.ColumnWidths);
  section = "FileListDisks";
  visit(section, "ViewStyle", s.FileListDisks.ViewStyle);
  visit(section, "SortIndex", s.FileListDisks.SortIndex);
  visit(section, "SortRevers", s.FileListDisks.SortRevers);
  VisitColumns(visit, section, s.FileListDisks.ColumnWidths);
  visit("Preview", "IsOn", s.Preview.IsOn);
  section = "RecoveryList";
  visit(section, "IsOn", s.RecoveryList.IsOn);
  visit(section, "Height", s.RecoveryList.Height);
  visit(section, "ViewStyle", s.RecoveryList.ViewStyle);
  visit(section, "SortIndex", s.RecoveryList.SortIndex);
  visit(section, "SortRevers", s.RecoveryList.SortRevers);
  VisitColumns(visit, section, s.RecoveryList.ColumnWidths);
  section = "HexViewer";
  visit(section, "Left", s.HexViewer.Left);
  visit(section, "Top", s.HexViewer.Top);
  visit(section, "Width", s.HexViewer.Width);
  visit(section, "Height", s.HexViewer.Height);
  visit(section, "Maximize", s.HexViewer.Maximize);
  visit(section, "InfoIsOn", s.HexViewer.InfoIsOn);
  visit(section, "GotoIsOn", s.HexViewer.GotoIsOn);
  visit("Properties", "SystemAttributes", s.Properties.SystemAttributes);
  visit("Master", "ShowOnStartup", s.Master.ShowOnStartup);
  visit("Master", "AutoClose", s.Master.AutoClose);
}

template <typename TVisitor>
void VisitOutput(TSettings& s, TVisitor& visit) {
  const char* section = "Master_Recovery";
  visit(section, "Type", s.Recovery.Type);
  visit(section, "Remember", s.Recovery.Remember);
  visit(section, "Folders", s.Recovery.RestoreFolders);
  visit(section, "ADS", s.Recovery.ADS);
  visit(section, "CanReplaceSymbols", s.Recovery.CanReplaceSymbols);
  visit(section, "Path", s.Recovery.Path);
  visit(section, "UnknownSymbols", s.Recovery.UnknownSymbols);
  visit("Master_ZIP", "File", s.ZIP.File);
  section = "Master_FTP";
  visit(section, "ServerName", s.FTP.ServerName);
  visit(section, "UserName", s.FTP.UserName);
  visit(section, "Password", s.FTP.Password);
  visit(section, "RemoteDir", s.FTP.RemoteDir);
  visit(section, "RememberPassword", s.FTP.RememberPassword);
  visit(section, "PassiveMode", s.FTP.PassiveMode);
  section = "Master_FTP_Proxy";
  visit(section, "Use", s.Proxy.Use);
  visit(section, "RememberPassword", s.Proxy.RememberPassword);
  visit(section, "ServerName", s.Proxy.ServerName);
  visit(section, "UserName", s.Proxy.UserName);
  visit(section, "Password", s.Proxy.Password);
  visit("MountImage", "Create", s.MountImage.Create);
}

template <typename TVisitor>
void VisitSearch(TSettings& s, TVisitor& visit) {
  const char* section = "Find";
  visit(section, "Advanced", s.Find.Advanced);
  visit(section, "CaseSensitive", s.Find.CaseSensitive);
  visit(section, "WholeWords", s.Find.WholeWords);
  visit(section, "BySize", s.Find.BySize);
  visit(section, "ByDate", s.Find.ByDate);
  visit(section, "HiddenFiles", s.Find.HiddenFiles);
  visit(section, "SystemFiles", s.Find.SystemFiles);
  visit(section, "Text", s.Find.Text);
  visit(section, "SizeType", s.Find.SizeType);
  visit(section, "SizeAtLeast", s.Find.SizeAtLeast);
  visit(section, "SizeSpecify", s.Find.SizeSpecify);
  visit(section, "DateCreated", s.Find.DateCreated);
  visit(section, "DateType", s.Find.DateType);
}

/// Calls `visit(section, key, field)` for every key, in the order of the file.
template <typename TVisitor>
void VisitSettings(TSettings& s, TVisitor& visit) {
  VisitWindow(s, visit);
  VisitViews(s, visit);
  VisitOutput(s, visit);
  VisitSearch(s, visit);
}

bool ParseInteger(std::string_view text, int& value) {
  int parsed = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), parsed);
  if (error != std::errc() || end != text.data() + text.size()) return false;
  value = parsed;
  return true;
}

/// Numbers of `TRecoverType`.
constexpr int RecoverTypes = static_cast<int>(TRecoverType::rtUploadFTP) + 1;

struct TReader {
  const TIniFile& File;
  void operator()(const char* section, const std::string& key, int& field) {
    if (const auto value = File.Value(section, key)) ParseInteger(*value, field);
  }
  void operator()(const char* section, const std::string& key, bool& field) {
    const auto value = File.Value(section, key);
    if (value == "1") field = true;
    if (value == "0") field = false;
  }
  void operator()(const char* section, const std::string& key, std::string& field) {
    if (const auto value = File.Value(section, key)) field = *value;
  }
  void operator()(const char* section, const std::string& key, TString& field) {
    if (const auto value = File.Value(section, key)) field = FromUtf8(*value);
  }
  void operator()(const char* section, const std::string& key, TRecoverType& field) {
    int number = static_cast<int>(field);
    (*this)(section, key, number);
    if (number >= 0 && number < RecoverTypes) field = static_cast<TRecoverType>(number);
  }
};

struct TWriter {
  TIniFile& File;
  void operator()(const char* section, const std::string& key, int field) {
    File.SetValue(section, key, std::to_string(field));
  }
  void operator()(const char* section, const std::string& key, bool field) {
    File.SetValue(section, key, field ? "1" : "0");
  }
  void operator()(const char* section, const std::string& key, const std::string& field) {
    File.SetValue(section, key, field);
  }
  void operator()(const char* section, const std::string& key, const TString& field) {
    File.SetValue(section, key, ToUtf8(field));
  }
  void operator()(const char* section, const std::string& key, TRecoverType field) {
    File.SetValue(section, key, std::to_string(static_cast<int>(field)));
  }
};

bool LiesInSystem(const std::string& folder) {
  for (const char* root : {"/usr/", "/bin/", "/sbin/", "/opt/"}) {
    if ((folder + "/").starts_with(root)) return true;
  }
  return false;
}

std::string Environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

}  // namespace

void TSettings::ReadFrom(const TIniFile& file) {
  TReader reader{file};
  VisitSettings(*this, reader);
}

void TSettings::WriteTo(TIniFile& file) const {
  TSettings copy = *this;
  if (!FTP.RememberPassword) copy.FTP.Password.clear();
  if (!Proxy.RememberPassword) copy.Proxy.Password.clear();
  TWriter writer{file};
  VisitSettings(copy, writer);
  if (!FTP.RememberPassword) file.Remove("Master_FTP", "Password");
  if (!Proxy.RememberPassword) file.Remove("Master_FTP_Proxy", "Password");
}

TSettings TSettingsFile::Load() {
  TSettings settings;
  TIniFile file;
  const int error = file.Load(FPath);
  if (error == 0) settings.ReadFrom(file);
  FLoadError = error == ENOENT || error == ENOTDIR ? 0 : error;
  return settings;
}

bool TSettingsFile::Save(const TSettings& settings, const TSourceGuard& guard) const {
  if (guard.Forbids(FPath)) return false;
  TIniFile file;
  // A file that is there but cannot be read is not replaced by one of defaults.
  if (file.Load(FPath) != 0 && std::filesystem::exists(FPath)) return false;
  settings.WriteTo(file);
  // Root's own settings stay root's, also under sudo.
  const std::string folder = std::filesystem::path(FPath).parent_path();
  std::error_code error;
  LiesWithCaller(FPath) ? CreateFolders(folder) : std::filesystem::create_directories(folder, error);
  return file.Save(FPath);
}

std::string ProgramFolder() {
  std::error_code error;
  return std::filesystem::read_symlink("/proc/self/exe", error).parent_path().string();
}

std::string LanguageFolder(const std::string& programFolder) {
  const std::string beside = programFolder + "/Language";
  return std::filesystem::is_directory(beside) ? beside : programFolder + "/../share/brenlow/Language";
}

std::string SettingsPath(const std::string& programFolder) {
  // Root may write everywhere, but not every folder is the place for settings.
  if (!programFolder.empty() && !LiesInSystem(programFolder) && ::access(programFolder.c_str(), W_OK) == 0) {
    return programFolder + "/Settings.ini";
  }
  const std::string config = Environment("XDG_CONFIG_HOME");
  return (config.starts_with('/') ? config : Environment("HOME") + "/.config") + "/brenlow/Settings.ini";
}

std::string LanguageToUse(const TSettings& settings) {
  if (!settings.Main.Language.empty()) return settings.Main.Language;
  for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const std::string locale = Environment(name);
    if (!locale.empty()) return LanguageOfLocale(locale);
  }
  return "English";
}

}  // namespace brenlow
