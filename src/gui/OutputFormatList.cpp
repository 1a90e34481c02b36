#include "gui/OutputFormatList.h"

#include <QFont>
#include <QHBoxLayout>
#include <QListWidget>
#include <QMenu>
#include <QPushButton>
#include <QToolButton>
#include <QVBoxLayout>

#include "gui/EncoderSettingsEditor.h"
#include "jobs/ApplicationController.h"
#include "jobs/EncoderDescriptor.h"
#include "jobs/EncoderSettings.h"
#include "platform/UserDefaults.h"

namespace velvox {

namespace {
constexpr const char* kDefaultFormatKey = "defaultEncoderSetting";
}

OutputFormatList::OutputFormatList(ApplicationController& controller, QWidget* parent)
    : QWidget(parent), controller_(&controller) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    list_ = new QListWidget(this);
    list_->setObjectName("outputFormats");
    layout->addWidget(list_);
    auto* buttons = new QHBoxLayout;
    layout->addLayout(buttons);

    addButton_ = new QToolButton(this);
    addButton_->setText(tr("Add Format"));
    addButton_->setPopupMode(QToolButton::InstantPopup);
    auto* menu = new QMenu(addButton_);
    // One entry per encoder and per preset, in registry order.
    for (const EncoderDescriptor* descriptor : EncoderDescriptor::all()) {
        menu->addAction(QString::fromUtf8(descriptor->formatName),
                        [this, descriptor] { addFormat(*descriptor); });
        for (size_t i = 0; i < descriptor->presets.size(); ++i)
            menu->addAction(
                QString("%1 (%2)").arg(descriptor->presets[i].name, descriptor->presets[i].summary),
                [this, descriptor, i] { addFormat(*descriptor, int(i)); });
    }
    addButton_->setMenu(menu);
    buttons->addWidget(addButton_);

    editButton_ = new QPushButton(tr("Edit…"), this);
    duplicateButton_ = new QPushButton(tr("Duplicate"), this);
    removeButton_ = new QPushButton(tr("Remove"), this);
    defaultButton_ = new QPushButton(tr("Use as Default"), this);
    defaultButton_->setToolTip(tr("New formats start from the selected one"));
    for (QPushButton* button : {editButton_, duplicateButton_, removeButton_, defaultButton_})
        buttons->addWidget(button);
    buttons->addStretch(1);
    connect(editButton_, &QPushButton::clicked, this, [this] { editSelected(); });
    connect(duplicateButton_, &QPushButton::clicked, this, [this] { duplicateSelected(); });
    connect(removeButton_, &QPushButton::clicked, this, &OutputFormatList::removeSelected);
    connect(defaultButton_, &QPushButton::clicked, this, &OutputFormatList::useSelectedAsDefault);
    connect(list_, &QListWidget::itemChanged, this, &OutputFormatList::itemChanged);
    connect(list_, &QListWidget::itemDoubleClicked, this, [this] { editSelected(); });
    reload();
}

void OutputFormatList::reload() {
    reloading_ = true;
    const int selected = selectedRow();
    list_->clear();
    const auto stored = UserDefaults::standardUserDefaults().objectForKey(kDefaultFormatKey);
    const int64_t defaultRow =
        stored && stored->is_number_integer() ? stored->get<int64_t>() : int64_t(-1);
    for (const auto& settings : controller_->encoderSettings()) {
        auto* item = new QListWidgetItem(QString::fromStdString(settings->completeDescription()));
        if (list_->count() == defaultRow) {
            QFont font = item->font();
            font.setBold(true);
            item->setFont(font);
            item->setToolTip(tr("The default for new formats"));
        }
        item->setFlags(item->flags() | Qt::ItemIsUserCheckable);
        item->setCheckState(settings->enabled() ? Qt::Checked : Qt::Unchecked);
        if (!EncoderDescriptor::forType(settings->encoderType()))
            item->setToolTip(tr("This build has no encoder for this format"));
        list_->addItem(item);
    }
    if (list_->count() > 0)
        list_->setCurrentRow(std::clamp(selected, 0, list_->count() - 1));
    reloading_ = false;
}

void OutputFormatList::setEditable(bool editable) {
    for (QWidget* widget : std::initializer_list<QWidget*>{
             addButton_, editButton_, duplicateButton_, removeButton_, defaultButton_, list_})
        widget->setEnabled(editable);
}

int OutputFormatList::selectedRow() const { return list_ ? list_->currentRow() : -1; }

void OutputFormatList::save(std::vector<std::shared_ptr<EncoderSettings>> list) {
    controller_->setEncoderSettings(list);
    ApplicationController::saveEncoderSettings(list);
    reload();
}

