// The status menu: its states, the watched-folder submenu, the "ShowDockIcon"
// choice and the commands behind the items.

#include "tests/desktop/DesktopTestSupport.h"

#include <gtest/gtest.h>

#include <QMenu>
#include <QSystemTrayIcon>

#include <map>
#include <thread>

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

void setAll(const DesktopAgent& agent, bool on)
{
    for (const char* name : kStateItems)
        agent.find(name)->setEnabled(on);
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
        setAll(agent, true);
        agent.menu->enableMenuItems(c.state);
        EXPECT_EQ(enabledPattern(agent), c.fromAllOn) << "state " << c.state;
        setAll(agent, false);
        agent.menu->enableMenuItems(c.state);
        EXPECT_EQ(enabledPattern(agent), c.fromAllOff) << "state " << c.state;
    }
    setAll(agent, true);
    agent.menu->enableMenuItems(4);
    EXPECT_EQ(enabledPattern(agent), "11111111") << "a state outside 0 to 3 changes nothing";
}

TEST(StatusMenu, ThreeFoldersListNewestFirstAndWatchOnlyWhenAllAreReady)
{
    DesktopAgent agent;
    agent.menu->startIndicator(*agent.controller);
    const QString startTitle = agent.find("startMenuItem")->text();
    agent.menu->clearMenu();
    agent.menu->setNumItemsToWatch(3);

    const std::string folders[] = {agent.home / "A/", agent.home / "B/", "/srv/C/"};
    for (int i = 0; i < 3; ++i) {
        agent.menu->addToMenu(folders[i], "");
        EXPECT_EQ(agent.find("startMenuItem")->text(), QString::fromUtf8("Please wait…"));
        EXPECT_EQ(enabledPattern(agent).substr(0, 4), "0010") << "disabled, with the folders item on";
        agent.menu->setReady();
        EXPECT_EQ(agent.menu->currentlyWatching(), i == 2) << "after folder " << i;
    }
    EXPECT_EQ(agent.find("startMenuItem")->text(), startTitle);
    EXPECT_EQ(enabledPattern(agent), "01110011");

    QStringList titles;
    for (const QAction* entry : agent.menu->theSubMenu()->actions())
        titles << entry->text();
    EXPECT_EQ(titles, QStringList({"/srv/C/", "~/B/", "~/A/"}));

    // Choosing an entry opens its folder, the tilde expanded again.
    agent.menu->theSubMenu()->actions().at(1)->trigger();
    EXPECT_EQ(agent.workspace.opened, std::vector<std::string>{agent.home / "B/"});
}

TEST(StatusMenu, VolumeRootIsCountedWithoutAnEntry)
{
    DesktopAgent agent;
    agent.menu->clearMenu();
    agent.menu->setNumItemsToWatch(2);
    agent.menu->addToMenu("/media", "");
    agent.menu->setReady();
    agent.menu->addToMenu(agent.home / "Downloads/", "");
    EXPECT_FALSE(agent.menu->currentlyWatching());
    agent.menu->setReady();
    EXPECT_TRUE(agent.menu->currentlyWatching());
    ASSERT_EQ(agent.menu->theSubMenu()->actions().size(), 1);
    EXPECT_EQ(agent.menu->theSubMenu()->actions().at(0)->text(), "~/Downloads/");
}

TEST(StatusMenu, NoFoldersLeavesTheMenuStopped)
{
    DesktopAgent agent;
    agent.menu->startIndicator(*agent.controller);
    agent.menu->clearMenu();
    agent.menu->setNumItemsToWatch(0);
    EXPECT_FALSE(agent.menu->currentlyWatching());
    EXPECT_EQ(enabledPattern(agent).substr(0, 4), "1000");
    EXPECT_TRUE(agent.menu->theSubMenu()->actions().isEmpty());
    EXPECT_EQ(agent.menu->alternateImageName(), "alt2");
}

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
        DesktopAgent agent({.showDockIcon = c.preference});
        agent.menu->startIndicator(*agent.controller);
        kv::MyMenuItem* quit = agent.find("quitMenuItem");
        EXPECT_EQ(agent.menu->statusItem()->isVisible(), c.trayIcon) << c.preference;
        EXPECT_EQ(agent.menu->theMenu()->actions().contains(quit), c.quitInMenu) << c.preference;
        quit->setEnabled(true);
        agent.menu->enableMenuItems(3);
        EXPECT_EQ(quit->isEnabled(), !c.quitFollowsStates) << c.preference;
    }
}

