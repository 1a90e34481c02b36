#include "gui/MainWindow.h"

#include <chrono>
#include <filesystem>

#include <QApplication>
#include <QCheckBox>
#include <QCloseEvent>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDesktopServices>
#include <QFileDialog>
#include <QHeaderView>
#include <QMessageBox>
#include <QMimeData>
#include <QPushButton>
#include <QSplitter>
#include <QStatusBar>
#include <QTableView>
#include <QTimer>
#include <QToolBar>
#include <QUrl>
#include <QVBoxLayout>

#include "gui/ErrorLogWindow.h"
#include "gui/FileInfoWindow.h"
#include "gui/MainRunLoopBridge.h"
#include "gui/MetadataEditorWindow.h"
#include "gui/OutputFormatList.h"
#include "gui/PreferencesWindow.h"
#include "gui/ProgressDelegate.h"
#include "gui/QueueTableModel.h"
#include "jobs/ApplicationController.h"
#include "jobs/EncoderDescriptor.h"
#include "jobs/EncoderSettings.h"
#include "jobs/FileEncodeOperation.h"
#include "metadata/AudioMetadata.h"
#include "platform/MainRunLoop.h"

namespace velvox {

MainWindow::MainWindow(QWidget* parent)
    : QMainWindow(parent), bridge_(std::make_unique<MainRunLoopBridge>()),
      controller_(std::make_unique<ApplicationController>()) {
    setObjectName("MainWindow");
    setWindowTitle("Velvox");
    setAcceptDrops(true);
    controller_->setUserInterface(this);

    queueModel_ = new QueueTableModel(*controller_, this);
    queueView_ = new QTableView(this);
    queueView_->setObjectName("queue");
    queueView_->setModel(queueModel_);
    queueView_->setItemDelegate(new ProgressDelegate(queueView_));
    queueView_->setSelectionBehavior(QAbstractItemView::SelectRows);
    queueView_->setSelectionMode(QAbstractItemView::ExtendedSelection);
    queueView_->verticalHeader()->hide();
    queueView_->setShowGrid(false);
    queueView_->setAlternatingRowColors(true);
    QHeaderView* header = queueView_->horizontalHeader();
    header->setSectionResizeMode(QueueTableModel::NameColumn, QHeaderView::Stretch);
    header->setSectionResizeMode(QueueTableModel::FormatColumn, QHeaderView::ResizeToContents);
    header->setSectionResizeMode(QueueTableModel::LengthColumn, QHeaderView::ResizeToContents);
    header->resizeSection(QueueTableModel::StatusColumn, 260);

    formatList_ = new OutputFormatList(*controller_, this);
    connect(formatList_, &OutputFormatList::refused, this, [this](const QString& message) {
        showAlert(tr("Output Format Not Added").toStdString(), message.toStdString(), "OK");
    });

    auto* splitter = new QSplitter(Qt::Vertical, this);
    splitter->addWidget(queueView_);
    splitter->addWidget(formatList_);
    splitter->setStretchFactor(0, 3);
    splitter->setStretchFactor(1, 1);
    setCentralWidget(splitter);

    progressTimer_ = new QTimer(this);
    progressTimer_->setInterval(200);
    connect(progressTimer_, &QTimer::timeout, queueModel_, &QueueTableModel::refreshStatus);

    buildActions();
    resize(900, 600);
    updateControls();
}

MainWindow::~MainWindow() {
    closing_ = true;
    if (controller_->encoderRunning()) {
        controller_->cancel();
        // The jobs wind down through the main run loop.
        while (controller_->encoderRunning())
            MainRunLoop::shared().runUntil([this] { return !controller_->encoderRunning(); },
                                           std::chrono::milliseconds(50));
    }
    joinWorkers();
    // The views and the model read the controller: they go before it, not
    // with the window's other children after this destructor.
    progressTimer_->stop();
    queueView_->setModel(nullptr);
    delete centralWidget();
    delete queueModel_;
    controller_->setUserInterface(nullptr);
    controller_.reset();
    bridge_.reset();
}

void MainWindow::joinWorkers() {
    // Intake hands each file to the main thread and waits, so the main run
    // loop must keep running while it is joined.
    while (intakeRunning_ || factsRunning_)
        MainRunLoop::shared().runUntil([this] { return !intakeRunning_ && !factsRunning_; },
                                       std::chrono::milliseconds(20));
    if (intake_.joinable())
        intake_.join();
    if (facts_.joinable())
        facts_.join();
}

void MainWindow::buildActions() {
    QToolBar* bar = addToolBar(tr("Batch"));
    bar->setObjectName("toolbar");
    bar->setMovable(false);
    bar->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    auto add = [&](const QString& text, const char* icon, const QKeySequence& keys, auto slot) {
        QAction* action = bar->addAction(QIcon::fromTheme(icon), text);
        action->setShortcut(keys);
        connect(action, &QAction::triggered, this, slot);
        return action;
    };
    addFilesAction_ = add(tr("Add Files…"), "document-open", QKeySequence::Open, [this] {
        const QStringList files = QFileDialog::getOpenFileNames(this, tr("Add Files"));
        if (!files.isEmpty())
            addPaths(files);
    });
    addFolderAction_ = add(tr("Add Folder…"), "folder-open", QKeySequence("Ctrl+Shift+O"), [this] {
        const QString folder = QFileDialog::getExistingDirectory(this, tr("Add Folder"));
        if (!folder.isEmpty())
            addPaths({folder});
    });
    removeAction_ =
        add(tr("Remove"), "list-remove", QKeySequence::Delete, [this] { removeSelected(); });
    clearAction_ = add(tr("Clear"), "edit-clear", QKeySequence(), [this] { clearQueue(); });
    bar->addSeparator();
    startAction_ = add(tr("Start"), "media-playback-start", QKeySequence("Ctrl+Return"),
                       [this] { startOrCancel(); });
    startAction_->setObjectName("start");
    tagsOnlyAction_ =
        add(tr("Update Tags Only"), "document-save", QKeySequence(), [this] { updateTagsOnly(); });
    bar->addSeparator();
    add(tr("Tags…"), "document-properties", QKeySequence("Ctrl+T"), [this] { editTags(); });
    add(tr("File Info"), "dialog-information", QKeySequence("Ctrl+I"), [this] { showFileInfo(); });
    add(tr("Error Log"), "dialog-warning", QKeySequence(), [this] { showErrorLog(); });
    add(tr("Preferences…"), "preferences-system", QKeySequence::Preferences,
        [this] { openPreferences(); });
}

void MainWindow::updateControls() {
    const bool running = controller_->encoderRunning();
    const bool busy = running || intakeRunning_;
    startAction_->setText(running ? tr("Cancel") : tr("Start"));
    startAction_->setIcon(QIcon::fromTheme(running ? "process-stop" : "media-playback-start"));
    startAction_->setEnabled(running ? !controller_->stopRequested() : !intakeRunning_);
    tagsOnlyAction_->setEnabled(!busy);
    for (QAction* action : {addFilesAction_, addFolderAction_, removeAction_, clearAction_})
        action->setEnabled(!busy);
    formatList_->setEditable(!busy);
    const size_t queued = controller_->operations().size();
    statusBar()->showMessage(running ? tr("Converting %1 files…").arg(queued)
                                     : tr("%n file(s) in the queue", nullptr, int(queued)));
}

// ---- The queue ----

void MainWindow::addPaths(const QStringList& paths) {
    if (controller_->encoderRunning() || intakeRunning_) {
        beep();
        return;
    }
    std::vector<std::string> list;
    for (const QString& path : paths)
        list.push_back(std::filesystem::absolute(path.toStdString()).lexically_normal().string());
    if (intake_.joinable())
        intake_.join();
    intakeRunning_ = true;
    updateControls();
    QPointer<MainWindow> self(this);
    intake_ = std::thread([this, self, list] {
        controller_->parseDroppedFiles(list);
        intakeRunning_ = false;
        performOnMainThread(
            [self] {
                if (self && !self->closing_)
                    self->intakeDidFinish();
            },
            false);
    });
}

void MainWindow::intakeDidFinish() {
    queueModel_->reload();
    if (!queueView_->selectionModel()->hasSelection() && queueModel_->rowCount() > 0)
        queueView_->selectRow(0);
    updateControls();
    loadFacts();
}

void MainWindow::loadFacts() {
    if (factsRunning_)
        return;
    std::vector<std::string> paths;
    for (const auto& job : controller_->operations())
        if (!queueModel_->hasFacts(job->inFilePath()))
            paths.push_back(job->inFilePath());
    if (paths.empty())
        return;
    if (facts_.joinable())
        facts_.join();
    factsRunning_ = true;
    QPointer<QueueTableModel> model(queueModel_);
    TaggingThread& tagging = controller_->taggingThread();
    facts_ = std::thread([this, model, paths, &tagging] {
        for (const std::string& path : paths) {
            if (closing_)
                break;
            std::shared_ptr<const AudioMetadata> metadata;
            tagging.performAndWait([&] { metadata = AudioMetadata::metadataFromFile(path); });
            performOnMainThread(
                [model, path, metadata] {
                    if (model)
                        model->setFacts(path, metadata);
                },
                false);
        }
        factsRunning_ = false;
    });
}

void MainWindow::removeSelected() {
    if (controller_->encoderRunning())
        return beep();
    std::vector<std::shared_ptr<FileEncodeOperation>> selected;
    for (const QModelIndex& index : queueView_->selectionModel()->selectedRows())
        if (auto job = queueModel_->jobAt(index.row()))
            selected.push_back(std::move(job));
    controller_->removeOperations(selected);
}

void MainWindow::clearQueue() {
    if (controller_->encoderRunning())
        return beep();
    controller_->removeOperations(controller_->operations());
}

void MainWindow::dragEnterEvent(QDragEnterEvent* event) {
    if (event->mimeData()->hasUrls() && !controller_->encoderRunning())
        event->acceptProposedAction();
}

void MainWindow::dropEvent(QDropEvent* event) {
    QStringList paths;
    for (const QUrl& url : event->mimeData()->urls())
        if (url.isLocalFile())
            paths << url.toLocalFile();
    if (!paths.isEmpty()) {
        addPaths(paths);
        event->acceptProposedAction();
    }
}

// ---- The batch ----

void MainWindow::startOrCancel() {
    if (controller_->encoderRunning())
        cancel();
    else
        start();
}

void MainWindow::start() {
    if (intakeRunning_)
        return beep();
    tagBatch_ = false;
    controller_->setPersistsOutputFormats(true);
    controller_->loadEncoderSettings();
    controller_->encode();
    if (controller_->encoderRunning())
        progressTimer_->start();
    queueModel_->refreshStatus();
    updateControls();
}

void MainWindow::updateTagsOnly() {
    if (intakeRunning_ || controller_->encoderRunning())
        return beep();
    // A batch whose first (and only) format rewrites tags in place; the
    // user's own formats come back when it ends.
    const EncoderDescriptor* flac = EncoderDescriptor::forFormatName("flac");
    if (!flac)
        return beep();
    auto update = EncoderSettings::settingsWithDictionary(flac->defaultDictionary(nullptr));
    update->setEncoderAction(EncoderActionUpdateMetadata);
    tagBatch_ = true;
    controller_->setPersistsOutputFormats(false);
    controller_->setEncoderSettings({std::shared_ptr<EncoderSettings>(std::move(update))});
    controller_->encode();
    if (controller_->encoderRunning()) {
        progressTimer_->start();
    } else {
        controller_->setPersistsOutputFormats(true);
        controller_->loadEncoderSettings();
        tagBatch_ = false;
    }
    updateControls();
}

void MainWindow::cancel() {
    controller_->cancel();
    updateControls();
}

// ---- BatchUserInterface ----

void MainWindow::beep() { QApplication::beep(); }

void MainWindow::showAlert(const std::string& message, const std::string& informativeText,
                           const std::string& button) {
    auto* box = new QMessageBox(QMessageBox::Warning, "Velvox", QString::fromStdString(message),
                                QMessageBox::NoButton, this);
    box->setObjectName("alert");
    box->setInformativeText(QString::fromStdString(informativeText));
    box->addButton(QString::fromStdString(button), QMessageBox::AcceptRole);
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
}

PreferencesWindow* MainWindow::preferencesWindow() {
    if (!preferences_)
        preferences_ = new PreferencesWindow([this] { return previewSource(); }, this);
    return preferences_;
}

PreferencesWindow::PreviewSource MainWindow::previewSource() const {
    PreferencesWindow::PreviewSource source;
    const QModelIndex current = queueView_->currentIndex();
    const auto job = queueModel_->jobAt(current.isValid() ? current.row() : 0);
    if (job) {
        source.path = job->inFilePath();
        source.metadata = queueModel_->factsFor(*source.path);
    }
    for (const auto& settings : controller_->encoderSettings())
        if (settings->enabled()) {
            source.settings = settings;
            break;
        }
    return source;
}

MetadataEditorWindow* MainWindow::editTags() {
    if (controller_->encoderRunning() || intakeRunning_) {
        beep();
        return nullptr;
    }
    std::vector<std::shared_ptr<FileEncodeOperation>> jobs;
    for (const QModelIndex& index : queueView_->selectionModel()->selectedRows())
        if (auto job = queueModel_->jobAt(index.row()))
            jobs.push_back(job);
    if (jobs.empty()) {
        beep();
        return nullptr;
    }
    auto* editor = new MetadataEditorWindow(std::move(jobs), this);
    editor->setAttribute(Qt::WA_DeleteOnClose);
    // The update batch rewrites every queued file from its record; records
    // that were not edited hold what the file already has.
    connect(editor, &MetadataEditorWindow::saveRequested, this, [this] { updateTagsOnly(); });
    editor->open();
    return editor;
}

FileInfoWindow* MainWindow::showFileInfo() {
    if (!fileInfo_)
        fileInfo_ = new FileInfoWindow(this);
    const QModelIndex current = queueView_->currentIndex();
    const auto job = queueModel_->jobAt(current.isValid() ? current.row() : 0);
    if (!job) {
        beep();
        return fileInfo_;
    }
    fileInfo_->showFacts(job->inFilePath(), queueModel_->factsFor(job->inFilePath()));
    fileInfo_->show();
    fileInfo_->raise();
    return fileInfo_;
}

void MainWindow::openPreferences() {
    PreferencesWindow* window = preferencesWindow();
    window->reload();
    window->show();
    window->raise();
}

void MainWindow::askQuestion(const std::string& message, const std::string& informativeText,
                             const std::vector<std::string>& buttons,
                             const std::string& suppressionTitle) {
    withdrawQuestion();
    auto* box = new QMessageBox(QMessageBox::Warning, "Velvox", QString::fromStdString(message),
                                QMessageBox::NoButton, this);
    box->setObjectName("overwriteQuestion");
    box->setInformativeText(QString::fromStdString(informativeText));
    // The buttons in the controller's order; each answers with its return code.
    for (size_t i = 0; i < buttons.size(); ++i) {
        QPushButton* button =
            box->addButton(QString::fromStdString(buttons[i]),
                           i == 1 ? QMessageBox::AcceptRole : QMessageBox::RejectRole);
        button->setProperty("returnCode", ApplicationController::kAlertFirstButtonReturn + int(i));
        if (i == 0)
            box->setDefaultButton(button);
    }
    box->setCheckBox(new QCheckBox(QString::fromStdString(suppressionTitle), box));
    box->setAttribute(Qt::WA_DeleteOnClose);
    connect(box, &QMessageBox::buttonClicked, this, [this, box](QAbstractButton* button) {
        const int code = button->property("returnCode").toInt();
        const bool applyToAll = box->checkBox()->isChecked();
        question_.clear();
        controller_->alertDidEnd(code, applyToAll);
        updateControls();
    });
    question_ = box;
    box->open();
}

void MainWindow::withdrawQuestion() {
    if (QMessageBox* box = question_) {
        question_.clear();
        box->disconnect(this);
        box->close();
    }
}

void MainWindow::operationsDidChange() {
    queueModel_->reload();
    updateControls();
}

void MainWindow::operationDidStart(const FileEncodeOperation&) { queueModel_->refreshStatus(); }

void MainWindow::showFailureSheet(const std::string& message,
                                  const std::vector<std::string>& buttons) {
    auto* box = new QMessageBox(QMessageBox::Warning, "Velvox", QString::fromStdString(message),
                                QMessageBox::NoButton, this);
    box->setObjectName("failureSheet");
    QAbstractButton* report = nullptr;
    for (size_t i = 0; i < buttons.size(); ++i) {
        QPushButton* button =
            box->addButton(QString::fromStdString(buttons[i]),
                           i == 0 ? QMessageBox::AcceptRole : QMessageBox::ActionRole);
        if (i == 1)
            report = button;
    }
    box->setAttribute(Qt::WA_DeleteOnClose);
    connect(box, &QMessageBox::buttonClicked, this, [this, report](QAbstractButton* button) {
        if (button == report)
            showErrorLog();
    });
    box->open();
    if (!isActiveWindow())
        notifyDesktop("Velvox", QString::fromStdString(message));
}

ErrorLogWindow* MainWindow::errorLogWindow() {
    if (!errorLog_)
        errorLog_ = new ErrorLogWindow(this);
    return errorLog_;
}

void MainWindow::showErrorLog() {
    ErrorLogWindow* window = errorLogWindow();
    window->reload();
    window->show();
    window->raise();
}

void MainWindow::openFolder(const std::string& path) {
    QDesktopServices::openUrl(QUrl::fromLocalFile(QString::fromStdString(path)));
}

void MainWindow::notifyDesktop(const QString& title, const QString& body) {
    // The freedesktop notification service, which GNOME and KDE both run. A
    // plain message rather than a proxy object: a proxy introspects the
    // service first, blocking the window, and fails for a service that the
    // bus would start on demand. Without a session bus there is simply no
    // notification.
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return;
    QDBusMessage notify = QDBusMessage::createMethodCall("org.freedesktop.Notifications",
                                                         "/org/freedesktop/Notifications",
                                                         "org.freedesktop.Notifications", "Notify");
    notify << QString("Velvox") << uint(0) << QString("velvox") << title << body << QStringList()
           << QVariantMap() << int(-1);
    bus.send(notify);
}

void MainWindow::batchDidFinish() {
    progressTimer_->stop();
    if (tagBatch_) {
        tagBatch_ = false;
        controller_->setPersistsOutputFormats(true);
        controller_->loadEncoderSettings();
    }
    queueModel_->reload();
    formatList_->reload();
    updateControls();
    if (!isActiveWindow() && controller_->failedCount() == 0)
        notifyDesktop("Velvox",
                      tr("%n file(s) converted.", nullptr, int(controller_->successfulCount())));
    emit batchFinished();
    if (quitWhenIdle_)
        QTimer::singleShot(0, this, &QWidget::close);
}

void MainWindow::closeEvent(QCloseEvent* event) {
    if (!controller_->encoderRunning() && !intakeRunning_) {
        event->accept();
        return;
    }
    if (!quitWhenIdle_) {
        auto* box = new QMessageBox(QMessageBox::Question, "Velvox", tr("A conversion is running."),
                                    QMessageBox::NoButton, this);
        box->setObjectName("quitQuestion");
        box->setInformativeText(tr("Quitting cancels it. Files under way are abandoned and no "
                                   "partial output is left behind."));
        QPushButton* quit = box->addButton(tr("Cancel and Quit"), QMessageBox::DestructiveRole);
        box->addButton(tr("Keep Converting"), QMessageBox::RejectRole);
        box->setAttribute(Qt::WA_DeleteOnClose);
        connect(box, &QMessageBox::buttonClicked, this, [this, quit](QAbstractButton* button) {
            if (button != quit)
                return;
            quitWhenIdle_ = true;
            cancel();
            if (!controller_->encoderRunning() && !intakeRunning_)
                QTimer::singleShot(0, this, &QWidget::close);
        });
        box->open();
    }
    event->ignore();
}

} // namespace velvox
