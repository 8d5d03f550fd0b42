#include "app/MainApplicationLink.h"

#include "platform/BusName.h"
#include "platform/DistributedCenter.h"
#include "platform/Workspace.h"

#include <QDBusConnection>
#include <QDBusServiceWatcher>
#include <QTimer>

#include <chrono>
#include <memory>

namespace kv {

void MainApplicationLink::openApp()
{
    if (workspace_)
        workspace_->launchApplication(kBundleIdentifier);
}

void MainApplicationLink::openPrefs(bool fromOpenPrefsButton)
{
    if (!workspace_ || !workspace_->launchApplication(kBundleIdentifier)) {
        if (workspace_)
            workspace_->beep();
        if (fromOpenPrefsButton)
            quit_();
        return;
    }
    std::vector<std::pair<const char*, std::string>> requests{{bus::kShouldOpenPrefs, bus::kAgentObject}};
    if (fromOpenPrefsButton)
        requests.emplace_back(bus::kShouldOpenPage, "protection");
    postWhenRunning(std::move(requests), fromOpenPrefsButton);
}

bool MainApplicationLink::openPage(const std::string& page)
{
    if (!workspace_ || !workspace_->launchApplication(kBundleIdentifier))
        return false;
    postWhenRunning({{bus::kShouldOpenPage, page}}, false);
    return true;
}

void MainApplicationLink::postWhenRunning(std::vector<std::pair<const char*, std::string>> requests, bool thenQuit)
{
    // The main application owns its bus name once it runs. Waiting for that
    // in the event loop keeps the menu and the dialogs alive meanwhile; after
    // the time limit the requests go out anyway, for a main application that
    // is slow to start.
    auto* waiter = new QObject(this);
    auto finished = std::make_shared<bool>(false);
    auto finish = [this, waiter, finished, requests = std::move(requests), thenQuit] {
        if (*finished)
            return;
        *finished = true;
        waiter->deleteLater();
        if (center_)
            for (const auto& [name, object] : requests)
                center_->post(name, object);
        if (thenQuit)
            quit_();
    };
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        finish();
        return;
    }
    auto* watcher = new QDBusServiceWatcher(kBundleIdentifier, bus, QDBusServiceWatcher::WatchForRegistration, waiter);
    connect(watcher, &QDBusServiceWatcher::serviceRegistered, waiter, finish);
    QTimer::singleShot(std::chrono::seconds(kOpenPrefsWaitSeconds), waiter, finish);
    // Asked after the watcher exists, so a registration cannot fall between.
    if (busNameHasOwner(bus, kBundleIdentifier))
        finish();
}

} // namespace kv
