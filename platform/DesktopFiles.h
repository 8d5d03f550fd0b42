#pragma once

#include <QDBusConnection>
#include <QObject>

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kv {

// The user's files on a freedesktop desktop: xdg-open for files and
// folders, the file manager's org.freedesktop.FileManager1 interface for
// showing files in their folder, and the user's Trash (with the
// .trashinfo the desktop restores from, and a line in the quarantine
// index). The agent's warning windows and the Korvane application's Scan
// page both act through it.
//
// A path is handed on as the bytes it is (to xdg-open as its argument, to
// the file manager percent-encoded byte by byte), never decoded to text. A
// file is shown or moved to the Trash only through folders walked to
// without following a link (walkToFile, QuarantineRecords.h), and the move
// acts on the folder held, never on the path again.
//
// Main thread only. Programs it starts are reaped when they end; nothing
// waits for them on the main thread.
class DesktopFiles : public QObject {
    Q_OBJECT
public:
    explicit DesktopFiles(QDBusConnection bus = QDBusConnection::sessionBus(), QObject* parent = nullptr);

    // Opens a file or folder with the user's default application. done, when
    // given, is called later on the main thread with whether it opened.
    void openPath(const std::string& path, std::function<void(bool opened)> done = {});
    // Shows the files selected in the file manager (one request for all);
    // where no file manager answers, opens the folder of each.
    void revealFiles(const std::vector<std::string>& paths);
    // Moves a found file into the user's Trash (only the file of found's
    // device and inode, when given); where it went, or nothing when it was
    // not moved (the reason is logged, and set in *why when given).
    std::optional<std::string> recycleFile(const std::string& path,
                                           std::optional<std::pair<dev_t, ino_t>> found = std::nullopt,
                                           std::string* why = nullptr);

private:
    QDBusConnection bus_;
};

} // namespace kv
