// SPDX-License-Identifier: GPL-3.0-or-later
// A recovery from a small volume into a folder that goes away, with answers from a script.
#pragma once

#include <doctest/doctest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "analysis/analysis.h"
#include "recovery/master_link.h"
#include "recovery/questions.h"
#include "recovery/save_progress.h"
#include "support/fat_builder.h"
#include "support/images.h"
#include "table/files.h"

namespace brenlow::test {

inline std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {(std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>()};
}

/// Files named by the caller, two clusters each, in the root of a FAT16 volume.
inline TFatBuilder VolumeOf(const std::vector<std::u16string>& names) {
  TFatBuilder fat(TFatShape{});
  std::size_t at = fat.RootAt();
  std::uint32_t cluster = 10;
  for (const std::u16string& name : names) {
    at += fat.PutLongEntry(at, name, {"FILE" + std::to_string(cluster) + "  TXT", 0x20, cluster, 600});
    fat.Chain({cluster, cluster + 1});
    fat.Fill(cluster, std::string(600, static_cast<char>('a' + cluster % 26)));
    cluster += 2;
  }
  return fat;
}

/// Answers from a list; the last one stays. Remembers what it was asked.
struct TScript final : IRecoveryQuestions {
  std::vector<TFileExistsAnswer> Exists{{TRenameResult::rrRenameAll, {}}};
  std::vector<TRenameAnswer> Names{{}};
  TCandidateAnswer Candidates;
  bool GoOn = true;
  std::vector<std::string> Asked;

  template <typename TAnswer>
  static TAnswer Next(std::vector<TAnswer>& answers) {
    TAnswer answer = answers.front();
    if (answers.size() > 1) answers.erase(answers.begin());
    return answer;
  }
  TRenameAnswer Rename(const TRenameQuestion& question) override {
    Asked.push_back(ToUtf8(question.OldName));
    return Next(Names);
  }
  TFileExistsAnswer FileExists(const TFileExistsQuestion& question) override {
    Asked.push_back(ToUtf8(question.Name) + "|" + ToUtf8(question.Proposal));
    return Next(Exists);
  }
  TCandidateAnswer ChooseFirstCluster(const TFile&) override { return Candidates; }
  bool SaveToSameDrive() override {
    Asked.push_back("same drive");
    return GoOn;
  }
  bool MuchLargerThanSource(std::int64_t listed, std::int64_t source) override {
    Asked.push_back(std::to_string(listed) + " of " + std::to_string(source));
    return GoOn;
  }
  bool CancelRecovery() override { return GoOn; }
};

/// The file table, but for what a test puts in place of it.
class TTestLink final : public TFileTableLink {
 public:
  using TFileTableLink::TFileTableLink;
  std::function<void(TSelectedFiles&)> Selected;
  std::function<TString(int)> Name;
  std::function<TADSDynArray(int)> Streams;
  std::function<void(TByteDynArray&, int file, int stream, std::int64_t start, std::int64_t size)> Data;

  void GetSelectedFiles(TSelectedFiles& files, const TFileFilter&) const override {
    if (Selected) Selected(files);
  }
  TStringView GetFileName(int fileNumber) const override {
    if (!Name) return TFileTableLink::GetFileName(fileNumber);
    FName = Name(fileNumber);
    return FName;
  }
  TADSDynArray GetStreams(int fileNumber) const override {
    return Streams ? Streams(fileNumber) : TFileTableLink::GetStreams(fileNumber);
  }
  void GetFileData(TByteDynArray& result, int file, int stream, std::int64_t start, std::int64_t size) const override {
    if (Data) return Data(result, file, stream, start, size);
    TFileTableLink::GetFileData(result, file, stream, start, size);
  }

 private:
  mutable TString FName;
};

struct TFixture {
  TEngine Engine;
  TTemporaryFolder Target;
  TMounted Source;
  TScript Script;
  TTestLink Link{Engine};
  TRecoveryOptions Options;
  std::unique_ptr<TfrmSaveProgress> Recovery;
  std::function<void(const TFileOutcome&, bool)> OnFile;

  explicit TFixture(const TFatBuilder& fat) : Source(Mount(Engine, fat.Image)) {
    AnalyseDrive(Engine, Source.Number);
    Options.Path = Target.Path();
    Options.CanReplaceSymbols = true;
    Link.Selected = [this](TSelectedFiles& files) {
      for (const std::int64_t n : Engine.Drives().GetParentClusters(Source.Number, SpecialCluster::Root)) {
        files.push_back({static_cast<int>(n), false});
      }
    };
  }
  const TRecoverySummary& Run(bool isMasterResults = false) {
    Recovery = std::make_unique<TfrmSaveProgress>(Engine, Link, Options, &Script);
    Recovery->OnFile = OnFile;
    REQUIRE(Recovery->PrepareInfo() == 0);
    Recovery->PrepareRecovery(isMasterResults);
    Engine.Recovering = true;
    Recovery->Recovery(isMasterResults);
    Recovery->CloseInfo();
    return Recovery->Summary();
  }
  std::string Content(const std::string& name) const { return ReadFile(Target.Path() + "/" + name); }
  bool Has(const std::string& name) const { return std::filesystem::exists(Target.Path() + "/" + name); }
  void Put(const std::string& name, const std::string& text) const {
    std::ofstream(Target.Path() + "/" + name) << text;
  }
  int NumberOf(TStringView name) const {
    const TFileArray& list = const_cast<TEngine&>(Engine).Files().List;
    for (std::size_t i = 0; i < list.size(); ++i) {
      if (list[i].FileInfo.strName == name) return static_cast<int>(i);
    }
    FAIL("no such file: ", ToUtf8(name));
    return -1;
  }
};

}  // namespace brenlow::test
