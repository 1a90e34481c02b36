#include "gui/PreferencesWindow.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QSpinBox>
#include <QTabWidget>
#include <QThread>
#include <QVBoxLayout>

#include "jobs/EncoderSettings.h"
#include "jobs/FormatSpecifiers.h"
#include "metadata/AudioMetadata.h"
#include "platform/UserDefaults.h"

namespace velvox {

namespace {
UserDefaults& store() { return UserDefaults::standardUserDefaults(); }
} // namespace

PreferencesWindow::PreferencesWindow(PreviewProvider preview, QWidget* parent)
    : QDialog(parent), preview_(std::move(preview)) {
    setObjectName("PreferencesWindow");
    setWindowTitle(tr("Preferences"));
    auto* layout = new QVBoxLayout(this);
    tabs_ = new QTabWidget(this);
    tabs_->addTab(outputPage(), tr("Output"));
    tabs_->addTab(filesPage(), tr("Files"));
    tabs_->addTab(tagsPage(), tr("Tags"));
    tabs_->addTab(processingPage(), tr("Processing"));
    tabs_->addTab(libraryPage(), tr("Music Library"));
    layout->addWidget(tabs_);
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::hide);
    layout->addWidget(buttons);
    reload();
}

void PreferencesWindow::write(const std::string& key, const nlohmann::json& value) {
    if (reading_)
        return;
    store().setObject(key, value);
    updatePreview();
}

QWidget* PreferencesWindow::controlFor(const std::string& key) const {
    for (const auto& [name, widget] : controls_)
        if (name == key)
            return widget;
    return nullptr;
}

QCheckBox* PreferencesWindow::check(const std::string& key, const QString& title) {
    auto* box = new QCheckBox(title, this);
    readers_.push_back([box, key] { box->setChecked(store().boolForKey(key)); });
    connect(box, &QCheckBox::toggled, this, [this, key](bool on) { write(key, on); });
    controls_.emplace_back(key, box);
    return box;
}

QLineEdit* PreferencesWindow::text(const std::string& key) {
    auto* edit = new QLineEdit(this);
    readers_.push_back([edit, key] {
        edit->setText(QString::fromStdString(store().stringForKey(key).value_or("")));
    });
    connect(edit, &QLineEdit::textEdited, this,
            [this, key](const QString& value) { write(key, value.toStdString()); });
    controls_.emplace_back(key, edit);
    return edit;
}

QSpinBox* PreferencesWindow::number(const std::string& key, int minimum, int maximum,
                                    bool storedAsText) {
    auto* spin = new QSpinBox(this);
    spin->setRange(minimum, maximum);
    readers_.push_back([spin, key] { spin->setValue(int(store().integerForKey(key))); });
    // Some counts are kept as decimal text ("numProcesses"), as the command
    // line and older preference files write them.
    connect(spin, qOverload<int>(&QSpinBox::valueChanged), this, [this, key, storedAsText](int v) {
        write(key, storedAsText ? nlohmann::json(std::to_string(v)) : nlohmann::json(v));
    });
    controls_.emplace_back(key, spin);
    return spin;
}

QComboBox* PreferencesWindow::choice(const std::string& key,
                                     const std::vector<std::pair<QString, nlohmann::json>>& items) {
    auto* combo = new QComboBox(this);
    for (const auto& [title, value] : items)
        combo->addItem(title);
    readers_.push_back([combo, key, items] {
        const auto stored = store().objectForKey(key);
        for (size_t i = 0; i < items.size(); ++i)
            if (stored && *stored == items[i].second)
                combo->setCurrentIndex(int(i));
    });
    connect(combo, qOverload<int>(&QComboBox::currentIndexChanged), this,
            [this, key, items](int index) {
                if (index >= 0 && size_t(index) < items.size())
                    write(key, items[size_t(index)].second);
            });
    controls_.emplace_back(key, combo);
    return combo;
}

void PreferencesWindow::reload() {
    reading_ = true;
    for (const auto& read : readers_)
        read();
    reading_ = false;
    updatePreview();
}

QWidget* PreferencesWindow::outputPage() {
    auto* page = new QWidget(this);
    auto* form = new QFormLayout(page);
    QCheckBox* same = check("outputSameAsSource", tr("Write each file beside its source"));
    form->addRow(tr("Output folder:"), same);
    auto* folderRow = new QHBoxLayout;
    QLineEdit* folder = text("destinationDirectory");
    auto* choose = new QPushButton(tr("Choose…"), page);
    folderRow->addWidget(folder, 1);
    folderRow->addWidget(choose);
    form->addRow(QString(), folderRow);
    connect(choose, &QPushButton::clicked, this, [this, folder] {
        const QString chosen =
            QFileDialog::getExistingDirectory(this, tr("Output Folder"), folder->text());
        if (chosen.isEmpty())
            return;
        folder->setText(chosen);
        write("destinationDirectory", chosen.toStdString());
    });
    connect(same, &QCheckBox::toggled, folder, &QWidget::setDisabled);
    connect(same, &QCheckBox::toggled, choose, &QWidget::setDisabled);
    form->addRow(QString(), check("preserveInputFileDirectoryStructure",
                                  tr("Keep the folder structure of added folders")));
    QCheckBox* custom = check("useCustomNamingScheme", tr("Name files by this template:"));
    form->addRow(tr("Naming:"), custom);
    QLineEdit* scheme = text("customNamingScheme");
    scheme->setPlaceholderText("{albumArtist}/{albumTitle}/{trackNumber} {trackTitle}");
    connect(custom, &QCheckBox::toggled, scheme, &QWidget::setEnabled);
    form->addRow(QString(), scheme);
    previewLabel_ = new QLabel(page);
    previewLabel_->setObjectName("namingPreview");
    previewLabel_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    previewLabel_->setWordWrap(true);
    form->addRow(tr("Example:"), previewLabel_);
    form->addRow(QString(), check("useTwoDigitNumbers", tr("Two-digit track and disc numbers")));
    form->addRow(tr("Safe names:"),
                 check("createWindowsSafeFilenames", tr("Safe for Windows file systems")));
    form->addRow(QString(), check("createSMBSafeFilenames", tr("Safe for network shares (SMB)")));
    QLineEdit* replacement = text("replaceInvalidCharactersWith");
    replacement->setMaxLength(4);
    form->addRow(tr("Replace invalid characters with:"), replacement);
    return page;
}

