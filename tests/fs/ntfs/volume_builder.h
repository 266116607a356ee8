// SPDX-License-Identifier: GPL-3.0-or-later
// Builds small NTFS volumes record by record, independently of the driver, for cases that no tool
// writes: 512-byte sectors, clusters of 4 KiB, records of 1 KiB, the table from cluster 4 on.
#pragma once

#include <doctest/doctest.h>

#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "analysis/analysis.h"
#include "analysis/file_data.h"
#include "analysis/tree_walk.h"
#include "support/images.h"
#include "table/files.h"

namespace brenlow::test {

/// The number and the sequence number of a record.
struct TNtfsReference {
  std::int64_t Number = 0;
  int Sequence = 1;
};
inline constexpr TNtfsReference NtfsRoot{5, 5};

struct TNtfsRun {
  std::int64_t Lcn = -1;  // -1 for a hole
  std::int64_t Count = 0;
};

/// A piece of a non-resident attribute.
struct TNtfsPiece {
  std::vector<TNtfsRun> Runs;
  std::int64_t Size = 0;      // bytes of the whole stream
  std::int64_t FirstVcn = 0;  // of this piece
  int UnitPower = 0;          // above 0: compressed, in units of so many clusters
};

/// One entry of an attribute list.
struct TNtfsListed {
  std::uint32_t Type = 0x80;
  TNtfsReference Record;
  std::int64_t FirstVcn = 0;
};

class TNtfsRecord {
 public:
  explicit TNtfsRecord(TNtfsReference own, bool folder = false, bool inUse = true) : Bytes(1024) {
    std::memcpy(Bytes.data(), "FILE", 4);
    Put(4, 2, 0x30);
    Put(6, 2, 0);
    Put(0x10, 2, static_cast<std::uint64_t>(own.Sequence));
    Put(0x14, 2, 0x38);
    Put(0x16, 2, (inUse ? 1U : 0U) | (folder ? 2U : 0U));
    Put(0x2C, 4, static_cast<std::uint64_t>(own.Number));
    End();
  }
  TNtfsRecord& Base(TNtfsReference base) {
    PutReference(0x20, base);
    return *this;
  }
  TNtfsRecord& Name(TNtfsReference parent, const std::u16string& name, std::int64_t size = 0, int space = 1) {
    return Resident(0x30, NameValue(parent, name, size, false, space));
  }
  TNtfsRecord& Resident(std::uint32_t type, const TImage& value) {
    const std::size_t at = Begin(type, 0x18 + value.size());
    Put(at + 0x10, 4, value.size());
    Put(at + 0x14, 2, 0x18);
    std::copy(value.begin(), value.end(), Bytes.begin() + static_cast<std::ptrdiff_t>(at + 0x18));
    return *this;
  }
  TNtfsRecord& Data(const std::string& content) { return Resident(0x80, TImage(content.begin(), content.end())); }
  TNtfsRecord& Data(const TNtfsPiece& piece) { return NonResident(0x80, piece); }
  TNtfsRecord& NonResident(std::uint32_t type, const TNtfsPiece& piece) {
    TImage runs;
    std::int64_t clusters = 0;
    std::int64_t lcn = 0;
    for (const TNtfsRun& run : piece.Runs) {
      clusters += run.Count;
      runs.push_back(run.Lcn < 0 ? 0x04 : 0x44);
      PutNumber(runs, run.Count);
      if (run.Lcn >= 0) PutNumber(runs, run.Lcn - lcn);
      if (run.Lcn >= 0) lcn = run.Lcn;
    }
    runs.push_back(0);
    const std::size_t at = Begin(type, 0x48 + runs.size());
    Bytes[at + 8] = 1;
    Put(at + 0x0C, 2, piece.UnitPower > 0 ? 1 : 0);
    Put(at + 0x10, 8, static_cast<std::uint64_t>(piece.FirstVcn));
    Put(at + 0x18, 8, static_cast<std::uint64_t>(piece.FirstVcn + clusters - 1));
    Put(at + 0x20, 2, 0x48);
    Put(at + 0x22, 2, static_cast<std::uint64_t>(piece.UnitPower));
    if (piece.FirstVcn == 0) {
      Put(at + 0x28, 8, static_cast<std::uint64_t>(clusters * 4096));
      Put(at + 0x30, 8, static_cast<std::uint64_t>(piece.Size));
      Put(at + 0x38, 8, static_cast<std::uint64_t>(piece.Size));
    }
    std::copy(runs.begin(), runs.end(), Bytes.begin() + static_cast<std::ptrdiff_t>(at + 0x48));
    return *this;
  }
  TNtfsRecord& List(const std::vector<TNtfsListed>& entries) {
    TImage list(entries.size() * 0x20);
    for (std::size_t i = 0; i < entries.size(); ++i) {
      PutInto(list, i * 0x20, 4, entries[i].Type);
      PutInto(list, i * 0x20 + 4, 2, 0x20);
      list[i * 0x20 + 7] = 0x1A;
      PutInto(list, i * 0x20 + 8, 8, static_cast<std::uint64_t>(entries[i].FirstVcn));
      PutReferenceInto(list, i * 0x20 + 0x10, entries[i].Record);
    }
    return Resident(0x20, list);
  }
  /// An entry of an index of names, in what of the record lies behind its attributes.
  TNtfsRecord& Leftover(const TImage& entry) {
    std::copy(entry.begin(), entry.end(), Bytes.begin() + static_cast<std::ptrdiff_t>(FEnd + 0x40));
    return *this;
  }
  /// An entry for a folder in an index of names.
  static TImage IndexEntry(TNtfsReference child, TNtfsReference parent, const std::u16string& name) {
    const TImage key = NameValue(parent, name, 0, true, 1);
    TImage entry((0x10 + key.size() + 7) / 8 * 8);
    PutReferenceInto(entry, 0, child);
    PutInto(entry, 8, 2, entry.size());
    PutInto(entry, 0x0A, 2, key.size());
    std::copy(key.begin(), key.end(), entry.begin() + 0x10);
    return entry;
  }

