#pragma once
// The file information window: what the tag reader found out about the
// selected source (format, length, size, bit rate, sample rate, sample size,
// channels, tag format, encoder), written through the value formatters.
//
// GUI thread only.

#include <memory>
#include <string>

#include <QDialog>

class QFormLayout;
class QLabel;

namespace velvox {

class AudioMetadata;

class FileInfoWindow : public QDialog {
    Q_OBJECT
public:
    explicit FileInfoWindow(QWidget* parent = nullptr);

    // Shows the facts of `path` (null facts: none could be read).
    void showFacts(const std::string& path, const std::shared_ptr<const AudioMetadata>& facts);
    // The text shown for a row ("Length", "Sample Rate", ...), for tests.
    QString valueOf(const QString& row) const;

private:
    void setRow(const QString& row, const QString& value);

    QFormLayout* form_;
    QLabel* title_;
};

} // namespace velvox
