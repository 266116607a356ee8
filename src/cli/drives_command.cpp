// SPDX-License-Identifier: GPL-3.0-or-later
// The verbs `drives` and `info`.
#include <fmt/format.h>

#include <algorithm>

#include "cli/commands.h"
#include "cli/file_fields.h"
#include "cli/json_line.h"
#include "cli/rows.h"
#include "cli/session.h"
#include "cli/verb_options.h"
#include "core/driver_calls.h"
#include "core/sizes.h"
#include "core/text.h"

namespace brenlow::cli {
namespace {

/// As in JSON.
std::string RowType(const TDriveInfo& drive) {
  if (drive.DriveTypes.Has(TDriveType::dtPhysical)) return "disk";
  if (drive.ReceivedType == TReceivedType::rtByUnallocatedSpace) return "gap";
  return "volume";
}

/// As people read it.
std::string RowTypeText(const TLanguage& texts, const TDriveInfo& drive) {
  const std::string type = RowType(drive);
  return texts.Utf8(type == "disk" ? TText::RowDisk : type == "gap" ? TText::RowGap : TText::RowVolume);
}

/// How a file system is known, as in JSON; empty where none is.
std::string GeometryCode(const TDriveInfo& drive) {
  return drive.FileSystem == TFileSystem::fsUnknown ? "" : PlaceCode(drive.GeometrySource);
}

std::string RowJson(const TDriveInfo& drive, int number) {
  TJsonLine line;
  return line.Number("number", number)
      .Text("type", RowType(drive))
      .TextOrNull("file_system", SystemName(drive))
      .TextOrNull("geometry", GeometryCode(drive))
      .Number("size", SizeOf(drive))
      .Number("first_sector", drive.FirstSector)
      .Number("sectors", drive.SectorsCount)
      .Number("sector_size", drive.BytesPerSector)
      .Text("source", PathFromText(drive.Drive))
      .TextOrNull("label", ToUtf8(drive.VolumeName))
      .TextOrNull("partition_name", ToUtf8(drive.PartitionName))
      .TextOrNull("serial", ToUtf8(drive.Serial))
      .Text("name", drive.Caption)
      .Take();
}

/// The caption, the name in the partition table, where the volume is mounted, and whether it is known only from a copy.
std::string RowName(const TLanguage& texts, const TDriveInfo& drive) {
  std::string name = ToUtf8(drive.Caption);
  if (!drive.PartitionName.empty()) name += " [" + ToUtf8(drive.PartitionName) + "]";
  if (!drive.DriveLetter.empty()) name += " (" + PathFromText(drive.DriveLetter) + ")";
  if (drive.GeometrySource == TPlaceSource::FromCopy) name += " (" + texts.Utf8(TText::RowKnownByCopy) + ")";
  return Printable(name);
}

/// The rows of each source, numbered as `--drive` takes them. With one source that everybody knows,
/// else each row says what other verbs take.
void PrintDriveRows(TEngine& engine, const TOptions& options) {
  const TLanguage& texts = options.Texts;
  const bool tellSource = options.Sources.size() != 1;
  TOutput output;
  if (!options.Json) {
    const std::string name = texts.Utf8(TText::HeadName);
    output.Write(fmt::format("{:>3}  {:6}  {:8}  {:>10}  {:>14}  {}\n", texts.Utf8(TText::HeadNumber),
                             texts.Utf8(TText::HeadType), texts.Utf8(TText::HeadSystem), texts.Utf8(TText::HeadSize),
                             texts.Utf8(TText::HeadFirstSector),
                             tellSource ? fmt::format("{:32}  {}", name, texts.Utf8(TText::InfoSource)) : name));
  }
  int number = 0;
  for (int i = 0; i < static_cast<int>(engine.Drives().List.size()); ++i) {
    const TDriveInfo& drive = Drive(engine, i);
    number = i > 0 && Drive(engine, i - 1).Drive == drive.Drive ? number + 1 : 1;
    if (options.Json) {
      output.Write(RowJson(drive, number));
      continue;
    }
    std::string name = RowName(texts, drive);
    if (tellSource) {
      name = fmt::format("{:32}  {}", name, Printable(PathFromText(drive.Drive)));
      if (number > 1) name += fmt::format(" --drive {}", number);
    }
    output.Write(fmt::format("{:>3}  {:6}  {:8}  {:>10}  {:>14}  {}\n", number, RowTypeText(texts, drive),
                             SystemName(drive), SizeText(SizeOf(drive)), drive.FirstSector, name));
  }
}

const char* StyleName(PARTITION_STYLE style) {
  switch (style) {
    case PARTITION_STYLE::PARTITION_STYLE_MBR:
      return "MBR";
    case PARTITION_STYLE::PARTITION_STYLE_GPT:
      return "GPT";
    case PARTITION_STYLE::PARTITION_STYLE_APM:
      return "Apple partition map";
    default:
      return "none";
  }
}

std::int64_t FreeBytes(const TDriveInfo& drive) { return std::max<std::int64_t>(drive.aFreeSize, 0); }

/// `style` is the partition table of a disk, empty for a volume.
std::string InfoLine(TEngine& engine, const TDriveInfo& drive, int number, const std::string& style,
                     const std::string& role) {
  TJsonLine line;
  line.Number("number", number).Text("type", RowType(drive)).Text("name", drive.Caption);
  line.Text("source", PathFromText(drive.Drive)).Number("size", SizeOf(drive));
  line.Number("sector_size", drive.BytesPerSector);
  line.Number("first_sector", drive.FirstSector).Number("sectors", drive.SectorsCount);
  if (!style.empty()) line.Text("partition_table", style);
  line.TextOrNull("partition_type", role);
  line.TextOrNull("partition_name", ToUtf8(drive.PartitionName));
  line.TextOrNull("file_system", SystemName(drive)).TextOrNull("geometry", GeometryCode(drive));
  if (drive.FileSystem != TFileSystem::fsUnknown) {
    line.TextOrNull("label", ToUtf8(drive.VolumeName)).Number("cluster_size", engine.Drivers().AllocationUnit(drive));
    line.Number("free", FreeBytes(drive));
    line.Number("used", std::max<std::int64_t>(SizeOf(drive) - FreeBytes(drive), 0));
    for (const TDriveProperty& property : engine.Drivers().Properties(drive)) line.Number(property.Key, property.Value);
  }
  return line.Take();
}

std::string InfoText(TEngine& engine, const TLanguage& texts, const TDriveInfo& drive, int number,
                     const std::string& style, const std::string& role) {
  const auto row = [&](TText name, const std::string& value) {
    return fmt::format("  {:16} {}\n", texts.Utf8(name), value);
  };
  std::string text = texts.Utf8(TText::InfoTitle,
                                {std::to_string(number), Printable(ToUtf8(drive.Caption)), RowTypeText(texts, drive)}) +
                     "\n";
  text += row(TText::InfoSource, Printable(PathFromText(drive.Drive)));
  text +=
      row(TText::InfoSize, texts.Utf8(TText::InfoSizeOf, {SizeText(SizeOf(drive)), std::to_string(drive.SectorsCount),
                                                          std::to_string(drive.BytesPerSector)}));
  if (!style.empty()) return text + row(TText::InfoTable, style == "none" ? texts.Utf8(TText::InfoNoTable) : style);
  text += row(TText::InfoFirstSector, std::to_string(drive.FirstSector));
  if (!role.empty()) text += row(TText::InfoPartition, role);
  if (!drive.PartitionName.empty()) text += row(TText::InfoPartitionName, Printable(ToUtf8(drive.PartitionName)));
  if (drive.FileSystem == TFileSystem::fsUnknown) {
    return text + row(TText::InfoFileSystem, texts.Utf8(TText::InfoUnknownSystem));
  }
  text += row(TText::InfoFileSystem, SystemName(drive));
  if (drive.GeometrySource == TPlaceSource::FromCopy) {
    text += row(TText::PropertyKnownBy, texts.Utf8(TText::KnownByCopies));
  }
  text += row(TText::InfoLabel, drive.VolumeName.empty() ? "-" : Printable(ToUtf8(drive.VolumeName)));
  text += row(TText::InfoClusterSize, SizeText(engine.Drivers().AllocationUnit(drive)));
  text += row(TText::InfoFree, SizeText(FreeBytes(drive)));
  for (const TDriveProperty& property : engine.Drivers().Properties(drive)) {
    text += row(property.Label, property.IsSize ? SizeText(property.Value) : std::to_string(property.Value));
  }
  return text;
}

}  // namespace

void AddDrivesOptions(CLI::App& verb, TOptions& options) {
  verb.add_option("SOURCE", options.Sources, options.Texts.Utf8(TText::HelpDrivesSource));
  verb.add_flag("--all", options.All, options.Texts.Utf8(TText::HelpAll));
  verb.add_flag("--json", options.Json, options.Texts.Utf8(TText::HelpJson));
}

int ListDrives(const TOptions& options) {
  TEngine engine;
  ApplyOptions(engine, options);
  if (options.Sources.empty()) {
    MountMachine(engine, options.All);
    if (engine.Drives().List.empty() && !options.Json) Complain(options.Texts.Utf8(TText::NoDisks));
  }
  int status = AllDone;
  for (const std::string& source : options.Sources) {
    const int number = MountSource(engine, options, source);
    if (number < 0) {
      status = WrongUsage;
    } else if (options.All) {
      AddSmallRows(engine, number);
    } else {
      ComplainOfSmallVolumes(engine, options, source, number);
    }
  }
  if (status != AllDone && engine.Drives().List.empty()) return status;
  PrintDriveRows(engine, options);
  return status;
}

void AddInfoOptions(CLI::App& verb, TOptions& options) { AddSourceOption(verb, options); }

int ShowInfo(const TOptions& options) {
  TEngine engine;
  ApplyOptions(engine, options);
  if (MountSource(engine, options, options.Source()) < 0) return WrongUsage;
  if (engine.Drives().IsWrongNumber(options.Drive - 1)) AddSmallRows(engine, 0);
  if (options.Drive != 0 && engine.Drives().IsWrongNumber(options.Drive - 1)) {
    Complain(NoSuchDrive(options));
    return WrongUsage;
  }
  TOutput output;
  for (int i = 0; i < static_cast<int>(engine.Drives().List.size()); ++i) {
    if (options.Drive != 0 && i != options.Drive - 1) continue;
    const bool isDisk = engine.Drives().IsPhysical(i);
    const std::string style = isDisk ? StyleName(engine.Drives().GetPhysicalPartitionStyle(i)) : "";
    const TDriveInfo& drive = Drive(engine, i);
    const std::string role = ToUtf8(engine.Drives().GetPartitionTypeCaption(drive));
    output.Write(options.Json ? InfoLine(engine, drive, i + 1, style, role)
                              : InfoText(engine, options.Texts, drive, i + 1, style, role));
  }
  return AllDone;
}

}  // namespace brenlow::cli
