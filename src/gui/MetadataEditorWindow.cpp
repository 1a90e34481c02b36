#include "gui/MetadataEditorWindow.h"

#include <QApplication>
#include <QClipboard>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMimeData>
#include <QPushButton>
#include <QScrollArea>
#include <QVBoxLayout>

#include "gui/ArtworkWell.h"
#include "jobs/FileEncodeOperation.h"
#include "jobs/FileEncodeOperationDelegate.h"
#include "metadata/AudioMetadata.h"
#include "platform/TaggingThread.h"

namespace velvox {

namespace {

constexpr const char* kArtworkKey = "albumArtwork";

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

// Two pictures are the same when their bytes are.
bool sameArtwork(const std::shared_ptr<AlbumArtwork>& a, const std::shared_ptr<AlbumArtwork>& b) {
    if (!a || !b || !a->data() || !b->data())
        return (!a || !a->data()) && (!b || !b->data());
    return *a->data() == *b->data();
}

} // namespace

MetadataEditorWindow::MetadataEditorWindow(std::vector<std::shared_ptr<FileEncodeOperation>> jobs,
                                           QWidget* parent)
    : QDialog(parent), jobs_(std::move(jobs)) {
    setObjectName("MetadataEditorWindow");
    setWindowTitle(jobs_.size() == 1 ? tr("Tags") : tr("Tags of %1 Files").arg(jobs_.size()));
    auto* layout = new QVBoxLayout(this);
    auto* columns = new QHBoxLayout;
    columns->addWidget(makeArtworkColumn(), 0, Qt::AlignTop);
    columns->addWidget(makeFieldForm(), 1);
    layout->addLayout(columns);

    std::vector<std::shared_ptr<AudioMetadata>> records;
    for (const auto& job : jobs_)
        records.push_back(job->metadata());
    populate(records);

    error_ = new QLabel(this);
    error_->setWordWrap(true);
    error_->hide();
    layout->addWidget(error_);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Save | QDialogButtonBox::Cancel, this);
    connect(buttons->addButton(tr("Clear All"), QDialogButtonBox::ResetRole), &QPushButton::clicked,
            this, &MetadataEditorWindow::clearAllFields);
    connect(buttons->addButton(tr("Copy"), QDialogButtonBox::ActionRole), &QPushButton::clicked,
            this, &MetadataEditorWindow::copyFields);
    connect(buttons->addButton(tr("Paste"), QDialogButtonBox::ActionRole), &QPushButton::clicked,
            this, [this] {
                if (!pasteFields())
                    QApplication::beep();
            });
    connect(buttons->addButton(tr("Revert"), QDialogButtonBox::ActionRole), &QPushButton::clicked,
            this, &MetadataEditorWindow::revertFields);
    connect(buttons, &QDialogButtonBox::accepted, this, [this] {
        if (!applyEdits())
            return;
        accept();
        emit saveRequested();
    });
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    layout->addWidget(buttons);
    resize(680, 600);
}

QWidget* MetadataEditorWindow::makeArtworkColumn() {
    auto* column = new QWidget(this);
    auto* layout = new QVBoxLayout(column);
    artworkWell_ = new ArtworkWell(column);
    connect(artworkWell_, &ArtworkWell::fileDropped, this,
            [this](const QString& path) { setArtworkFromFile(path); });
    layout->addWidget(artworkWell_);
    auto* row = new QHBoxLayout;
    auto add = [&](const QString& title, auto slot) {
        auto* button = new QPushButton(title, column);
        connect(button, &QPushButton::clicked, this, slot);
        row->addWidget(button);
    };
    add(tr("Choose…"), [this] { chooseArtwork(); });
    add(tr("Save…"), [this] { exportArtwork(); });
    add(tr("Clear"), [this] { clearArtwork(); });
    layout->addLayout(row);
    return column;
}

