#include "ui/DesktopWorkspace.h"

#include "platform/Log.h"
#include "platform/PathText.h"
#include "platform/QuarantineRecords.h"

#include <QApplication>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
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
    // The file's folder is walked to once, without following a link, and
    // everything after acts on the folder held and the name's bytes: a
    // folder on the way swapped for a link since the file was found (or
    // while it is moved) never leads to a file of the user's own under the
    // same name. Only a regular file is moved, with its .trashinfo.
    std::string why;
    const std::optional<WalkedFile> file = walkToFile(path, &why);
    if (!file) {
        nsLogf("%s was not moved to the Trash: %s", displayText(path).c_str(), why.c_str());
        return false;
    }
    // Only found files are moved from the agent's windows: the Quarantine
    // page lists them with the agent's own moves.
    const std::optional<QuarantineRecord> moved = QuarantineRecords().moveToTrash(*file, &why);
    if (!moved) {
        nsLogf("%s was not moved to the Trash: %s", displayText(path).c_str(), why.c_str());
        return false;
    }
    if (!why.empty())
        nsLogf("%s was moved to the Trash, but: %s", displayText(file->path).c_str(), why.c_str());
    return true;
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
    // The application's own messages are not the agent's: they stay out of
    // the scan log, which is the agent's standard error.
    QProcess launcher;
    launcher.setProgram(QStringLiteral("gio"));
    launcher.setArguments({QStringLiteral("launch"), QString::fromStdString(entry)});
    launcher.setStandardOutputFile(QProcess::nullDevice());
    launcher.setStandardErrorFile(QProcess::nullDevice());
    return launcher.startDetached();
}

void DesktopWorkspace::beep() { QApplication::beep(); }

} // namespace kv