  static void PutInto(TImage& image, std::size_t at, std::size_t size, std::uint64_t value) {
    for (std::size_t i = 0; i < size; ++i) image[at + i] = static_cast<std::uint8_t>(value >> (8 * i));
  }
  static void PutReferenceInto(TImage& image, std::size_t at, TNtfsReference reference) {
    PutInto(image, at, 6, static_cast<std::uint64_t>(reference.Number));
    PutInto(image, at + 6, 2, static_cast<std::uint64_t>(reference.Sequence));
  }

  TImage Bytes;

 private:
  void Put(std::size_t at, std::size_t size, std::uint64_t value) { PutInto(Bytes, at, size, value); }
  void PutReference(std::size_t at, TNtfsReference reference) { PutReferenceInto(Bytes, at, reference); }
  static void PutNumber(TImage& runs, std::int64_t value) {
    for (int i = 0; i < 4; ++i) runs.push_back(static_cast<std::uint8_t>(static_cast<std::uint64_t>(value) >> (8 * i)));
  }
  static TImage NameValue(TNtfsReference parent, const std::u16string& name, std::int64_t size, bool isFolder,
                          int space) {
    TImage value(0x42 + 2 * name.size());
    PutReferenceInto(value, 0, parent);
    PutInto(value, 0x30, 8, static_cast<std::uint64_t>(size));
    PutInto(value, 0x38, 4, isFolder ? 0x10000000U : 0U);
    value[0x40] = static_cast<std::uint8_t>(name.size());
    value[0x41] = static_cast<std::uint8_t>(space);
    for (std::size_t i = 0; i < name.size(); ++i) PutInto(value, 0x42 + 2 * i, 2, name[i]);
    return value;
  }
  std::size_t Begin(std::uint32_t type, std::size_t length) {
    const std::size_t at = FEnd;
    length = (length + 7) / 8 * 8;
    Put(at, 4, type);
    Put(at + 4, 4, length);
    FEnd += length;
    End();
    return at;
  }
  void End() {
    Put(FEnd, 4, 0xFFFFFFFF);
    Put(0x18, 4, FEnd + 8);
  }

  std::size_t FEnd = 0x38;
};

class TNtfsVolume {
 public:
  static constexpr std::int64_t TableCluster = 4;

  /// `bitmap`, when given, holds the table's bitmap; else it lies in the table's record.
  explicit TNtfsVolume(int records = 128, std::int64_t clusters = 2560, std::int64_t bitmap = 0)
      : Image(static_cast<std::size_t>(clusters) * 4096 + 512) {
    PutBoot(0, clusters * 8);
    PutBoot(static_cast<std::size_t>(clusters) * 4096, clusters * 8);
    const TImage usage(static_cast<std::size_t>(records) / 8, 0xFF);
    TNtfsRecord table({0, 1});
    table.Name(NtfsRoot, u"$MFT").Data(TNtfsPiece{{{TableCluster, records / 4}}, std::int64_t{records} * 1024});
    if (bitmap > 0) {
      table.NonResident(0xB0, TNtfsPiece{{{bitmap, 1}}, static_cast<std::int64_t>(usage.size())});
      Fill(bitmap, usage);
    } else {
      table.Resident(0xB0, usage);
    }
    Record(0, table);
    Record(5, TNtfsRecord({5, 5}, true).Name(NtfsRoot, u"."));
  }

