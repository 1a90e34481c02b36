#include "gui/MetadataEditorWindow.h"

#include <QDialogButtonBox>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QScrollArea>
#include <QVBoxLayout>

#include "jobs/FileEncodeOperation.h"
#include "metadata/AudioMetadata.h"

namespace velvox {

namespace {

// A field of the archived record as the user reads it; empty when absent.
QString fieldText(const nlohmann::json& archive, const std::string& name) {
    const auto found = archive.find(name);
    if (found == archive.end() || found->is_null())
        return QString();
    if (found->is_string())
        return QString::fromStdString(found->get<std::string>());
    if (found->is_boolean())
        return found->get<bool>() ? "yes" : "no";
    return QString::fromStdString(found->dump());
}

QString label(const std::string& name) {
    // "trackArtist" reads "Track Artist".
    QString text;
    for (char c : name) {
        if (std::isupper(static_cast<unsigned char>(c)) && !text.isEmpty() &&
            !text.back().isUpper())
            text += ' ';
        text += text.isEmpty() ? QChar(c).toUpper() : QChar(c);
    }
    return text + ":";
}

} // namespace

MetadataEditorWindow::MetadataEditorWindow(std::vector<std::shared_ptr<FileEncodeOperation>> jobs,
                                           QWidget* parent)
    : QDialog(parent), jobs_(std::move(jobs)) {
    setObjectName("MetadataEditorWindow");
    setWindowTitle(jobs_.size() == 1 ? tr("Tags") : tr("Tags of %1 Files").arg(jobs_.size()));
    auto* layout = new QVBoxLayout(this);
    auto* scroll = new QScrollArea(this);
    auto* fields = new QWidget(scroll);
    auto* form = new QFormLayout(fields);

    std::vector<nlohmann::json> archives;
    for (const auto& job : jobs_) {
        const auto metadata = job->metadata();
        archives.push_back(metadata ? metadata->toJSON() : nlohmann::json::object());
    }
    for (const std::string& name : AudioMetadata::editableFieldNames()) {
        auto* edit = new QLineEdit(fields);
        edit->setObjectName(QString::fromStdString(name));
        edit->setClearButtonEnabled(true);
        const QString first = archives.empty() ? QString() : fieldText(archives[0], name);
        bool same = true;
        for (const auto& archive : archives)
            same = same && fieldText(archive, name) == first;
        if (same) {
            edit->setText(first);
        } else {
            mixed_.insert(name);
            edit->setPlaceholderText(tr("Mixed"));
        }
        connect(edit, &QLineEdit::textEdited, this, [this, name] { edited_.insert(name); });
        form->addRow(label(name), edit);
        editors_[name] = edit;
    }
    scroll->setWidget(fields);
    scroll->setWidgetResizable(true);
    layout->addWidget(scroll);

    error_ = new QLabel(this);
    error_->setWordWrap(true);
    error_->hide();
    layout->addWidget(error_);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Save | QDialogButtonBox::Cancel, this);
    QPushButton* clear = buttons->addButton(tr("Clear All"), QDialogButtonBox::ResetRole);
    connect(clear, &QPushButton::clicked, this, &MetadataEditorWindow::clearAllFields);
    connect(buttons, &QDialogButtonBox::accepted, this, [this] {
        if (!applyEdits())
            return;
        accept();
        emit saveRequested();
    });
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    layout->addWidget(buttons);
    resize(460, 600);
}

QLineEdit* MetadataEditorWindow::fieldEditor(const std::string& name) const {
    const auto found = editors_.find(name);
    return found == editors_.end() ? nullptr : found->second;
}

void MetadataEditorWindow::clearAllFields() {
    for (auto& [name, edit] : editors_) {
        edit->clear();
        edit->setPlaceholderText(QString());
        edited_.insert(name);
    }
}

bool MetadataEditorWindow::applyEdits() {
    // Every value is checked before any record changes, so a refused value
    // leaves all files as they were.
    AudioMetadata scratch;
    for (const std::string& name : edited_) {
        const std::string text = editors_[name]->text().trimmed().toStdString();
        if (!text.empty() && !scratch.setFieldFromText(name, text)) {
            error_->setText(tr("\"%1\" does not fit the field %2")
                                .arg(QString::fromStdString(text), label(name).chopped(1)));
            error_->show();
            return false;
        }
    }
    for (const auto& job : jobs_) {
        const auto metadata = job->metadata();
        if (!metadata)
            continue;
        for (const std::string& name : edited_) {
            const std::string text = editors_[name]->text().trimmed().toStdString();
            if (text.empty())
                metadata->clearField(name);
            else
                metadata->setFieldFromText(name, text);
        }
    }
    return true;
}

} // namespace velvox
