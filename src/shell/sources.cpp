// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/sources.h"

#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "core/drives.h"
#include "core/language.h"
#include "core/text.h"

namespace brenlow {
namespace {

TText ProblemText(TImageProblem problem) {
  switch (problem) {
    case TImageProblem::Encrypted:
      return TText::ImageEncrypted;
    case TImageProblem::Damaged:
      return TText::ImageDamaged;
    case TImageProblem::ParentMissing:
      return TText::ImageParentMissing;
    case TImageProblem::ParentChanged:
      return TText::ImageParentChanged;
    default:
      return TText::SourceUnsupported;
  }
}

}  // namespace

TString SourceKey(const std::string& path) {
  std::error_code error;
  std::filesystem::path full = std::filesystem::canonical(path, error);
  if (error) full = std::filesystem::absolute(path, error);
  std::string text = full.string();
  while (text.size() < 4) text.insert(text.begin(), '/');
  return TextFromPath(text);
}

std::string MountComplaint(const TLanguage& texts, const std::string& source, const TMountFailure& failure) {
  if (failure.TooSmall) return texts.Utf8(TText::SourceTooSmall, {source});
  switch (failure.SystemError) {
    case EACCES:
    case EPERM:
      return texts.Utf8(::geteuid() == 0 ? TText::SourceDeniedToRoot : TText::SourceDenied, {source});
    case EISDIR:
      return texts.Utf8(TText::SourceIsFolder, {source});
    case ENOTBLK:
      return texts.Utf8(TText::SourceIsNeither, {source});
    case EOPNOTSUPP:
      return texts.Utf8(ProblemText(failure.Problem), {source, failure.Detail});
    case ENOMEDIUM:
      return texts.Utf8(TText::SourceNoMedium, {source});
    default:
      return texts.Utf8(TText::ErrorOf, {source, SystemErrorText(texts, failure.SystemError)});
  }
}

}  // namespace brenlow
