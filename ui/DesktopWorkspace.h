#pragma once

#include "platform/DesktopFiles.h"
#include "platform/Workspace.h"

#include <QDBusConnection>
#include <QObject>

namespace kv {

// The freedesktop workspace: files opened, shown in their folder and moved
// to the Trash through DesktopFiles (which keeps names as bytes and walks
// to each file without following a link), `gio launch` for a desktop
// entry, and the application's beep.
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
    DesktopFiles files_;
};

} // namespace kv