void OutputFormatList::itemChanged(QListWidgetItem* item) {
    if (reloading_)
        return;
    auto list = controller_->encoderSettings();
    const int row = list_->row(item);
    if (row < 0 || size_t(row) >= list.size())
        return;
    list[size_t(row)]->setEnabled(item->checkState() == Qt::Checked);
    save(list);
}

bool OutputFormatList::store(std::unique_ptr<EncoderSettings> settings, int row) {
    auto list = controller_->encoderSettings();
    for (size_t i = 0; i < list.size(); ++i) {
        if (int(i) != row && settings->isDuplicateOf(*list[i])) {
            emit refused(tr("\"%1\" would write the same files as a format already in the list.")
                             .arg(QString::fromStdString(settings->completeDescription())));
            return false;
        }
    }
    std::shared_ptr<EncoderSettings> shared(std::move(settings));
    if (row >= 0 && size_t(row) < list.size())
        list[size_t(row)] = shared;
    else
        list.push_back(shared);
    save(list);
    list_->setCurrentRow(row >= 0 ? row : list_->count() - 1);
    return true;
}

EncoderSettingsEditor* OutputFormatList::openEditor(const EncoderDescriptor& descriptor,
                                                    const nlohmann::json& dictionary, int row) {
    auto* editor = new EncoderSettingsEditor(descriptor, dictionary, window());
    editor->setAttribute(Qt::WA_DeleteOnClose);
    editor->setWindowModality(Qt::WindowModal);
    connect(editor, &QDialog::accepted, this, [this, editor, row] {
        if (auto settings = editor->result())
            store(std::move(settings), row);
    });
    editor->open();
    return editor;
}

EncoderSettingsEditor* OutputFormatList::addFormat(const EncoderDescriptor& descriptor,
                                                   int presetIndex) {
    const FormatPreset* preset = presetIndex >= 0 && size_t(presetIndex) < descriptor.presets.size()
                                     ? &descriptor.presets[size_t(presetIndex)]
                                     : nullptr;
    nlohmann::json dictionary = descriptor.defaultDictionary(preset);
    // The default format (an index into the list, as the command line keeps
    // it), when it is of this encoder, gives the starting values.
    const auto list = controller_->encoderSettings();
    const auto stored = UserDefaults::standardUserDefaults().objectForKey(kDefaultFormatKey);
    if (!preset && stored && stored->is_number_integer()) {
        const int64_t index = stored->get<int64_t>();
        if (index >= 0 && size_t(index) < list.size() &&
            list[size_t(index)]->encoderType() == descriptor.encoderType)
            dictionary = list[size_t(index)]->settingsDictionary();
    }
    dictionary["enabled"] = true;
    return openEditor(descriptor, dictionary, -1);
}

EncoderSettingsEditor* OutputFormatList::editSelected() { return openSelected(false); }

// The copy only joins the list once it differs from every format in it.
EncoderSettingsEditor* OutputFormatList::duplicateSelected() { return openSelected(true); }

EncoderSettingsEditor* OutputFormatList::openSelected(bool asNewRow) {
    const auto list = controller_->encoderSettings();
    const int row = selectedRow();
    if (row < 0 || size_t(row) >= list.size())
        return nullptr;
    const EncoderDescriptor* descriptor =
        EncoderDescriptor::forType(list[size_t(row)]->encoderType());
    if (!descriptor) {
        if (!asNewRow)
            emit refused(tr("This build has no encoder for this format."));
        return nullptr;
    }
    return openEditor(*descriptor, list[size_t(row)]->settingsDictionary(), asNewRow ? -1 : row);
}

void OutputFormatList::removeSelected() {
    auto list = controller_->encoderSettings();
    const int row = selectedRow();
    if (row < 0 || size_t(row) >= list.size())
        return;
    list.erase(list.begin() + row);
    // The default is kept by position: it follows its format up the list.
    UserDefaults& defaults = UserDefaults::standardUserDefaults();
    const auto stored = defaults.objectForKey(kDefaultFormatKey);
    if (stored && stored->is_number_integer() && stored->get<int64_t>() >= row)
        defaults.setObject(kDefaultFormatKey, std::max<int64_t>(0, stored->get<int64_t>() - 1));
    save(list);
}

void OutputFormatList::useSelectedAsDefault() {
    const auto list = controller_->encoderSettings();
    const int row = selectedRow();
    if (row < 0 || size_t(row) >= list.size())
        return;
    UserDefaults::standardUserDefaults().setObject(kDefaultFormatKey, row);
    reload();
}

} // namespace velvox
