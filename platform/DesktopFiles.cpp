#include "platform/DesktopFiles.h"

#include "platform/ChildProcess.h"
#include "platform/Log.h"
#include "platform/PathText.h"
#include "platform/QuarantineRecords.h"
#include "platform/UniqueFd.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QSocketNotifier>
#include <QStringList>

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>

namespace kv {
namespace {

// One xdg-open, reaped from the event loop when it ends: it may stay until
// the application it started ends (on a desktop without its own opener it
// runs the program in the foreground), so nothing waits for it. Its pidfd
// turns readable when it ends. One still running when its owner goes is
// killed and reaped, as Qt does with its own processes.
class Opener : public QObject {
public:
    Opener(ChildProcess child, UniqueFd ended, std::function<void(bool opened)> done, QObject* parent)
        : QObject(parent), child_(std::move(child)), ended_(std::move(ended)), done_(std::move(done)),
          notifier_(ended_.get(), QSocketNotifier::Read, this)
    {
        connect(&notifier_, &QSocketNotifier::activated, this, [this] {
            notifier_.setEnabled(false);
            const bool opened = child_.wait() == 0;
            if (done_)
                done_(opened);
            deleteLater();
        });
    }
    ~Opener() override
    {
        if (child_.running())
            ::kill(child_.pid(), SIGKILL);
    }

private:
    ChildProcess child_;
    UniqueFd ended_;
    std::function<void(bool opened)> done_;
    QSocketNotifier notifier_;
};

} // namespace

DesktopFiles::DesktopFiles(QDBusConnection bus, QObject* parent) : QObject(parent), bus_(std::move(bus)) {}

void DesktopFiles::openPath(const std::string& path, std::function<void(bool opened)> done)
{
    // The path goes to xdg-open as the bytes it is: through a QString a byte
    // that is not UTF-8 would become a replacement character, and the folder
    // opened would be a look-alike that someone else may have made.
    std::optional<ChildProcess> opener = ChildProcess::spawn({"xdg-open", path}, ChildProcess::Output::Null);
    // Through syscall(2): Debian 12's <sys/pidfd.h> declares pidfd_open
    // without C linkage.
    UniqueFd ended(opener ? static_cast<int>(::syscall(SYS_pidfd_open, opener->pid(), 0)) : -1);
    if (ended) {
        new Opener(std::move(*opener), std::move(ended), std::move(done), this);
        return;
    }
    // Not started, or one that cannot be watched (a kernel before 5.3): the
    // main thread never waits for it, and the answer still comes later.
    if (opener) {
        nsLogf("xdg-open cannot be watched: %s", std::strerror(errno));
        ::kill(opener->pid(), SIGKILL);
    }
    if (done)
        QMetaObject::invokeMethod(this, [done = std::move(done)] { done(false); }, Qt::QueuedConnection);
}

void DesktopFiles::revealFiles(const std::vector<std::string>& paths)
{
    // The folders on the way are walked without following a link, as Move to
    // Trash does: a folder swapped for a link would show the file manager
    // somewhere else under the same name.
    QStringList uris;
    std::set<std::string> folders;
    for (const std::string& path : paths) {
        std::string why;
        const std::optional<WalkedFile> file = walkToFile(path, &why);
        if (!file) {
            nsLogf("%s is not shown in its folder: %s", displayText(path).c_str(), why.c_str());
            continue;
        }
        // The URI carries the walked path's bytes, each one that is not
        // unreserved percent-encoded, never a decoded name.
        uris << QStringLiteral("file://") + QString::fromLatin1(percentEncodePath(file->path));
        const size_t slash = file->path.rfind('/');
        folders.insert(slash == 0 ? "/" : file->path.substr(0, slash));
    }
    if (uris.isEmpty())
        return;
    if (!bus_.isConnected()) {
        for (const std::string& folder : folders)
            openPath(folder);
        return;
    }
    QDBusMessage call = QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.FileManager1"),
                                                       QStringLiteral("/org/freedesktop/FileManager1"),
                                                       QStringLiteral("org.freedesktop.FileManager1"),
                                                       QStringLiteral("ShowItems"));
    call << uris << QString();
    auto* watcher = new QDBusPendingCallWatcher(bus_.asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, watcher, folders] {
        watcher->deleteLater();
        // No file manager answers: the folders are the next best view.
        if (watcher->isError())
            for (const std::string& folder : folders)
                openPath(folder);
    });
}

std::optional<std::string> DesktopFiles::recycleFile(const std::string& path,
                                                     std::optional<std::pair<dev_t, ino_t>> found, std::string* why)
{
    // The file's folder is walked to once, without following a link, and
    // everything after acts on the folder held and the name's bytes: a
    // folder on the way swapped for a link since the file was found (or
    // while it is moved) never leads to a file of the user's own under the
    // same name. Only a regular file is moved, with its .trashinfo.
    std::string reason;
    const std::optional<WalkedFile> file = walkToFile(path, &reason);
    if (!file) {
        nsLogf("%s was not moved to the Trash: %s", displayText(path).c_str(), reason.c_str());
        if (why)
            *why = reason;
        return std::nullopt;
    }
    // Only found files are moved from here: the Quarantine page lists them
    // with the agent's own moves.
    const std::optional<QuarantineRecord> moved = QuarantineRecords().moveToTrash(*file, &reason, found);
    if (!moved) {
        nsLogf("%s was not moved to the Trash: %s", displayText(path).c_str(), reason.c_str());
        if (why)
            *why = reason;
        return std::nullopt;
    }
    if (!reason.empty())
        nsLogf("%s was moved to the Trash, but: %s", displayText(file->path).c_str(), reason.c_str());
    return moved->storedPath;
}

} // namespace kv