QWidget* MetadataEditorWindow::makeFieldForm() {
    auto* scroll = new QScrollArea(this);
    auto* fields = new QWidget(scroll);
    auto* form = new QFormLayout(fields);
    for (const std::string& name : AudioMetadata::editableFieldNames()) {
        auto* edit = new QLineEdit(fields);
        edit->setObjectName(QString::fromStdString(name));
        edit->setClearButtonEnabled(true);
        connect(edit, &QLineEdit::textEdited, this, [this, name] { edited_.insert(name); });
        form->addRow(label(name), edit);
        editors_[name] = edit;
    }
    scroll->setWidget(fields);
    scroll->setWidgetResizable(true);
    return scroll;
}

void MetadataEditorWindow::populate(const std::vector<std::shared_ptr<AudioMetadata>>& records) {
    std::vector<nlohmann::json> archives;
    for (const auto& record : records)
        archives.push_back(record ? record->toJSON() : nlohmann::json::object());
    mixed_.clear();
    for (const auto& [name, edit] : editors_) {
        const QString first = archives.empty() ? QString() : fieldText(archives[0], name);
        bool same = true;
        for (const auto& archive : archives)
            same = same && fieldText(archive, name) == first;
        if (same) {
            setFieldText(name, first);
        } else {
            mixed_.insert(name);
            edit->clear();
            edit->setPlaceholderText(tr("Mixed"));
        }
    }
    auto artworkOf = [](const std::shared_ptr<AudioMetadata>& record) {
        return record ? record->albumArtwork() : nullptr;
    };
    artworkMixed_ = false;
    for (const auto& record : records)
        artworkMixed_ = artworkMixed_ || !sameArtwork(artworkOf(record), artworkOf(records[0]));
    artwork_ = records.empty() || artworkMixed_ ? nullptr : artworkOf(records[0]);
    artworkWell_->showArtwork(artwork_, artworkMixed_);
}

void MetadataEditorWindow::setFieldText(const std::string& name, const QString& text) {
    QLineEdit* edit = editors_.at(name);
    edit->setText(text);
    edit->setPlaceholderText(QString());
}

QLineEdit* MetadataEditorWindow::fieldEditor(const std::string& name) const {
    const auto found = editors_.find(name);
    return found == editors_.end() ? nullptr : found->second;
}

// ---- Artwork ----

void MetadataEditorWindow::setArtwork(std::shared_ptr<AlbumArtwork> artwork) {
    artwork_ = std::move(artwork);
    artworkMixed_ = false;
    artworkEdited_ = true;
    artworkWell_->showArtwork(artwork_, false);
}

bool MetadataEditorWindow::setArtworkFromFile(const QString& path) {
    std::shared_ptr<AlbumArtwork> artwork = AlbumArtwork::albumArtworkFromFile(path.toStdString());
    if (!artwork || !artwork->data() || artwork->data()->empty()) {
        showError(tr("\"%1\" is not a picture that can be read").arg(path));
        return false;
    }
    setArtwork(std::move(artwork));
    return true;
}

bool MetadataEditorWindow::saveArtworkTo(const QString& path) {
    if (!artwork_ || !artwork_->writeToFile(path.toStdString())) {
        showError(tr("The artwork could not be saved to \"%1\"").arg(path));
        return false;
    }
    return true;
}

void MetadataEditorWindow::clearArtwork() { setArtwork(nullptr); }

void MetadataEditorWindow::chooseArtwork() {
    const QString path = QFileDialog::getOpenFileName(
        this, tr("Choose Artwork"), QString(),
        tr("Pictures (*.jpg *.jpeg *.png *.gif *.bmp *.tif *.tiff);;All Files (*)"));
    if (!path.isEmpty())
        setArtworkFromFile(path);
}

void MetadataEditorWindow::exportArtwork() {
    if (!artwork_)
        return QApplication::beep();
    const std::string mime = artwork_->mimeType().value_or("image/jpeg");
    const QString suffix = mime == "image/png"    ? "png"
                           : mime == "image/gif"  ? "gif"
                           : mime == "image/tiff" ? "tiff"
                           : mime == "image/bmp"  ? "bmp"
                                                  : "jpg";
    const QString path =
        QFileDialog::getSaveFileName(this, tr("Save Artwork"), tr("Artwork.%1").arg(suffix));
    if (!path.isEmpty())
        saveArtworkTo(path);
}

void MetadataEditorWindow::showError(const QString& text) {
    error_->setText(text);
    error_->show();
}

// ---- Commands ----