  /// Writes a record into the table.
  TNtfsVolume& Record(std::int64_t number, const TNtfsRecord& record) {
    std::copy(record.Bytes.begin(), record.Bytes.end(), Image.begin() + (TableCluster * 4096 + number * 1024));
    return *this;
  }
  /// A folder or a file with a name, of the sequence number given.
  TNtfsVolume& Folder(TNtfsReference own, TNtfsReference parent, const std::u16string& name, bool inUse = true) {
    return Record(own.Number, TNtfsRecord(own, true, inUse).Name(parent, name));
  }
  TNtfsVolume& File(TNtfsReference own, TNtfsReference parent, const std::u16string& name, const std::string& content,
                    bool inUse = true) {
    return Record(own.Number, TNtfsRecord(own, false, inUse).Name(parent, name).Data(content));
  }
  TNtfsVolume& Fill(std::int64_t cluster, const TImage& bytes) {
    std::copy(bytes.begin(), bytes.end(), Image.begin() + cluster * 4096);
    return *this;
  }

  TImage Image;

 private:
  void PutBoot(std::size_t at, std::int64_t sectors) {
    std::memcpy(&Image[at + 3], "NTFS    ", 8);
    TNtfsRecord::PutInto(Image, at + 0x0B, 2, 512);
    Image[at + 0x0D] = 8;
    TNtfsRecord::PutInto(Image, at + 0x28, 8, static_cast<std::uint64_t>(sectors));
    TNtfsRecord::PutInto(Image, at + 0x30, 8, TableCluster);
    Image[at + 0x40] = 0xF6;
    Image[at + 0x1FE] = 0x55;
    Image[at + 0x1FF] = 0xAA;
  }
};

/// A volume as an analysis, or a thorough search, shows it.
struct TAnalysedNtfs {
  TEngine Engine;
  int Number;
  TMemoryDevice* Device = nullptr;

  explicit TAnalysedNtfs(const TNtfsVolume& volume, const std::set<std::int64_t>& badSectors = {},
                         bool thorough = false) {
    const TMounted mounted = Mount(Engine, volume.Image);
    Number = mounted.Number;
    Device = mounted.Device;
    Device->BadSectors = badSectors;
    Engine.PartRecRunning = thorough;
    Engine.PartRecSystems = {TPartRecSystem::NTFS};
    AnalyseDrive(Engine, Number);
  }
  /// Paths of all that the tree shows, a line each; deleted entries end in " deleted".
  std::string Paths() {
    struct TVisitor final : ITreeVisitor {
      std::string Text;
      bool Add(const TTreeEntry& entry) {
        Text += ToUtf8(entry.Path) + (entry.Deleted() ? " deleted\n" : "\n");
        return true;
      }
      bool File(const TTreeEntry& entry) override { return Add(entry); }
      bool EnterFolder(const TTreeEntry& entry) override { return Add(entry); }
      void LeaveFolder(const TTreeEntry&) override {}
    } visitor;
    WalkTree(Engine, Number, visitor);
    return visitor.Text;
  }
  bool Has(const std::string& path) { return ("\n" + Paths()).find("\n" + path + "\n") != std::string::npos; }
  TFile& File(TStringView name) {
    TFileArray& list = Engine.Files().List;
    for (std::size_t i = 0; i < list.size(); ++i) {
      if (list[i].FileInfo.strName == name) return list[i];
    }
    FAIL("no such file: ", ToUtf8(name));
    return list[0];
  }
  struct TContent {
    TByteDynArray Bytes;
    bool Whole;  // no failed read was noted, and it is as long as listed
  };
  TContent Read(TStringView name, std::int64_t start = 0, std::int64_t size = 1 << 24) {
    TFile& file = File(name);
    const std::uint64_t failed = Engine.Reader().FailedReads();
    TContent content;
    GetFileData(Engine, content.Bytes, file, -1, start, size);
    const std::int64_t listed = std::min(size, file.FileInfo.aSize - start);
    content.Whole =
        Engine.Reader().FailedReads() == failed && static_cast<std::int64_t>(content.Bytes.size()) == listed;
    return content;
  }
};

inline std::string Text(const TByteDynArray& bytes) { return {bytes.begin(), bytes.end()}; }

}  // namespace brenlow::test
