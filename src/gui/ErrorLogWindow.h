#pragma once
// The error log window: every line of the program-wide log with its date,
// updated as lines arrive; "Save…" writes it to a text file and "Mail…" hands
// it to the desktop's mail client as an attachment.
//
// GUI thread only; the log's listener hands new lines over from any thread.

#include <QDialog>
#include <QString>

class QPlainTextEdit;

namespace velvox {

class ErrorLogWindow : public QDialog {
    Q_OBJECT
public:
    explicit ErrorLogWindow(QWidget* parent = nullptr);
    ~ErrorLogWindow() override;

    // Rereads the whole log.
    void reload();
    QString text() const;
    // Writes the log to `path`; false (with a message box) when it cannot.
    bool saveTo(const QString& path);
    // Saves the log to a file in the temporary folder and starts xdg-email with
    // it attached; false when xdg-email could not be started. When it later
    // reports that no mail client took the log, a message box says where
    // the log was saved.
    bool mail();
    void save();

private:
    void showMailFailure(const QString& path);

    QPlainTextEdit* view_;
};

} // namespace velvox