void MetadataEditorWindow::clearAllFields() {
    for (auto& [name, edit] : editors_) {
        setFieldText(name, QString());
        edited_.insert(name);
    }
    mixed_.clear();
    clearArtwork();
}

void MetadataEditorWindow::copyFields() const {
    // Mixed fields are named rather than copied: pasting leaves them as each
    // file has them, as this editor does.
    AudioMetadata copied;
    nlohmann::json mixed = nlohmann::json::array();
    for (const auto& [name, edit] : editors_) {
        if (mixed_.count(name))
            mixed.push_back(name);
        else if (const QString text = edit->text().trimmed(); !text.isEmpty())
            copied.setFieldFromText(name, text.toStdString());
    }
    if (artworkMixed_)
        mixed.push_back(kArtworkKey);
    else
        copied.setAlbumArtwork(artwork_);
    const nlohmann::json clip = {{"metadata", copied.toJSON()}, {"mixed", mixed}};
    auto* data = new QMimeData;
    const QByteArray bytes = QByteArray::fromStdString(clip.dump());
    data->setData(kMetadataMimeType, bytes);
    data->setText(QString::fromUtf8(bytes));
    QApplication::clipboard()->setMimeData(data);
}

bool MetadataEditorWindow::pasteFields() {
    const QMimeData* data = QApplication::clipboard()->mimeData();
    if (!data)
        return false;
    const QByteArray bytes =
        data->hasFormat(kMetadataMimeType) ? data->data(kMetadataMimeType) : data->text().toUtf8();
    const nlohmann::json clip = nlohmann::json::parse(bytes.toStdString(), nullptr, false);
    if (!clip.is_object() || !clip.contains("metadata") || !clip.contains("mixed") ||
        !clip["mixed"].is_array())
        return false;
    const std::unique_ptr<AudioMetadata> copied = AudioMetadata::fromJSON(clip["metadata"]);
    if (!copied)
        return false;
    std::set<std::string> mixed;
    for (const auto& name : clip["mixed"])
        if (name.is_string())
            mixed.insert(name.get<std::string>());
    const nlohmann::json archive = copied->toJSON();
    for (const auto& [name, edit] : editors_) {
        if (mixed.count(name))
            continue;
        setFieldText(name, fieldText(archive, name));
        mixed_.erase(name);
        edited_.insert(name);
    }
    if (!mixed.count(kArtworkKey))
        setArtwork(copied->albumArtwork());
    return true;
}

void MetadataEditorWindow::revertFields() {
    reverted_.clear();
    for (const auto& job : jobs_) {
        std::shared_ptr<AudioMetadata> record;
        auto read = [&] { record = AudioMetadata::metadataFromFile(job->inFilePath()); };
        // Tags are read on the one tagging thread, as everywhere.
        if (job->delegate())
            job->delegate()->taggingThread().performAndWait(read);
        else
            read();
        reverted_.push_back(std::move(record));
    }
    edited_.clear();
    artworkEdited_ = false;
    error_->hide();
    populate(reverted_);
}

bool MetadataEditorWindow::applyEdits() {
    // Every value is checked before any record changes, so a refused value
    // leaves all files as they were.
    AudioMetadata scratch;
    for (const std::string& name : edited_) {
        const std::string text = editors_[name]->text().trimmed().toStdString();
        if (!text.empty() && !scratch.setFieldFromText(name, text)) {
            showError(tr("\"%1\" does not fit the field %2")
                          .arg(QString::fromStdString(text), label(name).chopped(1)));
            return false;
        }
    }
    for (size_t i = 0; i < jobs_.size(); ++i) {
        if (i < reverted_.size() && reverted_[i])
            jobs_[i]->setMetadata(reverted_[i]);
        const auto metadata = jobs_[i]->metadata();
        if (!metadata)
            continue;
        for (const std::string& name : edited_) {
            const std::string text = editors_[name]->text().trimmed().toStdString();
            if (text.empty())
                metadata->clearField(name);
            else
                metadata->setFieldFromText(name, text);
        }
        if (artworkEdited_)
            metadata->setAlbumArtwork(artwork_);
    }
    return true;
}

} // namespace velvox
