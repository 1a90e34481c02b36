#include "gui/MainRunLoopBridge.h"

#include <QMetaObject>

#include "platform/MainRunLoop.h"

namespace velvox {

MainRunLoopBridge::MainRunLoopBridge(QObject* parent) : QObject(parent) {
    MainRunLoop& loop = MainRunLoop::shared();
    // Any thread: one queued call at a time is enough, since a drain runs
    // everything posted before it; the flag clears before the drain starts,
    // so a task posted during the drain schedules the next one.
    loop.setTaskPostedHandler([this] {
        if (!scheduled_.exchange(true))
            QMetaObject::invokeMethod(
                this, [this] { drain(); }, Qt::QueuedConnection);
    });
    loop.runPendingTasks();
}

MainRunLoopBridge::~MainRunLoopBridge() {
    MainRunLoop& loop = MainRunLoop::shared();
    loop.setTaskPostedHandler(nullptr);
    loop.runPendingTasks();
}

void MainRunLoopBridge::drain() {
    scheduled_ = false;
    MainRunLoop::shared().runPendingTasks();
}

} // namespace velvox
