// SPDX-License-Identifier: GPL-3.0-or-later
// brenlow-cli: command line of Brenlow Partition Recovery.
#include <CLI/CLI.hpp>
#include <clocale>
#include <cstdio>
#include <ctime>
#include <exception>

#include "cli/commands.h"
#include "cli/options.h"

namespace {

using brenlow::cli::TOptions;

void AddSourceOption(CLI::App& verb, TOptions& options) {
  verb.add_option("SOURCE", options.Sources, "Image file or block device; it is only ever read")
      ->required()
      ->expected(1);
  verb.add_option("--drive", options.Drive, "Only this row of `brenlow-cli drives SOURCE`")
      ->check(CLI::PositiveNumber)
      ->type_name("N");
  verb.add_option("--oem-codepage", options.CodePage, "Code page of short FAT names")
      ->type_name("N")
      ->capture_default_str();
  verb.add_flag("--json", options.Json, "JSON Lines for scripts, one object a line");
}

void AddFilterOptions(CLI::App& verb, TOptions& options) {
  verb.add_flag("--deleted", options.Deleted, "Only deleted files");
  verb.add_flag("--existing", options.Existing, "Only files that are not deleted");
  verb.add_option("--type", options.Kinds,
                  "Only files of a kind: archive, audio, database, document, image, video (may be repeated)")
      ->check(CLI::IsMember({"archive", "audio", "database", "document", "image", "video"}))
      ->type_name("KIND");
  verb.add_option("--path", options.PathGlob, "Only files whose name, or path if the pattern has a slash, fits")
      ->type_name("GLOB");
  verb.add_option("--lost-folders", options.LostFolders,
                  "Look through free space for lost folders: never, always, or auto (formatted volumes, deleted "
                  "folders cut off, small volumes)")
      ->check(CLI::IsMember({"never", "auto", "always"}))
      ->type_name("WHEN")
      ->capture_default_str();
}

int Run(int argc, char** argv) {
  TOptions options;
  CLI::App app(
      "Brenlow Partition Recovery: finds files, deleted ones included, on disks and disk images and\n"
      "copies them to a folder. The source is never written.",
      "brenlow-cli");
  app.require_subcommand(1);
  app.footer(
      "Examples:\n"
      "  brenlow-cli drives                            what this machine has\n"
      "  brenlow-cli drives stick.img                  the volumes in an image\n"
      "  brenlow-cli ls stick.img --deleted            deleted files\n"
      "  sudo brenlow-cli recover /dev/sdb --out ~/found --type image\n"
      "\n"
      "Exit status: 0 all done, 1 done with failures, 2 wrong usage or unreadable source, 130 stopped.\n"
      "Ctrl-C stops a scan and keeps what was found; a second one ends.\n"
      "`brenlow-cli VERB --help` tells the options of a verb.");
  app.set_version_flag("--version", "brenlow-cli " BRENLOW_VERSION);

  CLI::App* drives = app.add_subcommand("drives", "List disks and volumes, of the machine or of images and devices");
  drives->add_option("SOURCE", options.Sources, "Image files or devices; without any, the machine's own drives");
  drives->add_flag("--json", options.Json, "JSON Lines for scripts");
  drives->footer("Example:\n  brenlow-cli drives disk.img");

  CLI::App* info = app.add_subcommand("info", "Show what is known of a source and its volumes");
  AddSourceOption(*info, options);
  info->footer("Example:\n  brenlow-cli info disk.img --drive 2");

  CLI::App* ls = app.add_subcommand("ls", "List the files of a source, deleted ones marked");
  AddSourceOption(*ls, options);
  AddFilterOptions(*ls, options);
  ls->add_flag("--tree", options.Tree, "Indented by folder instead of one path a line");
  ls->footer(
      "Examples:\n  brenlow-cli ls stick.img --tree\n  brenlow-cli ls stick.img --deleted --path '*.jpg' --json");

  CLI::App* recover = app.add_subcommand("recover", "Copy the files of a source to a folder");
  AddSourceOption(*recover, options);
  AddFilterOptions(*recover, options);
  recover->add_option("--out", options.Out, "Folder to write to; made when missing. Nothing in it is overwritten")
      ->required()
      ->type_name("DIR");
  recover->footer(
      "Examples:\n  brenlow-cli recover stick.img --out found\n"
      "  brenlow-cli recover disk.img --drive 3 --deleted --type document --out found");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    // --help and --version arrive here as well, with exit code 0.
    return app.exit(error) == 0 ? brenlow::cli::AllDone : brenlow::cli::WrongUsage;
  }
  if (drives->parsed()) return brenlow::cli::ListDrives(options);
  if (info->parsed()) return brenlow::cli::ShowInfo(options);
  if (ls->parsed()) return brenlow::cli::ListFiles(options);
  return brenlow::cli::RecoverFiles(options);
}

}  // namespace

int main(int argc, char** argv) {
  std::setlocale(LC_CTYPE, "C.UTF-8");  // patterns of --path are matched by character, not by byte
  tzset();
  try {
    return Run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "brenlow-cli: %s\n", error.what());
    return brenlow::cli::DoneWithFailures;
  }
}
