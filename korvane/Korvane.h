#pragma once

#include "korvane/AgentLink.h"
#include "korvane/MainWindow.h"
#include "korvane/PageContext.h"
#include "korvane/PreferenceStore.h"

#include <QDBusConnection>

#include <memory>
#include <string>

namespace kv {

// The Korvane application put together: its preferences, its link to the
// agent, and its window. main() and the tests make it; each part may be
// given instead of the user's own.
class Korvane {
public:
    struct Parts {
        std::string preferencesFolder;        // the user's when empty
        std::string homeDirectory;            // $HOME when empty
        std::string quarantineIndexPath;      // the user's when empty
        std::string agentProgram;             // korvane-velgar beside this program when empty
        QDBusConnection bus = QDBusConnection::sessionBus();
        // Answers the folder choosers; a folder dialog when empty.
        std::function<QString(const QString& title, const QString& start)> chooseFolder;
    };

    explicit Korvane(Parts parts);

    PreferenceStore& preferences() { return prefs_; }
    AgentLink& agent() { return agent_; }
    MainWindow& window() { return *window_; }

private:
    PreferenceStore prefs_;
    AgentLink agent_;
    PageContext context_;
    std::unique_ptr<MainWindow> window_;
};

} // namespace kv
