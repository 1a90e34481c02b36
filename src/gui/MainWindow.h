#pragma once
// The main window: the queue, the output-format list, Start/Cancel and
// "Update Tags Only", and the desktop face of the controller: its alerts, the
// overwrite question, the end-of-batch sheet, the error log and the
// notification at the end of a batch the user is not watching.
//
// GUI thread only, which is also the main run loop's thread (see
// MainRunLoopBridge); intake and the reading of file facts run on worker
// threads that report back through the main run loop.

#include <atomic>
#include <functional>
#include <memory>
#include <thread>

#include <QMainWindow>
#include <QPointer>
#include <QStringList>

#include "gui/PreferencesWindow.h"
#include "jobs/BatchUserInterface.h"

class QAction;
class QCheckBox;
class QMessageBox;
class QTableView;
class QTimer;

namespace velvox {

class ApplicationController;
class ErrorLogWindow;
class FileInfoWindow;
class MetadataEditorWindow;
class MainRunLoopBridge;
class OutputFormatList;
class QueueTableModel;

class MainWindow : public QMainWindow, public BatchUserInterface {
    Q_OBJECT
public:
    explicit MainWindow(QWidget* parent = nullptr);
    ~MainWindow() override;

    ApplicationController& controller() { return *controller_; }
    QueueTableModel& queueModel() { return *queueModel_; }
    QTableView* queueView() const { return queueView_; }
    OutputFormatList* formatList() const { return formatList_; }
    ErrorLogWindow* errorLogWindow();
    PreferencesWindow* preferencesWindow();
    // Shows the facts of the selected (else the first) queued file.
    FileInfoWindow* showFileInfo();
    // Opens the tag editor on the selected queued files.
    MetadataEditorWindow* editTags();

    // Queues files and folders (what dropping them or the open dialogs do).
    void addPaths(const QStringList& paths);
    bool isAddingFiles() const { return intakeRunning_; }
    // Start, or Cancel while a batch runs.
    void startOrCancel();
    void start();
    void updateTagsOnly();
    void cancel();
    void removeSelected();
    void clearQueue();
    // Posts a desktop notification (org.freedesktop.Notifications on the
    // session bus) without waiting for an answer; the batch's end uses it
    // when the window is in the background.
    void notifyDesktop(const QString& title, const QString& body);

    // ---- BatchUserInterface (GUI thread) ----
    void beep() override;
    void showAlert(const std::string& message, const std::string& informativeText,
                   const std::string& button) override;
    void openPreferences() override;
    void askQuestion(const std::string& message, const std::string& informativeText,
                     const std::vector<std::string>& buttons,
                     const std::string& suppressionTitle) override;
    void withdrawQuestion() override;
    void operationsDidChange() override;
    void operationDidStart(const FileEncodeOperation& job) override;
    void showFailureSheet(const std::string& message,
                          const std::vector<std::string>& buttons) override;
    void showErrorLog() override;
    void openFolder(const std::string& path) override;
    void batchDidFinish() override;

signals:
    void batchFinished();

protected:
    void closeEvent(QCloseEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    void buildActions();
    void updateControls();
    void intakeDidFinish();
    // Reads the format and length of queued files that have none yet.
    void loadFacts();
    void joinWorkers();
    PreferencesWindow::PreviewSource previewSource() const;

    std::unique_ptr<MainRunLoopBridge> bridge_;
    std::unique_ptr<ApplicationController> controller_;
    QueueTableModel* queueModel_;
    QTableView* queueView_;
    OutputFormatList* formatList_;
    QTimer* progressTimer_;
    QPointer<QMessageBox> question_;
    QPointer<ErrorLogWindow> errorLog_;
    QPointer<PreferencesWindow> preferences_;
    QPointer<FileInfoWindow> fileInfo_;
    QAction* addFilesAction_ = nullptr;
    QAction* addFolderAction_ = nullptr;
    QAction* removeAction_ = nullptr;
    QAction* clearAction_ = nullptr;
    QAction* startAction_ = nullptr;
    QAction* tagsOnlyAction_ = nullptr;

    std::thread intake_;
    std::thread facts_;
    std::atomic<bool> intakeRunning_ = false;
    std::atomic<bool> factsRunning_ = false;
    std::atomic<bool> closing_ = false;
    bool tagBatch_ = false;
    bool quitWhenIdle_ = false;
};

} // namespace velvox
