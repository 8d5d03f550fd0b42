#pragma once

#include "app/StatusMenu.h"
#include "platform/Settings.h"

#include <QIcon>
#include <QMenu>
#include <QObject>
#include <QPointer>

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

class QAction;
class QSystemTrayIcon;
class QWidget;

namespace kv {

class IndicatorClock;
class KorvaneVelgar;
class MyMenuItem;
class Preferences;
class Workspace;

// Two images shown together: element 0 in the status item, element 1 as the
// application icon. Loaded once and never changed, so any thread may read it.
struct ImagePair {
    std::string name;        // resource name of element 0, such as "scanning3"
    QIcon statusImage;       // element 0
    QIcon applicationIcon;   // element 1
};

// The status item (a tray icon), its menu, the watched-folder submenu, the
// menu states, the log and folder commands, and the activity indicator that
// animates the icon while scans or a definitions update run.
//
// Threads: created and driven on the main thread. The indicator thread,
// started by startIndicator(), calls enableMenuItems() and
// setMenuAndDockTile(); both hand their changes to the main thread in the
// order they were made and never wait for it. getQuitMenuName() may be
// called from any thread. currentlyWatching is written on the main thread
// and read by the indicator without a lock.
class Throbber : public QObject, public StatusMenu {
    Q_OBJECT
public:
    struct Environment {
        Preferences* preferences = nullptr; // "ShowDockIcon", read once at creation
        Workspace* workspace = nullptr;     // opening folders and logs, the beep
        IndicatorClock* clock = nullptr;    // null: a real clock of the Throbber's own
        std::string resourcesFolder;        // holds images/<name>.png
        std::string homeDirectory;          // empty: the user's home folder
    };

    // Sees every image pair and menu state as it is shown, on the thread that
    // shows it (the indicator thread for the animation), before the change is
    // handed to the main thread. Tests and the benchmark record through it.
    class Observer {
    public:
        virtual ~Observer() = default;
        virtual void imagesShown(const std::string& name) = 0;
        virtual void menuStateShown(MenuState state) = 0;
    };

    // The pauses of the animations, in microseconds.
    static constexpr int kFirstScanFramePause = 200000;
    static constexpr int kFramePause = 100000;

    // Creation: finds the menu, the submenu and the items by their names
    // below interfaceRoot (the loaded main interface file, which must outlive
    // the Throbber), reads "ShowDockIcon" and creates the status item. An
    // item the file lacks is skipped wherever it would be used.
    Throbber(QWidget* interfaceRoot, Environment environment, QObject* parent = nullptr);
    // Stops the indicator thread and waits for it.
    ~Throbber() override;

    // Binds every command item to the controller's operation of its name;
    // the menu's commands reach the controller from then on.
    void setKorvaneVelgarController(KorvaneVelgar* controller);
    // Set before startIndicator(); not owned.
    void setObserver(Observer* observer) { observer_ = observer; }

Q_SIGNALS:
    // The menu now shows this state. Main thread.
    void menuStateApplied(kv::MenuState state);

public:

    // StatusMenu.
    void enableMenuItems(MenuState state) override;
    void clearMenu() override;
    void setNumItemsToWatch(int count) override;
    void addToMenu(const std::string& path, const std::string& objectToWatch) override;
    void setReady() override;
    void startIndicator(ScanActivity& activity) override;
    std::string getQuitMenuName() const override;
    void canRestartFromAS() override;

    // Any thread.
    void setMenuAndDockTile(const ImagePair& pair);

    // Menu commands. Main thread.
    void openFolder(const QAction* item);
    void openLog(const QObject* sender, Qt::KeyboardModifiers modifiers);

    // One cycle of each animation, pauses included. Indicator thread.
    void animateMenuForScan();
    void animateMenuForUpdate();

    // Ends the indicator thread and waits for it; the agent's own indicator
    // runs until the process ends. Main thread.
    void stopIndicator();

    QSystemTrayIcon* statusItem() const { return statusItem_; }
    QMenu* theMenu() const { return theMenu_; }
    QMenu* theSubMenu() const { return theSubMenu_; }

private:
    void indicatorLoop(ScanActivity& activity);
    void applyMenuState(MenuState state);
    void loadImages();
    ImagePair loadImagePair(const std::string& name, const std::string& dockName) const;
    void setAlternateImage(const ImagePair& pair);
    bool quitItemFollowsStates() const;
    void runOnMainThread(std::function<void()> change);

    Environment environment_;
    std::unique_ptr<IndicatorClock> ownClock_;
    IndicatorClock* clock_;
    std::string home_;
    KorvaneVelgar* korvaneVelgarController_ = nullptr;
    Observer* observer_ = nullptr;

    // Outlets from the interface file; owned by it.
    QPointer<QMenu> theMenu_;
    QPointer<QMenu> theSubMenu_;
    QPointer<MyMenuItem> startMenuItem;
    QPointer<MyMenuItem> stopMenuItem;
    QPointer<MyMenuItem> foldersWatchedMenuItem;
    QPointer<MyMenuItem> restartMenuItem;
    QPointer<MyMenuItem> abortMenuItem;
    QPointer<MyMenuItem> abortConfirmMenuItem;
    QPointer<MyMenuItem> quitMenuItem;
    QPointer<MyMenuItem> updateDefsMenuItem;
    QPointer<MyMenuItem> openScanLogMenuItem;
    QPointer<MyMenuItem> openVelgarConsoleLogMenuItem;
    QPointer<MyMenuItem> openUpdateLogMenuItem;
    QPointer<MyMenuItem> openAppMenuItem;
    QPointer<MyMenuItem> openPrefsMenuItem;

    // Folder entries; main thread.
    int numItemsToWatch = 0;
    int numReadyToWatch = 0;
    std::atomic<bool> currentlyWatching_{false};
    // Loaded by startIndicator() on the main thread, read-only afterwards.
    ImagePair defaultImage, altImage, altImage2, watchingImage;
    std::array<ImagePair, 8> frames;
    // Element 0 of the last alternate pair: kept, as nothing on a Linux
    // panel shows a highlighted image.
    std::string alternateImageName_;

    std::string startWatchingMenuItemText;
    DockIcon dockIcon_ = DockIcon::TrayOnly;
    std::string quitTitle_;      // the quit item's title, for any thread
    QSystemTrayIcon* statusItem_ = nullptr;

    std::thread indicatorThread_;
    ScanActivity* activity_ = nullptr;  // set by startIndicator()
    std::atomic<bool> stopRequested_{false};
};

} // namespace kv
