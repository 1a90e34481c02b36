#pragma once
// Runs the program's main run loop inside Qt's event loop: each task another
// thread posts wakes the GUI thread through a queued call, and the GUI thread
// runs the pending tasks there, so every controller callback, list change and
// question happens on the GUI thread between two Qt events.

#include <atomic>

#include <QObject>

namespace velvox {

class MainRunLoopBridge : public QObject {
    Q_OBJECT
public:
    // GUI thread: installs the bridge; the GUI thread becomes the main thread.
    explicit MainRunLoopBridge(QObject* parent = nullptr);
    // GUI thread: uninstalls it and runs whatever is still queued.
    ~MainRunLoopBridge() override;

private:
    // GUI thread, from the queued call.
    void drain();

    std::atomic<bool> scheduled_ = false;
};

} // namespace velvox
