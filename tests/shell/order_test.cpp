// SPDX-License-Identifier: GPL-3.0-or-later
#include <doctest/doctest.h>

#include <algorithm>
#include <random>

#include "shell/file_order.h"
#include "shell/file_search.h"
#include "shell/natural_order.h"
#include "support/images.h"
#include "table/files.h"

using namespace brenlow;
using namespace brenlow::test;

TEST_CASE("natural order of names") {
  // Each comes before the next.
  const TStringView ordered[] = {u"",       u"!",       u"1",          u"2",    u"10",   u"100000000000000000000",
                                 u"a",      u"A1",      u"a2",         u"A10b", u"a10c", u"img_0009.jpg",
                                 u"IMG_10", u"img_10a", u"img_11.jpg", u"imga", u"z",    u"\u00E4",
                                 u"\u4E2D", u"\uFFFF"};
  for (std::size_t i = 0; i < std::size(ordered); ++i) {
    for (std::size_t j = 0; j < std::size(ordered); ++j) {
      const int order = CompareNatural(ordered[i], ordered[j]);
      CHECK_MESSAGE((order < 0) == (i < j), i, " and ", j);
      CHECK((order == 0) == (i == j));
      // Keys agree with the comparison, behind any beginning that both share.
      const std::size_t common = CommonNaturalBytes(ordered[i], ordered[j], 64);
      if (i < j) CHECK(NaturalKey(ordered[i], common) <= NaturalKey(ordered[j], common));
    }
  }
  CHECK(CompareNatural(u"img_007", u"IMG_7") == 0);
  CHECK(CommonNaturalBytes(u"IMG_2023", u"img_2024", 64) == 4 + 2 + 3);
  CHECK(CommonNaturalBytes(u"same", u"SAME", 3) == 3);
}

namespace {

/// A table with rows of one drive.
struct TTable {
  TEngine Engine;
  int Drive = Mount(Engine, LoadTestImage("demo-stick.img.zst")).Number;

  int Add(TStringView name, std::int64_t size, TDateTime modified, bool folder = false, bool hidden = false) {
    TFileInfo info;
    TFiles::ClearInfo(info, Drive);
    info.strName = name;
    info.aSize = size;
    info.TimeStamp.dtModified = modified;
    info.blnFolder = folder;
    info.Atributes.blnHidden = hidden;
    info.FirstCluster = 1000 + static_cast<std::int64_t>(Engine.Files().List.size());
    return Engine.Files().Add(info, SpecialCluster::Root, true);
  }
};

}  // namespace

TEST_CASE("rows in every order, against a plain comparison") {
  TTable t;
  std::mt19937 random(7);
  TIntegerDynArray numbers;
  for (int i = 0; i < 3000; ++i) {
    const TString name = (i % 3 == 0 ? u"DSC_" : u"DSC_A") + NumberText(static_cast<std::int64_t>(random() % 500)) +
                         (i % 5 == 0 ? u".jpg" : u".txt");
    numbers.push_back(
        t.Add(name, static_cast<std::int64_t>(random() % 50), static_cast<double>(random() % 40), i % 7 == 0));
  }
  const auto info = [&](int n) -> const TFileInfo& {
    return t.Engine.Files().List[static_cast<std::size_t>(n)].FileInfo;
  };
  const auto value = [&](TSortKey key, int n) -> double {
    if (key == TSortKey::Size) return static_cast<double>(info(n).aSize);
    return key == TSortKey::Modified ? info(n).TimeStamp.dtModified : 0;
  };
  for (const TSortKey key : {TSortKey::Name, TSortKey::Size, TSortKey::Modified, TSortKey::Type, TSortKey::Status}) {
    for (const bool descending : {false, true}) {
      TIntegerDynArray sorted = numbers;
      std::shuffle(sorted.begin(), sorted.end(), random);
      SortFiles(t.Engine, sorted, {key, descending});
      CHECK(std::is_permutation(sorted.begin(), sorted.end(), numbers.begin()));
      for (std::size_t i = 1; i < sorted.size(); ++i) {
        int a = sorted[i - 1];
        int b = sorted[i];
        if (info(a).blnFolder != info(b).blnFolder) {
          CHECK(bool{info(a).blnFolder});
          continue;
        }
        if (descending) std::swap(a, b);
        if (key == TSortKey::Type && !info(a).blnFolder) {
          const TString left = t.Engine.Files().GetType(info(a).strName);
          const TString right = t.Engine.Files().GetType(info(b).strName);
          CHECK(left <= right);
          if (left != right) continue;
        }
        REQUIRE(value(key, a) <= value(key, b));
        if (value(key, a) == value(key, b)) REQUIRE(CompareNatural(info(a).strName, info(b).strName) <= 0);
      }
    }
  }
  TIntegerDynArray none;
  SortFiles(t.Engine, none, {});
  CHECK(none.empty());
}

TEST_CASE("finding files by name, size and date") {
  TTable t;
  const TDateTime may = EncodeDate(2021, 5, 3);
  const int report = t.Add(u"Annual Report.docx", 5000, may);
  const int reporter = t.Add(u"reporter.txt", 100, may + 30);
  const int photo = t.Add(u"IMG_1.JPG", 2'000'000, may);
  const int folder = t.Add(u"Reports", 0, may, true);
  const int hidden = t.Add(u".report", 10, 0, false, true);
  const auto find = [&](auto... changes) {
    TFindOptions options;
    (changes(options), ...);
    return FindFiles(t.Engine, options);
  };
  const auto text = [](TStringView wanted) { return [=](TFindOptions& o) { o.Text = wanted; }; };
  CHECK(find(text(u"REPORT")) == TIntegerDynArray{report, reporter, folder, hidden});
  CHECK(find(text(u"REPORT"), [](TFindOptions& o) { o.CaseSensitive = true; }).empty());
  CHECK(find(text(u"report"), [](TFindOptions& o) { o.WholeWords = true; }) == TIntegerDynArray{report, hidden});
  CHECK(find(text(u"report"), [](TFindOptions& o) { o.HiddenFiles = false; }) ==
        TIntegerDynArray{report, reporter, folder});
  CHECK(find(text(u"*.jp?")) == TIntegerDynArray{photo});
  CHECK(find(text(u"?*report*x")) == TIntegerDynArray{report});
  CHECK(find(text(u"report*")) == TIntegerDynArray{reporter, folder});
  CHECK(find([](TFindOptions& o) { o.MinSize = 5000; }) == TIntegerDynArray{report, photo});
  CHECK(find([](TFindOptions& o) { o.MaxSize = 100; }) == TIntegerDynArray{reporter, hidden});
  CHECK(find([&](TFindOptions& o) { o.From = may + 1; }) == TIntegerDynArray{reporter});
  CHECK(find([&](TFindOptions& o) { o.To = may; }) ==
        TIntegerDynArray{report, photo, folder});  // unknown times fit none
  CHECK(find(text(u"report"), [&](TFindOptions& o) { o.Drive = t.Drive + 1; }).empty());
  // The worst pattern for a matcher that tries everything.
  const TString longName(200, u'a');
  t.Add(longName, 1, may);
  CHECK(find(text(u"*a*a*a*a*a*a*a*a*a*a*a*a*a*a*b")).empty());
}
