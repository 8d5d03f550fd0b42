#pragma once

#include "platform/Workspace.h"

#include <QDBusConnection>
#include <QObject>

namespace kv {

// The freedesktop workspace: xdg-open for files and folders, the file
// manager's org.freedesktop.FileManager1 interface for revealing a file, the
// user's Trash (with the .trashinfo the desktop restores from, and a line in
// the quarantine index), `gio launch` for a desktop entry, and the
// application's beep.
//
// A path is handed on as the bytes it is (to xdg-open as its argument, to
// the file manager percent-encoded byte by byte), never decoded to text. A
// file is revealed or moved to the Trash only through folders walked to
// without following a link (walkToFile, QuarantineRecords.h), and the move
// acts on the folder held, never on the path again.
//
// Main thread only. Programs it starts are reaped when they end; nothing
// waits for them on the main thread.
class DesktopWorkspace : public QObject, public Workspace {
    Q_OBJECT
public:
    explicit DesktopWorkspace(QDBusConnection bus = QDBusConnection::sessionBus(), QObject* parent = nullptr);

    void openPath(const std::string& path, std::function<void(bool opened)> done = {}) override;
    void revealFile(const std::string& path) override;
    bool recycleFile(const std::string& path) override;
    bool launchApplication(const std::string& bundleIdentifier) override;
    void beep() override;

    // The desktop entry of the application, searched in the XDG data
    // folders; empty when there is none.
    static std::string desktopEntryPath(const std::string& bundleIdentifier);

private:
    QDBusConnection bus_;
};

} // namespace kv
