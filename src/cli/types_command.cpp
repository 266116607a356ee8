// SPDX-License-Identifier: GPL-3.0-or-later
// The verb `types`.
#include <fmt/format.h>

#include "cli/commands.h"
#include "cli/console.h"
#include "cli/json_line.h"
#include "cli/verb_options.h"
#include "core/language.h"
#include "core/text.h"
#include "table/signatures.h"

namespace brenlow::cli {

void AddTypesOptions(CLI::App& verb, TOptions& options) {
  verb.add_flag("--json", options.Json, options.Texts.Utf8(TText::HelpJson));
}

int ListTypes(const TOptions& options) {
  const TFileSignatures signatures;
  TOutput output;
  int group = -1;
  for (const TMasterFileType& type : signatures.DeepFileTypes()) {
    const int groupText = signatures.DeepFileTypeGroups()[static_cast<std::size_t>(type.Group)];
    const TString extension = LowerCase(type.Ext);
    if (options.Json) {
      const TString& caption = TLanguage::English().At("MasterFileTypes", groupText);
      TJsonLine line;
      output.Write(line.Text("ext", extension).Text("caption", type.Caption).Text("group", caption).Take());
      continue;
    }
    if (type.Group != group) {
      output.Write((group < 0 ? "" : "\n") + ToUtf8(options.Texts.At("MasterFileTypes", groupText)) + "\n");
    }
    group = type.Group;
    output.Write(fmt::format("  {:6}{}\n", ToUtf8(extension), ToUtf8(type.Caption)));
  }
  return AllDone;
}

}  // namespace brenlow::cli
