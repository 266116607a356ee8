// SPDX-License-Identifier: GPL-3.0-or-later
#include "shell/desktop/properties_form.h"

#include <QCheckBox>
#include <QFormLayout>
#include <QHeaderView>
#include <QLabel>
#include <QTabWidget>
#include <QTreeWidget>
#include <QVBoxLayout>

#include "core/language.h"
#include "shell/desktop/icons.h"
#include "shell/desktop/preview_panel.h"
#include "shell/desktop/ui_text.h"

namespace brenlow::desktop {
namespace {

QWidget* MakeSheet(const TLanguage& texts, const std::vector<TProperty>& lines, QWidget* parent) {
  auto* page = new QWidget(parent);
  auto* layout = new QFormLayout(page);
  FillProperties(*layout, texts, lines);
  return page;
}

}  // namespace

TfProperties::TfProperties(const TProperties& properties, const TLanguage& texts, TSettings& settings, QWidget* parent)
    : TForm("TfProperties", TText::MenuProperties, texts, parent) {
  const QString name = ToQt(properties.Row.Name);
  setWindowTitle(Caption(TText::PropertiesTitle, {name}));
  setWindowIcon(IconOf(properties.Row));
  auto* tabs = new QTabWidget(this);
  std::vector<TProperty> general = properties.General;
  if (!properties.Path.empty()) general.insert(general.begin(), {TText::ColumnLocation, properties.Path});
  tabs->addTab(MakeSheet(texts, general, tabs), Caption(TText::PropertyGeneral));
  if (!properties.Details.empty()) {
    tabs->addTab(MakeSheet(texts, properties.Details, tabs), Caption(TText::PropertyDetails));
  }
  if (!properties.Streams.empty()) {
    auto* page = new QWidget(tabs);
    auto* layout = new QVBoxLayout(page);
    auto* list = new QTreeWidget(page);
    list->setObjectName(QStringLiteral("lvStreams"));
    list->setRootIsDecorated(false);
    list->setHeaderLabels(
        {Caption(TText::MenuSortByName), Caption(TText::MenuSortByType), Caption(TText::MenuSortBySize)});
    auto* system = new QCheckBox(Caption(TText::PropertySystemAttributes), page);
    for (const TProperties::TStream& stream : properties.Streams) {
      auto* item = new QTreeWidgetItem(list, {ToQt(stream.Name), ToQt(stream.Type), SizeOrNothing(stream.Size)});
      item->setData(0, Qt::UserRole, stream.IsSystem);
    }
    const auto filter = [list, &settings](bool shown) {
      settings.Properties.SystemAttributes = shown;
      for (int i = 0; i < list->topLevelItemCount(); ++i) {
        QTreeWidgetItem* item = list->topLevelItem(i);
        item->setHidden(!shown && item->data(0, Qt::UserRole).toBool());
      }
    };
    connect(system, &QCheckBox::toggled, this, filter);
    system->setChecked(settings.Properties.SystemAttributes);
    filter(system->isChecked());
    list->header()->resizeSection(0, 200);
    layout->addWidget(list);
    layout->addWidget(system);
    tabs->addTab(page, Caption(TText::PropertyStreams));
  }
  Body()->addWidget(tabs);
  AddButtons(QDialogButtonBox::Close);
  resize(420, 380);
}

}  // namespace brenlow::desktop
