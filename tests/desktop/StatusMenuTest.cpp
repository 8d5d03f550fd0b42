// The status menu: its states, the watched-folder submenu, the "ShowDockIcon"
// choice and the commands behind the items.

#include "tests/desktop/DesktopTestSupport.h"

#include <gtest/gtest.h>

#include <QMenu>
#include <QSystemTrayIcon>

#include <future>

namespace {

using kvtest::DesktopAgent;

const char* const kStateItems[] = {"startMenuItem", "stopMenuItem", "foldersWatchedMenuItem", "restartMenuItem",
                                   "abortMenuItem", "abortConfirmMenuItem", "updateDefsMenuItem", "quitMenuItem"};

// The on/off pattern of kStateItems, '1' on, '0' off.
std::string enabledPattern(const DesktopAgent& agent)
{
    std::string pattern;
    for (const char* name : kStateItems)
        pattern += agent.find(name)->isEnabled() ? '1' : '0';
    return pattern;
}

TEST(StatusMenu, FourStatesSwitchTheirItems)
{
    DesktopAgent agent;
    // From all on and from all off, so that an item a state leaves alone
    // shows as such.
    struct Case {
        int state;
        const char* fromAllOn;
        const char* fromAllOff;
    };
    const Case cases[] = {
        {0, "00000001", "00000001"},
        {1, "10101111", "10000000"},
        {2, "01110011", "01010011"},
        {3, "00101100", "00001100"},
    };
    for (const Case& c : cases) {
        for (const auto& [allOn, expected] : {std::pair{true, c.fromAllOn}, {false, c.fromAllOff}}) {
            for (const char* name : kStateItems)
                agent.find(name)->setEnabled(allOn);
            agent.menu->enableMenuItems(kv::MenuState(c.state));
            EXPECT_EQ(enabledPattern(agent), expected) << "state " << c.state;
        }
    }
}

// While folders are added, the menu waits; it watches once every folder is
// ready. The submenu lists them newest first, the home folder as a tilde,
// and choosing one opens it.
TEST(StatusMenu, FolderSubmenuAndWatchingFollowTheFoldersAdded)
{
    struct Case {
        const char* name;
        std::vector<std::string> folders; // under the home folder unless absolute
        QStringList titles;
        const char* itemsOnceReady;
        const char* oldest; // under the home folder
    };
    const Case cases[] = {
        {"three folders", {"A/", "B/", "/srv/C/"}, {"/srv/C/", "~/B/", "~/A/"}, "0111", "A/"},
        {"a volume root, counted without an entry", {"/media", "Downloads/"}, {"~/Downloads/"}, "0111", "Downloads/"},
        {"none", {}, {}, "1000", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        DesktopAgent agent;
        agent.menu->startIndicator(agent.controller->scanActivity());
        const QString startTitle = agent.find("startMenuItem")->text();
        agent.menu->clearMenu();
        agent.menu->setNumItemsToWatch(static_cast<int>(c.folders.size()));
        for (const std::string& folder : c.folders) {
            agent.menu->addToMenu(folder.starts_with("/") ? folder : agent.home / folder, "");
            EXPECT_EQ(agent.find("startMenuItem")->text(), QString::fromUtf8("Please wait…"));
            EXPECT_EQ(enabledPattern(agent).substr(0, 4), "0010") << "disabled, with the folders item on";
            agent.menu->setReady();
        }
        EXPECT_EQ(agent.find("startMenuItem")->text(), startTitle);
        EXPECT_EQ(enabledPattern(agent).substr(0, 4), c.itemsOnceReady);

        const QList<QAction*> entries = agent.menu->theSubMenu()->actions();
        QStringList titles;
        for (const QAction* entry : entries)
            titles << entry->text();
        EXPECT_EQ(titles, c.titles);
        // The oldest entry, its tilde expanded again.
        if (!entries.isEmpty()) {
            entries.back()->trigger();
            EXPECT_EQ(agent.workspace.opened, std::vector<std::string>{agent.home / c.oldest});
        }
    }
}

// The quit item's title is also what a dialog's quit button says, asked
// for from a scanner thread.
TEST(StatusMenu, ShowDockIconDecidesTrayIconAndQuitItem)
{
    struct Case {
        const char* preference;
        bool trayIcon;
        bool quitInMenu;
        bool quitFollowsStates;
    };
    const Case cases[] = {
        {"TRUE", false, false, false},
        {"Both", true, true, false},
        {"yes", true, true, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.preference);
        DesktopAgent agent({.showDockIcon = c.preference});
        agent.menu->startIndicator(agent.controller->scanActivity());
        kv::MyMenuItem* quit = agent.find("quitMenuItem");
        EXPECT_EQ(agent.menu->statusItem()->isVisible(), c.trayIcon);
        EXPECT_EQ(agent.menu->theMenu()->actions().contains(quit), c.quitInMenu);
        quit->setEnabled(true);
        agent.menu->enableMenuItems(kv::MenuState::Busy);
        EXPECT_EQ(quit->isEnabled(), !c.quitFollowsStates);
        EXPECT_EQ(std::async(std::launch::async, [&] { return agent.menu->getQuitMenuName(); }).get(),
                  quit->text().toStdString());
    }
}

TEST(StatusMenu, OpenLogPicksTheFileThePageOrBeeps)
{
    DesktopAgent agent;
    const std::string scanLog = agent.home / "Library/Logs/KorvaneVelgar-scan.log";
    kvtest::writeFile(scanLog, "");
    struct Case {
        const char* item;
        Qt::KeyboardModifiers modifiers;
        bool applicationLaunches;
        bool applicationOpensFiles;
        const char* opened;  // "" nothing, "log" the scan log
        bool launched;       // the main application was asked for, at a page
        bool beep;
    };
    // The console log and the main application's scan log are pages of the
    // main application; without it the agent's diagnostics are in the scan log.
    const Case cases[] = {
        {"openScanLogMenuItem", Qt::NoModifier, true, true, "log", false, false},
        {"openScanLogMenuItem", Qt::NoModifier, true, false, "log", false, true},
        {"openScanLogMenuItem", Qt::AltModifier, true, true, "", true, false},
        {"openScanLogMenuItem", Qt::AltModifier, false, true, "log", true, false},
        {"openVelgarConsoleLogMenuItem", Qt::NoModifier, true, true, "", true, false},
        {"openVelgarConsoleLogMenuItem", Qt::NoModifier, false, true, "log", true, false},
        // No preferences loaded: there is no update log option.
        {"openUpdateLogMenuItem", Qt::NoModifier, true, true, "", false, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.item) + (c.modifiers ? " with Alt" : "") +
                     (c.applicationLaunches ? "" : ", no main application") +
                     (c.applicationOpensFiles ? "" : ", no application opens files"));
        agent.workspace.opened.clear();
        agent.workspace.launched.clear();
        agent.workspace.beeps = 0;
        agent.workspace.opens = c.applicationOpensFiles;
        agent.workspace.launches = c.applicationLaunches;
        agent.menu->openLog(agent.find(c.item), c.modifiers);
        EXPECT_EQ(agent.workspace.opened, *c.opened ? std::vector{scanLog} : std::vector<std::string>{});
        EXPECT_EQ(agent.workspace.launched.size(), c.launched ? 1u : 0u);
        EXPECT_EQ(agent.workspace.beeps, c.beep ? 1 : 0);
    }
}

TEST(StatusMenu, ItemsRunTheControllerOperationOfTheirName)
{
    DesktopAgent agent;
    kvtest::LogCapture log;

    // A scripted restart happens only while the restart item is on; this
    // one fails to find an engine and leaves the menu disabled.
    agent.menu->enableMenuItems(kv::MenuState::Busy);
    agent.menu->canRestartFromAS();
    EXPECT_FALSE(log.contains("restartWatcher"));
    agent.menu->enableMenuItems(kv::MenuState::Watching);
    agent.menu->canRestartFromAS();
    EXPECT_TRUE(log.contains("restartWatcher"));
    EXPECT_EQ(enabledPattern(agent).substr(0, 4), "0000");

    agent.find("openAppMenuItem")->trigger();
    EXPECT_EQ(agent.workspace.launched, std::vector<std::string>{"com.korvane.Korvane"});

    // The stop item's confirmation, on while a scan runs, stops the scans.
    agent.menu->enableMenuItems(kv::MenuState::Busy);
    agent.find("abortConfirmMenuItem")->trigger();
    EXPECT_TRUE(log.contains("The scans in progress were stopped")) << "the scans were not stopped";

    agent.menu->enableMenuItems(kv::MenuState::Watching);
    agent.find("stopMenuItem")->trigger();
    EXPECT_EQ(enabledPattern(agent).substr(0, 4), "1000") << "stopped";

    agent.find("quitMenuItem")->trigger();
    EXPECT_EQ(agent.exitStatuses, std::vector<int>{0});
}

} // namespace