TEST(StatusMenu, QuitTitleIsTheQuitItemsOwnForAnyThread)
{
    DesktopAgent agent;
    std::string fromScanner;
    std::thread scanner([&] { fromScanner = agent.menu->getQuitMenuName(); });
    scanner.join();
    EXPECT_EQ(fromScanner, agent.find("quitMenuItem")->text().toStdString());
    EXPECT_FALSE(fromScanner.empty());
}

TEST(StatusMenu, OpenLogPicksTheFileOrBeeps)
{
    DesktopAgent agent;
    const std::string logs = agent.home / "Library/Logs";
    kvtest::writeFile(logs + "/KorvaneVelgar-scan.log", "");
    kvtest::writeFile(logs + "/korvane-scan.log", "");
    kvtest::writeFile(logs + "/KorvaneVelgarConsole.log", "");
    struct Case {
        const char* item;
        Qt::KeyboardModifiers modifiers;
        std::string opens; // empty: a beep
    };
    const Case cases[] = {
        {"openScanLogMenuItem", Qt::NoModifier, logs + "/KorvaneVelgar-scan.log"},
        {"openScanLogMenuItem", Qt::AltModifier, logs + "/korvane-scan.log"},
        {"openVelgarConsoleLogMenuItem", Qt::NoModifier, logs + "/KorvaneVelgarConsole.log"},
        // No preferences loaded: there is no update log option.
        {"openUpdateLogMenuItem", Qt::NoModifier, ""},
    };
    for (const Case& c : cases) {
        agent.workspace.opened.clear();
        agent.workspace.beeps = 0;
        agent.menu->openLog(agent.find(c.item), c.modifiers);
        EXPECT_EQ(agent.workspace.opened, c.opens.empty() ? std::vector<std::string>{} : std::vector{c.opens})
            << c.item << " " << c.modifiers;
        EXPECT_EQ(agent.workspace.beeps, c.opens.empty() ? 1 : 0) << c.item;
    }

    // A log that is not there, or that no application opens: a beep.
    ::unlink((logs + "/korvane-scan.log").c_str());
    agent.workspace.beeps = 0;
    agent.menu->openLog(agent.find("openScanLogMenuItem"), Qt::AltModifier);
    agent.workspace.opens = false;
    agent.menu->openLog(agent.find("openScanLogMenuItem"), Qt::NoModifier);
    EXPECT_EQ(agent.workspace.beeps, 2);
}

TEST(StatusMenu, ItemsRunTheControllerOperationOfTheirName)
{
    DesktopAgent agent;
    kvtest::LogCapture log;

    // A scripted restart happens only while the restart item is on; this
    // one fails to find an engine and leaves the menu disabled.
    agent.menu->enableMenuItems(3);
    agent.menu->canRestartFromAS();
    EXPECT_FALSE(log.contains("restartWatcher"));
    agent.menu->enableMenuItems(2);
    agent.menu->canRestartFromAS();
    EXPECT_TRUE(log.contains("restartWatcher"));
    EXPECT_EQ(enabledPattern(agent).substr(0, 4), "0000");

    agent.find("openAppMenuItem")->trigger();
    EXPECT_EQ(agent.workspace.launched, std::vector<std::string>{"com.korvane.Korvane"});

    agent.menu->enableMenuItems(2);
    agent.find("stopMenuItem")->trigger();
    EXPECT_EQ(enabledPattern(agent).substr(0, 4), "1000") << "stopped";

    agent.find("quitMenuItem")->trigger();
    EXPECT_EQ(agent.exitStatuses, std::vector<int>{0});
    ASSERT_FALSE(agent.center.posted.empty());
    EXPECT_EQ(agent.center.posted.back().first, "KorvaneVelgarHasQuit");
}

} // namespace
