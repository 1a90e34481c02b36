// What the window hands to the desktop: the notification at the end of a
// batch, received by a stand-in notification service on the tests' private
// session bus, and the error log given to the mail client, received by a
// stand-in xdg-email first on PATH.

#include <filesystem>
#include <fstream>

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QMessageBox>
#include <QStringList>
#include <QtTest>

#include "gui/ErrorLogWindow.h"
#include "gui/MainWindow.h"
#include "platform/ErrorLog.h"
#include "platform/UserDefaults.h"
#include "support/TestSupport.h"

using namespace velvox;
namespace fs = std::filesystem;

// Owns org.freedesktop.Notifications on its own bus connection, so that the
// window's message really crosses the bus.
class FakeNotifications : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
public:
    QStringList received; // "app|icon|summary|body|timeout" per call

public slots:
    uint Notify(const QString& app, uint, const QString& icon, const QString& summary,
                const QString& body, const QStringList&, const QVariantMap&, int timeout) {
        received << QStringList{app, icon, summary, body, QString::number(timeout)}.join('|');
        return uint(received.size());
    }
};

class DesktopServicesTest : public QObject {
    Q_OBJECT
private slots:
    void notificationReachesTheSessionBusService();
    void mailHandsTheSavedLogToXdgEmail();
};

void DesktopServicesTest::notificationReachesTheSessionBusService() {
    QDBusConnection service = QDBusConnection::connectToBus(QDBusConnection::SessionBus, "fake");
    QVERIFY(service.isConnected());
    FakeNotifications fake;
    QVERIFY(service.registerObject("/org/freedesktop/Notifications", &fake,
                                   QDBusConnection::ExportAllSlots));
    QVERIFY(service.registerService("org.freedesktop.Notifications"));

    test::TempDir root;
    qputenv("XDG_CONFIG_HOME", QByteArray::fromStdString(root.file("config")));
    UserDefaults::resetStandardUserDefaults(UserDefaults::defaultStorePath());
    {
        MainWindow window;
        window.notifyDesktop("Velvox", "3 files converted.");
        QTRY_COMPARE(fake.received, QStringList{"Velvox|velvox|Velvox|3 files converted.|-1"});
    }
    service.unregisterService("org.freedesktop.Notifications");
    QDBusConnection::disconnectFromBus("fake");
}

void DesktopServicesTest::mailHandsTheSavedLogToXdgEmail() {
    test::TempDir root;
    const fs::path bin = root.path() / "bin";
    fs::create_directories(bin);
    const std::string record = root.file("arguments");
    // Records each argument on a line of its own and copies the attachment
    // (the window may rewrite its file later); answers `status`, where 3 is
    // xdg-email's "no mail client".
    auto fakeXdgEmail = [&](int status) {
        std::ofstream(bin / "xdg-email")
            << "#!/bin/sh\nfor a in \"$@\"; do printf '%s\\n' \"$a\"; done > '" << record
            << ".tmp'\nwhile [ $# -gt 0 ]; do [ \"$1\" = --attach ] && cp \"$2\" '" << record
            << ".attachment'; shift; done\nmv '" << record << ".tmp' '" << record << "'\nexit "
            << status << "\n";
        fs::permissions(bin / "xdg-email", fs::perms::owner_all);
    };
    const QByteArray path = qgetenv("PATH");
    qputenv("PATH", QByteArray::fromStdString(bin.string()) + ":" + path);
    qputenv("TMPDIR", QByteArray::fromStdString(root.path().string()));

    ErrorLog::sharedController().clear();
    ErrorLog::sharedController().logMessage("Could Not Add song.mp3 To The Music Library.");
    ErrorLogWindow window;
    window.reload();
    fakeXdgEmail(0);
    QVERIFY(window.mail());
    QTRY_VERIFY_WITH_TIMEOUT(fs::exists(record), 10000);

    const auto bytes = test::readFile(record);
    const QStringList arguments =
        QString::fromUtf8(reinterpret_cast<const char*>(bytes.data()), qsizetype(bytes.size()))
            .split('\n', Qt::SkipEmptyParts);
    const qsizetype attach = arguments.indexOf("--attach");
    QVERIFY2(attach >= 0 && attach + 1 < arguments.size(), qPrintable(arguments.join(' ')));
    const QString attached = arguments[attach + 1];
    QVERIFY(fs::path(attached.toStdString()).is_absolute());
    QCOMPARE(arguments.mid(0, 2), (QStringList{"--subject", "Velvox error log"}));
    const auto copy = test::readFile(record + ".attachment");
    QVERIFY(QString::fromUtf8(reinterpret_cast<const char*>(copy.data()), qsizetype(copy.size()))
                .contains("Could Not Add song.mp3 To The Music Library."));
    QTest::qWait(200);
    QVERIFY(!window.findChild<QMessageBox*>("mailFailure"));

    // No mail client: the user is told where the log is.
    fs::remove(record);
    fakeXdgEmail(3);
    QVERIFY(window.mail());
    QMessageBox* failure = nullptr;
    QTRY_VERIFY_WITH_TIMEOUT((failure = window.findChild<QMessageBox*>("mailFailure")), 10000);
    QVERIFY(fs::exists(record));
    QVERIFY(failure->text().contains(root.path().string().c_str()));
    qputenv("PATH", path);
    ErrorLog::sharedController().clear();
}

int runDesktopServicesTest(int argc, char** argv) {
    DesktopServicesTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "DesktopServicesTest.moc"
