#pragma once

#include "platform/BusContract.h"

#include <QObject>

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace kv {

class DistributedCenter;
class Workspace;

// The links from the agent to the main application (com.korvane.Korvane):
// its menu items and panel buttons launch it, and the preferences item asks
// it to show its preferences once it runs. Main thread.
class MainApplicationLink : public QObject {
    Q_OBJECT
public:
    static constexpr const char* kBundleIdentifier = bus::kMainAppName;
    static constexpr int kOpenPrefsWaitSeconds = 30;

    // Either pointer may be null (no desktop, no bus). quit ends the agent.
    MainApplicationLink(Workspace* workspace, DistributedCenter* center, std::function<void()> quit)
        : workspace_(workspace), center_(center), quit_(std::move(quit)) {}

    void openApp();
    // Launches the main application and, once it owns its bus name (at most
    // kOpenPrefsWaitSeconds later, waiting in the event loop), posts
    // "KorvaneShouldOpenPrefs". A launch that cannot start beeps and posts
    // nothing. Sent by the no-engine panel's button, it also asks for the
    // Protection page, which tells what the engine lacks, and then quits.
    void openPrefs(bool fromOpenPrefsButton);
    // Launches the main application at one of its pages
    // ("KorvaneShouldOpenPage" with the page's name, once it runs). False
    // when it could not be launched.
    bool openPage(const std::string& page);

private:
    Workspace* workspace_;
    DistributedCenter* center_;
    std::function<void()> quit_;

    // Posts the requests once the main application owns its bus name.
    void postWhenRunning(std::vector<std::pair<const char*, std::string>> requests, bool thenQuit);
};

} // namespace kv
