#include "ui/DesktopWorkspace.h"

#include "platform/Paths.h"

#include <QApplication>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QUrl>

namespace kv {

DesktopWorkspace::DesktopWorkspace(QDBusConnection bus, QObject* parent) : QObject(parent), bus_(std::move(bus)) {}

void DesktopWorkspace::openPath(const std::string& path, std::function<void(bool opened)> done)
{
    // xdg-open may stay until the application it started ends (on a desktop
    // without its own opener it runs the program in the foreground), so it is
    // reaped from the event loop rather than waited for.
    auto* opener = new QProcess(this);
    opener->setStandardOutputFile(QProcess::nullDevice());
    opener->setStandardErrorFile(QProcess::nullDevice());
    auto reported = std::make_shared<bool>(false);
    auto report = [opener, done = std::move(done), reported](bool opened) {
        if (*reported)
            return;
        *reported = true;
        opener->deleteLater();
        if (done)
            done(opened);
    };
    connect(opener, &QProcess::finished, this, [report](int exitCode, QProcess::ExitStatus status) {
        report(status == QProcess::NormalExit && exitCode == 0);
    });
    connect(opener, &QProcess::errorOccurred, this, [report](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart)
            report(false);
    });
    opener->start(QStringLiteral("xdg-open"), {QString::fromStdString(path)});
}

void DesktopWorkspace::revealFile(const std::string& path)
{
    const QString uri = QUrl::fromLocalFile(QString::fromStdString(path)).toString(QUrl::FullyEncoded);
    QDBusMessage call = QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.FileManager1"),
                                                       QStringLiteral("/org/freedesktop/FileManager1"),
                                                       QStringLiteral("org.freedesktop.FileManager1"),
                                                       QStringLiteral("ShowItems"));
    call << QStringList{uri} << QString();
    const std::string folder = QFileInfo(QString::fromStdString(path)).absolutePath().toStdString();
    if (!bus_.isConnected()) {
        openPath(folder);
        return;
    }
    auto* watcher = new QDBusPendingCallWatcher(bus_.asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, watcher, folder] {
        watcher->deleteLater();
        // No file manager answers: its folder is the next best view.
        if (watcher->isError())
            openPath(folder);
    });
}

bool DesktopWorkspace::recycleFile(const std::string& path)
{
    // Qt makes the Trash folder but not the data folder it lives in, which a
    // fresh account may not have yet.
    makeDirectories(dataHome(), 0700);
    return QFile::moveToTrash(QString::fromStdString(path));
}

std::string DesktopWorkspace::desktopEntryPath(const std::string& bundleIdentifier)
{
    return QStandardPaths::locate(QStandardPaths::ApplicationsLocation, QString::fromStdString(bundleIdentifier) + ".desktop")
        .toStdString();
}

bool DesktopWorkspace::launchApplication(const std::string& bundleIdentifier)
{
    const std::string entry = desktopEntryPath(bundleIdentifier);
    if (entry.empty())
        return false;
    return QProcess::startDetached(QStringLiteral("gio"), {QStringLiteral("launch"), QString::fromStdString(entry)});
}

void DesktopWorkspace::beep() { QApplication::beep(); }

} // namespace kv
