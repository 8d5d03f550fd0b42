#include "ui/DesktopWorkspace.h"

#include "platform/Log.h"
#include "platform/LongPath.h"
#include "platform/PathText.h"
#include "platform/Paths.h"
#include "platform/QuarantineRecords.h"
#include "platform/UniqueFd.h"
#include "scan/Relocation.h"
#include "platform/TrashInfo.h"

#include <QApplication>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QUrl>

#include <fcntl.h>
#include <sys/stat.h>

#include <ctime>

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
    // The name is moved as the bytes it is, not through a QString: a name
    // that is not UTF-8 would otherwise be turned into another name, which
    // another file may carry. The file is opened without following a link,
    // and the move takes only that very file, into the Trash the desktop
    // knows, with its .trashinfo.
    // A folder on the way that became a link since the file was found
    // could lead to a file of the user's own under the same name.
    if (!openParentWithoutLinks(path).folder) {
        nsLogf("%s was not moved to the Trash: a folder on the way is a link", displayText(path).c_str());
        return false;
    }
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat info{};
    if (!file || ::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode) || !ensureTrashFolders())
        return false;
    std::string why;
    const std::optional<std::string> moved = moveScannedFile(path, file.get(), trashFilesFolder(), &why);
    if (!moved) {
        nsLogf("%s was not moved to the Trash: %s", displayText(path).c_str(), why.c_str());
        return false;
    }
    const std::time_t now = std::time(nullptr);
    writeTrashInfo(MovedLine{path, *moved}, now);
    // Only found files are moved from the agent's windows: the Quarantine
    // page lists them with the agent's own moves.
    QuarantineRecord record;
    record.originalPath = path;
    record.storedPath = *moved;
    record.movedAt = now;
    record.place = QuarantineRecord::Place::Trash;
    if (!QuarantineRecords().record(record, &why))
        nsLogf("Can't record the move of %s in the quarantine index: %s", displayText(path).c_str(), why.c_str());
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
