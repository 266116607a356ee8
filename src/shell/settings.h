// SPDX-License-Identifier: GPL-3.0-or-later
// What the program remembers between runs: the file Settings.ini.
#pragma once

#include <array>
#include <string>

#include "core/device/source_guard.h"
#include "core/ini_file.h"
#include "recovery/recovery_types.h"

namespace brenlow {

/// One member a section, one field a key, each with the value that counts when the key is missing.
/// `VisitSettings` says in which order they stand in the file. Sizes are in pixels.
struct TSettings {
  struct TMain {
    std::string Language;  ///< English name; empty takes the machine's language
    int Left = 0, Top = 0, Width = 1024, Height = 768;
    bool Maximize = true;
    int TreeWidth = 280, RightPanelsWidth = 200;
    bool FindFileBar = true, ImageBar = false, WhereBar = true;
    bool EncryptedInColor = true;
    bool DontAskOnClose = false;
    bool EngineerMode = false;
  } Main;
  struct TFileList {
    int Tab = 0, ViewStyle = 2, SortIndex = 0, SortRevers = 1;
    std::array<int, 6> ColumnWidths{200, 130, 90, 90, 130, 130};
  } FileList;
  struct TFileListDisks {
    int ViewStyle = 4, SortIndex = 0, SortRevers = 1;
    std::array<int, 5> ColumnWidths{200, 160, 90, 90, 110};
  } FileListDisks;
  struct TPreview {
    bool IsOn = true;
  } Preview;
  struct TRecoveryList {
    bool IsOn = false;
    int Height = 300, ViewStyle = 3, SortIndex = 0, SortRevers = 1;
    std::array<int, 3> ColumnWidths{200, 160, 90};
  } RecoveryList;
  struct THexViewer {
    int Left = 100, Top = 100, Width = 960, Height = 600;
    bool Maximize = true, InfoIsOn = true, GotoIsOn = true;
  } HexViewer;
  struct TProperties {
    bool SystemAttributes = false;
  } Properties;
  struct TMaster {
    bool ShowOnStartup = true, AutoClose = false;
  } Master;
  TRecoverySettings Recovery;  ///< section Master_Recovery
  struct TZIP {
    std::string File;
  } ZIP;
  struct TFTP {
    std::string ServerName, UserName, Password, RemoteDir;
    bool RememberPassword = false, PassiveMode = true;
  } FTP;
  struct TProxy {
    bool Use = false, RememberPassword = false;
    std::string ServerName, UserName, Password;
  } Proxy;
  struct TMountImage {
    std::string Create;
  } MountImage;
  struct TFind {
    bool Advanced = false, CaseSensitive = false, WholeWords = false, BySize = false, ByDate = false;
    bool HiddenFiles = true, SystemFiles = true;
    std::string Text;
    int SizeType = 0, SizeAtLeast = 0, SizeSpecify = 0, DateCreated = 0, DateType = 0;
  } Find;

  /// Takes what the file has; a value of the wrong type leaves the default.
  void ReadFrom(const TIniFile& file);
  /// Writes all keys, in their order. A password is written only where it is to be remembered, and
  /// removed where it is not. Unknown keys stay.
  void WriteTo(TIniFile& file) const;
};

/// The file itself: in the program's folder when that can be written to, else in the user's
/// configuration folder.
class TSettingsFile {
 public:
  explicit TSettingsFile(std::string path) : FPath(std::move(path)) {}
  /// A missing file gives all defaults, as does one that cannot be read: `LoadError` says which it was.
  TSettings Load();
  /// The errno of a file that is there and could not be read; 0 otherwise.
  int LoadError() const { return FLoadError; }
  /// On top of what the file holds by now. Under sudo a new file in a folder of the user who called it is that
  /// user's. False when it cannot be written, or is read as a source according to `guard`; there is no message.
  bool Save(const TSettings& settings, const TSourceGuard& guard) const;
  const std::string& Path() const { return FPath; }

 private:
  std::string FPath;
  int FLoadError = 0;
};

/// Folder of the running program, without a slash at its end.
std::string ProgramFolder();
/// Folder of the language files: beside the program, or where an installation has them.
std::string LanguageFolder(const std::string& programFolder);
/// Path of the settings of a program in `programFolder`.
std::string SettingsPath(const std::string& programFolder);
/// The language to use: of the settings, or where they name none, of the environment's locale.
std::string LanguageToUse(const TSettings& settings);

}  // namespace brenlow
