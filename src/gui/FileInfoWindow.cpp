#include "gui/FileInfoWindow.h"

#include <filesystem>

#include <QFormLayout>
#include <QLabel>
#include <QVBoxLayout>

#include "gui/ValueFormatters.h"
#include "metadata/AudioMetadata.h"

namespace velvox {

namespace {
const char* const kRows[] = {"Format",      "Length",   "Size",       "Bit Rate", "Sample Rate",
                             "Sample Size", "Channels", "Tag Format", "Encoder"};
}

FileInfoWindow::FileInfoWindow(QWidget* parent) : QDialog(parent) {
    setObjectName("FileInfoWindow");
    setWindowTitle(tr("File Information"));
    auto* layout = new QVBoxLayout(this);
    title_ = new QLabel(this);
    QFont bold = title_->font();
    bold.setBold(true);
    title_->setFont(bold);
    title_->setWordWrap(true);
    layout->addWidget(title_);
    form_ = new QFormLayout;
    for (const char* row : kRows) {
        auto* value = new QLabel(this);
        value->setObjectName(row);
        value->setTextInteractionFlags(Qt::TextSelectableByMouse);
        form_->addRow(tr(row) + ":", value);
    }
    layout->addLayout(form_);
}

void FileInfoWindow::setRow(const QString& row, const QString& value) {
    if (auto* label = findChild<QLabel*>(row))
        label->setText(value.isEmpty() ? QString::fromUtf8("—") : value);
}

QString FileInfoWindow::valueOf(const QString& row) const {
    const auto* label = findChild<QLabel*>(row);
    return label ? label->text() : QString();
}

void FileInfoWindow::showFacts(const std::string& path,
                               const std::shared_ptr<const AudioMetadata>& facts) {
    title_->setText(QString::fromStdString(std::filesystem::path(path).filename().string()));
    title_->setToolTip(QString::fromStdString(path));
    const AudioMetadata empty;
    const AudioMetadata& m = facts ? *facts : empty;
    auto text = [](const std::optional<std::string>& value) {
        return value ? QString::fromStdString(*value) : QString();
    };
    setRow("Format", text(m.sourceFormat()));
    setRow("Length", m.sourceLength() ? ValueFormatters::duration(*m.sourceLength()) : QString());
    setRow("Size", m.sourceFileSize() ? ValueFormatters::fileSize(*m.sourceFileSize()) : QString());
    QString bitrate = m.sourceBitrate() ? ValueFormatters::bitrate(*m.sourceBitrate()) : QString();
    if (!bitrate.isEmpty() && m.sourceBitrateMode())
        bitrate += " " + text(m.sourceBitrateMode());
    setRow("Bit Rate", bitrate);
    setRow("Sample Rate",
           m.sourceSampleRate() ? ValueFormatters::sampleRate(*m.sourceSampleRate()) : QString());
    setRow("Sample Size", m.sourceSampleSize() && *m.sourceSampleSize() > 0
                              ? QString("%1 bit").arg(*m.sourceSampleSize())
                              : QString());
    QString channels = m.sourceChannels() ? QString::number(*m.sourceChannels()) : QString();
    if (!channels.isEmpty() && m.sourceChannelMode())
        channels += " (" + text(m.sourceChannelMode()) + ")";
    setRow("Channels", channels);
    setRow("Tag Format", text(m.sourceTagFormat()));
    setRow("Encoder", text(m.sourceEncodedWith()));
}

} // namespace velvox
