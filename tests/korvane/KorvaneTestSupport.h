#pragma once

#include "korvane/Korvane.h"
#include "tests/support/TestSupport.h"

#include <memory>
#include <string>

namespace kvtest {

// A Korvane application of the test's own: a private home with its XDG
// folders (the preferences, the Trash, the quarantine index, the autostart
// entry all live there), on the private session bus, with its folder
// choosers answered by chosenFolder.
struct KorvaneHome {
    KorvaneHome();

    TempDir home;
    ScopedEnv homeEnv{"HOME", home.path()};
    ScopedEnv config{"XDG_CONFIG_HOME", home / "config"};
    ScopedEnv data{"XDG_DATA_HOME", home / "data"};
    ScopedEnv runtime{"XDG_RUNTIME_DIR", home / "run"};
    std::string preferencesFolder = home / "config/korvane";
    std::string preferencesFile = preferencesFolder + "/com.korvane.Korvane.json";
    std::string chosenFolder;
    std::unique_ptr<kv::Korvane> korvane;

    // What the window's message bar says now ("" when hidden).
    std::string message() const { return korvane->window().message().toStdString(); }
};

} // namespace kvtest