QWidget* PreferencesWindow::filesPage() {
    auto* page = new QWidget(this);
    auto* form = new QFormLayout(page);
    QCheckBox* overwrite = check("overwriteOutputFiles", tr("Replace existing output files"));
    QCheckBox* prompt = check("promptBeforeOverwriting", tr("Ask before replacing"));
    connect(overwrite, &QCheckBox::toggled, prompt, &QWidget::setEnabled);
    form->addRow(tr("Existing files:"), overwrite);
    form->addRow(QString(), prompt);
    form->addRow(tr("Sources:"),
                 check("deleteOriginal", tr("Move the original to the trash after converting")));
    form->addRow(QString(),
                 check("skipFilesOfSameType", tr("Skip formats of the source's own type")));
    form->addRow(QString(), check("allowIncompleteInput",
                                  tr("Keep what decodes of a damaged or cut-short source")));
    form->addRow(QString(), check("renameAfterUpdatingMetadata",
                                  tr("Rename files by the template after updating tags")));
    form->addRow(tr("Queue:"),
                 check("keepFilesInQueueAfterEncoding", tr("Keep converted files in the queue")));
    form->addRow(QString(), check("keepFilesInQueueAfterWritingMetadata",
                                  tr("Keep files in the queue after updating tags")));
    form->addRow(tr("When done:"),
                 check("openOutputDirectoryWhenFinished", tr("Open the output folder")));
    form->addRow(QString(), check("showLogOnError", tr("Show the error log when a file fails")));
    return page;
}

QWidget* PreferencesWindow::tagsPage() {
    auto* page = new QWidget(this);
    auto* form = new QFormLayout(page);
    form->addRow(tr("Tags:"), check("writeMetadata", tr("Write tags to converted files")));
    form->addRow(QString(), check("writeEncodedByMetadataTag", tr("Write the encoder's name")));
    form->addRow(QString(),
                 check("writeFormatStringToComments", tr("Write this text to the comment:")));
    form->addRow(QString(), text("commentsFormatString"));
    form->addRow(tr("MP3 tags:"), check("writeMP3ID3v2Tag", tr("ID3v2")));
    form->addRow(QString(), check("writeMP3ID3v1Tag", tr("ID3v1")));
    form->addRow(QString(), check("writeMP3ApeTag", tr("APE")));
    form->addRow(tr("ID3v2 version:"), choice("WriteMP3ID3v2TagVersion", {{"2.3", 3}, {"2.4", 4}}));
    form->addRow(tr("Artwork:"), check("readAlbumArtworkFromFile",
                                       tr("Read artwork from an image beside the source:")));
    form->addRow(QString(), text("readAlbumArtworkFileName"));
    form->addRow(QString(),
                 check("saveAlbumArtworkToFile", tr("Save artwork beside the output as:")));
    form->addRow(QString(), text("albumArtworkFileName"));
    form->addRow(tr("Titles:"), check("fallbackOnFilenameWhenTitleIsMissing",
                                      tr("Use the file name when a file has no title")));
    form->addRow(tr("WAVE:"), check("preserveBroadcastWavData", tr("Keep broadcast WAVE data")));
    return page;
}

QWidget* PreferencesWindow::processingPage() {
    auto* page = new QWidget(this);
    auto* form = new QFormLayout(page);
    QSpinBox* files = number("numProcesses", 1, 64, true);
    files->setToolTip(tr("This computer has %1 processors").arg(QThread::idealThreadCount()));
    form->addRow(tr("Files converted at once:"), files);
    QSpinBox* gain = number("dsd_gain", -12, 12, false);
    gain->setSuffix(" dB");
    form->addRow(tr("DSD gain:"), gain);
    return page;
}

QWidget* PreferencesWindow::libraryPage() {
    auto* page = new QWidget(this);
    auto* form = new QFormLayout(page);
    form->addRow(tr("Music library:"),
                 check("addToiTunesLibrary", tr("Add converted files to the music library (MPD)")));
    QCheckBox* playlist = check("addToiTunesPlaylist", tr("Add them to the playlist:"));
    form->addRow(QString(), playlist);
    form->addRow(QString(), text("iTunesPlaylistName"));
    auto* note = new QLabel(tr("Without a running MPD, files go to an M3U8 playlist of that name "
                               "in the music folder's Playlists folder."),
                            page);
    note->setWordWrap(true);
    form->addRow(QString(), note);
    return page;
}

QString PreferencesWindow::namingPreview() const {
    return previewLabel_ ? previewLabel_->text() : QString();
}

void PreferencesWindow::updatePreview() {
    if (!previewLabel_)
        return;
    const PreviewSource source = preview_ ? preview_() : PreviewSource{};
    if (!source.path) {
        previewLabel_->setText(tr("(select a file in the queue)"));
        return;
    }
    const std::string scheme = store().stringForKey("customNamingScheme").value_or("");
    const std::string name = expandFormatSpecifiers(scheme, source.metadata.get(),
                                                    source.settings.get(), source.path, true);
    previewLabel_->setText(QString::fromStdString(name));
}

} // namespace velvox
