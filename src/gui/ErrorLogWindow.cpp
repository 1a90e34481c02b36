#include "gui/ErrorLogWindow.h"

#include <QApplication>
#include <QDateTime>
#include <QDialogButtonBox>
#include <QDir>
#include <QFileDialog>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPointer>
#include <QProcess>
#include <QPushButton>
#include <QStandardPaths>
#include <QVBoxLayout>

#include "platform/ErrorLog.h"

namespace velvox {

ErrorLogWindow::ErrorLogWindow(QWidget* parent) : QDialog(parent) {
    setObjectName("ErrorLogWindow");
    setWindowTitle(tr("Error Log"));
    resize(640, 360);
    auto* layout = new QVBoxLayout(this);
    view_ = new QPlainTextEdit(this);
    view_->setReadOnly(true);
    view_->setLineWrapMode(QPlainTextEdit::NoWrap);
    layout->addWidget(view_);
    auto* buttons = new QDialogButtonBox(this);
    QPushButton* save = buttons->addButton(tr("Save…"), QDialogButtonBox::ActionRole);
    QPushButton* mail = buttons->addButton(tr("Mail…"), QDialogButtonBox::ActionRole);
    save->setObjectName("saveLog");
    mail->setObjectName("mailLog");
    buttons->addButton(QDialogButtonBox::Close);
    connect(save, &QPushButton::clicked, this, &ErrorLogWindow::save);
    connect(mail, &QPushButton::clicked, this, &ErrorLogWindow::mail);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::hide);
    layout->addWidget(buttons);

    // Any thread: a new line is shown on the GUI thread.
    QPointer<ErrorLogWindow> self(this);
    ErrorLog::sharedController().setListener([self](const ErrorLog::Entry&) {
        QMetaObject::invokeMethod(
            qApp,
            [self] {
                if (self)
                    self->reload();
            },
            Qt::QueuedConnection);
    });
    reload();
}

ErrorLogWindow::~ErrorLogWindow() { ErrorLog::sharedController().setListener(nullptr); }

void ErrorLogWindow::reload() {
    QStringList lines;
    for (const ErrorLog::Entry& entry : ErrorLog::sharedController().entries())
        lines << QString::fromStdString(ErrorLog::formatEntry(entry));
    view_->setPlainText(lines.join('\n'));
}

QString ErrorLogWindow::text() const { return view_->toPlainText(); }

bool ErrorLogWindow::saveTo(const QString& path) {
    if (ErrorLog::sharedController().saveToFile(path.toStdString()))
        return true;
    QMessageBox::warning(this, tr("Error Log"), tr("The log could not be saved to %1.").arg(path));
    return false;
}

void ErrorLogWindow::save() {
    const QString suggested =
        QDir(QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation))
            .filePath("Velvox Error Log.txt");
    const QString path =
        QFileDialog::getSaveFileName(this, tr("Save Error Log"), suggested, tr("Text (*.txt)"));
    if (!path.isEmpty())
        saveTo(path);
}

bool ErrorLogWindow::mail() {
    const QString stamp = QDateTime::currentDateTime().toString("yyyyMMdd-HHmmss");
    const QString path = QDir(QStandardPaths::writableLocation(QStandardPaths::TempLocation))
                             .filePath(QString("velvox-error-log-%1.txt").arg(stamp));
    if (!saveTo(path))
        return false;
    // Watched rather than detached: xdg-email answers 3 when no mail client
    // exists, and the user must hear that the log was not sent. The process
    // belongs to the application, so closing this window does not end it.
    auto* process = new QProcess(qApp);
    process->setProgram("xdg-email");
    process->setArguments(
        {"--subject", "Velvox error log", "--body", text().left(4000), "--attach", path});
    QPointer<ErrorLogWindow> self(this);
    auto report = [self, process, path](bool failed) {
        process->deleteLater();
        if (failed && self)
            self->showMailFailure(path);
    };
    connect(process, &QProcess::finished, process, [report](int code, QProcess::ExitStatus status) {
        report(status != QProcess::NormalExit || code != 0);
    });
    connect(process, &QProcess::errorOccurred, process, [report](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart)
            report(true);
    });
    process->start();
    return process->waitForStarted(5000);
}

void ErrorLogWindow::showMailFailure(const QString& path) {
    auto* box = new QMessageBox(
        QMessageBox::Warning, tr("Error Log"),
        tr("No mail client could be started (xdg-email). The log was saved to %1.").arg(path),
        QMessageBox::Ok, this);
    box->setObjectName("mailFailure");
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
}

} // namespace velvox
