#include "gui/EncoderSettingsEditor.h"

#include <algorithm>
#include <stdexcept>

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QSlider>
#include <QSpinBox>
#include <QVBoxLayout>

#include "jobs/EncoderDescriptor.h"
#include "jobs/EncoderSettings.h"

namespace velvox {

namespace {

// Keys the window shows elsewhere: the check box of the list row and the
// "Update Tags Only" command.
bool editedElsewhere(const std::string& key) { return key == "enabled" || key == "encoderAction"; }

// The words a fixed-set key offers, one per stored value, in schema order.
std::vector<std::string> wordsFor(const SettingSpec& spec) {
    std::vector<std::string> candidates;
    switch (spec.kind) {
    case SettingKind::ChannelMode:
        candidates = {"same", "stereo", "joint", "mono"};
        break;
    case SettingKind::ChannelCount:
        candidates = {"same", "mono", "stereo"};
        break;
    case SettingKind::BitDepth:
        candidates.push_back("same");
        break;
    default:
        break;
    }
    for (const SettingChoice& choice : spec.choices)
        candidates.push_back(*choice.word ? choice.word : std::to_string(choice.value));
    std::vector<std::string> words;
    std::vector<nlohmann::json> seen;
    for (const std::string& word : candidates) {
        const auto stored = spec.parse(word);
        if (!stored || std::find(seen.begin(), seen.end(), *stored) != seen.end())
            continue;
        seen.push_back(*stored);
        words.push_back(word);
    }
    return words;
}

bool offersFixedSet(const SettingSpec& spec) {
    switch (spec.kind) {
    case SettingKind::Choice:
    case SettingKind::BitDepth:
    case SettingKind::ChannelMode:
    case SettingKind::ChannelCount:
        return true;
    case SettingKind::FourCharCode:
        return !spec.choices.empty();
    default:
        return false;
    }
}

QString label(const SettingSpec& spec) {
    QString text = QString::fromUtf8(spec.name);
    if (!text.isEmpty())
        text[0] = text[0].toUpper();
    return text + ":";
}

} // namespace

EncoderSettingsEditor::EncoderSettingsEditor(const EncoderDescriptor& descriptor,
                                             nlohmann::json dictionary, QWidget* parent)
    : QDialog(parent), descriptor_(descriptor), original_(std::move(dictionary)) {
    setWindowTitle(tr("%1 Settings").arg(QString::fromUtf8(descriptor.formatName).toUpper()));
    setObjectName("EncoderSettingsEditor");
    auto* layout = new QVBoxLayout(this);
    auto* form = new QFormLayout;
    layout->addLayout(form);
    std::set<std::string> keys;
    for (const SettingSpec& spec : descriptor.settings) {
        // Several words may set one key ("mode" and "channels"); the first
        // one gets the control.
        if (editedElsewhere(spec.key) || !keys.insert(spec.key).second)
            continue;
        const nlohmann::json stored =
            original_.contains(spec.key) ? original_[spec.key] : spec.defaultValue;
        QWidget* control = makeControl(spec, stored);
        control->setObjectName(QString("setting_") + spec.name);
        control->setToolTip(QString::fromStdString(spec.expected));
        form->addRow(label(spec), control);
        rows_.push_back({&spec, control});
    }
    errorLabel_ = new QLabel(this);
    errorLabel_->setObjectName("settingsError");
    errorLabel_->setStyleSheet("color: palette(highlight)");
    errorLabel_->setWordWrap(true);
    errorLabel_->hide();
    layout->addWidget(errorLabel_);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    connect(buttons, &QDialogButtonBox::accepted, this, &EncoderSettingsEditor::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &EncoderSettingsEditor::reject);
    layout->addWidget(buttons);
}

EncoderSettingsEditor::~EncoderSettingsEditor() = default;

QWidget* EncoderSettingsEditor::makeControl(const SettingSpec& spec, const nlohmann::json& stored) {
    const std::string typed = stored.is_null() ? std::string() : spec.format(stored);
    if (offersFixedSet(spec)) {
        auto* combo = new QComboBox(this);
        for (const std::string& word : wordsFor(spec)) {
            combo->addItem(QString::fromStdString(word), QString::fromStdString(word));
            if (spec.parse(word) == stored)
                combo->setCurrentIndex(combo->count() - 1);
        }
        return combo;
    }
    switch (spec.kind) {
    case SettingKind::Boolean: {
        auto* box = new QCheckBox(this);
        box->setChecked(stored.is_boolean() ? stored.get<bool>()
                                            : stored.is_number() && stored.get<int64_t>() != 0);
        return box;
    }
    case SettingKind::Integer: {
        // A slider for dragging and a spin box for the exact number, kept in step.
        auto* holder = new QWidget(this);
        auto* row = new QHBoxLayout(holder);
        row->setContentsMargins(0, 0, 0, 0);
        auto* slider = new QSlider(Qt::Horizontal, holder);
        auto* spin = new QSpinBox(holder);
        spin->setObjectName("value");
        slider->setRange(int(spec.minimum), int(spec.maximum));
        spin->setRange(int(spec.minimum), int(spec.maximum));
        const int value = typed.empty() ? int(spec.minimum) : std::atoi(typed.c_str());
        slider->setValue(value);
        spin->setValue(value);
        connect(slider, &QSlider::valueChanged, spin, &QSpinBox::setValue);
        connect(spin, qOverload<int>(&QSpinBox::valueChanged), slider, &QSlider::setValue);
        row->addWidget(slider, 1);
        row->addWidget(spin);
        return holder;
    }
    case SettingKind::SampleRate: {
        auto* combo = new QComboBox(this);
        combo->setEditable(true);
        for (const char* rate : {"same", "8000", "11025", "16000", "22050", "32000", "44100",
                                 "48000", "88200", "96000", "176400", "192000"})
            if (spec.parse(rate))
                combo->addItem(rate);
        combo->setCurrentText(QString::fromStdString(typed.empty() ? "same" : typed));
        return combo;
    }
    default: {
        auto* edit = new QLineEdit(QString::fromStdString(typed), this);
        edit->setPlaceholderText(QString::fromStdString(spec.expected));
        return edit;
    }
    }
}

QString EncoderSettingsEditor::typedText(const Row& row) const {
    if (auto* combo = qobject_cast<QComboBox*>(row.control))
        return combo->isEditable() ? combo->currentText() : combo->currentData().toString();
    if (auto* box = qobject_cast<QCheckBox*>(row.control))
        return box->isChecked() ? "true" : "false";
    if (auto* edit = qobject_cast<QLineEdit*>(row.control))
        return edit->text().trimmed();
    if (auto* spin = row.control->findChild<QSpinBox*>("value"))
        return QString::number(spin->value());
    return {};
}

QWidget* EncoderSettingsEditor::controlFor(const std::string& word) const {
    for (const Row& row : rows_)
        if (word == row.spec->name)
            return row.control;
    return nullptr;
}

std::unique_ptr<EncoderSettings> EncoderSettingsEditor::build(QString& error) const {
    nlohmann::json dictionary = original_;
    // What the format already held (a preset's container and codec, a saved
    // format's values) counts as given; only what follows from them (the
    // extension, LPCM's byte order) is worked out again.
    std::set<std::string> given;
    for (const auto& [key, value] : original_.items())
        if (!value.is_null() && key != "extension" && key != "formatFlags")
            given.insert(key);
    for (const Row& row : rows_) {
        const QString text = typedText(row);
        const auto stored = row.spec->parse(text.toStdString());
        if (!stored) {
            error = tr("%1 takes %2, not \"%3\".")
                        .arg(QString::fromUtf8(row.spec->name),
                             QString::fromUtf8(row.spec->expected), text);
            return nullptr;
        }
        if (!original_.contains(row.spec->key) || original_[row.spec->key] != *stored)
            given.insert(row.spec->key);
        dictionary[row.spec->key] = *stored;
    }
    auto settings = EncoderSettings::settingsWithDictionary(dictionary);
    if (descriptor_.complete) {
        try {
            descriptor_.complete(*settings, given);
        } catch (const std::invalid_argument& e) {
            error = QString::fromStdString(e.what());
            return nullptr;
        }
    }
    return settings;
}

void EncoderSettingsEditor::accept() {
    QString error;
    auto settings = build(error);
    if (!settings) {
        errorLabel_->setText(error);
        errorLabel_->show();
        return;
    }
    result_ = std::move(settings);
    QDialog::accept();
}

std::unique_ptr<EncoderSettings> EncoderSettingsEditor::result() const {
    return result_ ? result_->copy() : nullptr;
}

} // namespace velvox
