#include "ui/Throbber.h"

#include "app/KorvaneVelgar.h"
#include "platform/Log.h"
#include "platform/Paths.h"
#include "platform/Preferences.h"
#include "platform/Workspace.h"
#include "scan/ScanActivity.h"
#include "ui/IndicatorClock.h"
#include "ui/MyMenuItem.h"

#include <QApplication>
#include <QCursor>
#include <QFile>
#include <QMenu>
#include <QSystemTrayIcon>
#include <QThread>
#include <QWidget>

#include <algorithm>
#include <cctype>

namespace kv {
namespace {

using std::chrono::microseconds;

std::string abbreviateWithTilde(const std::string& path, const std::string& home)
{
    if (home.empty() || home == "/")
        return path;
    if (path == home)
        return "~";
    if (path.size() > home.size() && path.compare(0, home.size(), home) == 0 && path[home.size()] == '/')
        return "~" + path.substr(home.size());
    return path;
}

std::string expandTildeIn(const std::string& path, const std::string& home)
{
    if (path == "~")
        return home;
    if (path.starts_with("~/"))
        return joinPath(home, path.substr(2));
    return expandTilde(path);
}

// A volume root gets no submenu entry: it is not a folder the user chose to
// open, only the place where new volumes appear.
bool isVolumeRoot(std::string path)
{
    if (path.size() > 1 && path.back() == '/')
        path.pop_back();
    const std::vector<std::string>& roots = volumeRoots();
    return std::find(roots.begin(), roots.end(), path) != roots.end();
}

} // namespace

Throbber::Throbber(QWidget* interfaceRoot, Environment environment, QObject* parent)
    : QObject(parent), environment_(std::move(environment)), clock_(environment_.clock),
      home_(environment_.homeDirectory.empty() ? homeDirectory() : environment_.homeDirectory)
{
    if (!clock_) {
        ownClock_ = std::make_unique<SteadyIndicatorClock>();
        clock_ = ownClock_.get();
    }

    if (interfaceRoot) {
        auto item = [interfaceRoot](const char* name) { return interfaceRoot->findChild<MyMenuItem*>(name); };
        theMenu_ = interfaceRoot->findChild<QMenu*>("theMenu");
        theSubMenu_ = interfaceRoot->findChild<QMenu*>("theSubMenu");
        startMenuItem = item("startMenuItem");
        stopMenuItem = item("stopMenuItem");
        foldersWatchedMenuItem = item("foldersWatchedMenuItem");
        restartMenuItem = item("restartMenuItem");
        abortMenuItem = item("abortMenuItem");
        abortConfirmMenuItem = item("abortConfirmMenuItem");
        quitMenuItem = item("quitMenuItem");
        updateDefsMenuItem = item("updateDefsMenuItem");
        openScanLogMenuItem = item("openScanLogMenuItem");
        openVelgarConsoleLogMenuItem = item("openVelgarConsoleLogMenuItem");
        openUpdateLogMenuItem = item("openUpdateLogMenuItem");
        openAppMenuItem = item("openAppMenuItem");
        openPrefsMenuItem = item("openPrefsMenuItem");
        // An interface file cannot hang a submenu on a named item; the two
        // submenus are attached here.
        if (foldersWatchedMenuItem && theSubMenu_)
            foldersWatchedMenuItem->setMenu(theSubMenu_.data());
        if (auto* abortSubMenu = interfaceRoot->findChild<QMenu*>("abortSubMenu"); abortSubMenu && abortMenuItem)
            abortMenuItem->setMenu(abortSubMenu);
    }
    if (!theMenu_ || !theSubMenu_ || !startMenuItem || !quitMenuItem)
        nsLog("The main interface file lacks the status menu or some of its items; they are left out");
    if (quitMenuItem)
        quitTitle_ = quitMenuItem->text().toStdString();

    // Read before the first preferences load: only the agent's own domain
    // counts here, not the main application's.
    if (environment_.preferences) {
        environment_.preferences->synchronize();
        dockIcon_ = dockIconChoice(*environment_.preferences);
    }
    statusItem_ = new QSystemTrayIcon(this);
    statusItem_->setToolTip(QStringLiteral("Korvane Velgar"));
    // An application icon alone: no tray icon (a status item of length 0),
    // and no quit item in a menu nobody sees.
    if (dockIcon_ == DockIcon::IconOnly && theMenu_ && quitMenuItem)
        theMenu_->removeAction(quitMenuItem);
    // Panels that send only "activate" for a click still open the menu.
    connect(statusItem_, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger && theMenu_)
            theMenu_->popup(QCursor::pos());
    });
}

Throbber::~Throbber() { stopIndicator(); }

void Throbber::setKorvaneVelgarController(KorvaneVelgar* controller)
{
    korvaneVelgarController_ = controller;
    if (!controller)
        return;
    auto bind = [this](MyMenuItem* item, std::function<void()> operation) {
        if (item)
            connect(item, &QAction::triggered, this, std::move(operation));
    };
    bind(startMenuItem, [controller] { controller->startWatcher(false); });
    bind(stopMenuItem, [controller] { controller->stopWatcher(); });
    bind(restartMenuItem, [controller] { controller->restartWatcher(); });
    bind(abortConfirmMenuItem, [controller] { controller->abortScans(); });
    bind(quitMenuItem, [controller] { controller->quit(); });
    bind(openAppMenuItem, [controller] { controller->mainApplication().openApp(); });
    bind(openPrefsMenuItem, [controller] { controller->mainApplication().openPrefs(false); });
    for (MyMenuItem* logItem : {openScanLogMenuItem.data(), openVelgarConsoleLogMenuItem.data(), openUpdateLogMenuItem.data()})
        bind(logItem, [this, logItem] { openLog(logItem, logItem->modifiersOfLastChoice()); });
    bind(updateDefsMenuItem, [controller] { controller->updateVirusDefs(); });
}

void Throbber::runOnMainThread(std::function<void()> change)
{
    if (QThread::currentThread() == thread())
        change();
    else
        QMetaObject::invokeMethod(this, std::move(change), Qt::QueuedConnection);
}

bool Throbber::quitItemFollowsStates() const { return dockIcon_ == DockIcon::TrayOnly; }

void Throbber::enableMenuItems(MenuState state)
{
    if (observer_)
        observer_->menuStateShown(state);
    runOnMainThread([this, state] {
        applyMenuState(state);
        Q_EMIT menuStateApplied(state);
    });
}

void Throbber::applyMenuState(MenuState state)
{
    // One row per item: the item's setting in states 0 to 3, '1' on, '0' off,
    // '-' left as it is.
    struct Row {
        QPointer<MyMenuItem> Throbber::*item;
        const char* settings;
    };
    static constexpr Row rows[] = {
        {&Throbber::startMenuItem, "0100"},        {&Throbber::stopMenuItem, "0010"},
        {&Throbber::foldersWatchedMenuItem, "0---"}, {&Throbber::restartMenuItem, "0010"},
        {&Throbber::abortMenuItem, "0-01"},        {&Throbber::abortConfirmMenuItem, "0-01"},
        {&Throbber::updateDefsMenuItem, "0-10"},   {&Throbber::quitMenuItem, "1-10"},
    };
    for (const Row& row : rows) {
        MyMenuItem* item = (this->*row.item).data();
        const char setting = row.settings[static_cast<int>(state)];
        if (!item || setting == '-')
            continue;
        if (row.item == &Throbber::quitMenuItem && !quitItemFollowsStates())
            continue;
        item->setEnabled(setting == '1');
    }
}

void Throbber::clearMenu()
{
    if (theSubMenu_)
        theSubMenu_->clear();
    numReadyToWatch = 0;
    if (foldersWatchedMenuItem)
        foldersWatchedMenuItem->setEnabled(false);
    currentlyWatching_ = false;
    enableMenuItems(MenuState::Stopped);
    setMenuAndDockTile(defaultImage);
    setAlternateImage(altImage2);
}

void Throbber::setNumItemsToWatch(int count) { numItemsToWatch = count; }

void Throbber::addToMenu(const std::string& path, const std::string& objectToWatch)
{
    if (!isVolumeRoot(path) && theSubMenu_) {
        if (foldersWatchedMenuItem && !foldersWatchedMenuItem->isEnabled())
            foldersWatchedMenuItem->setEnabled(true);
        auto* entry = new QAction(QString::fromStdString(abbreviateWithTilde(path, home_)), theSubMenu_);
        connect(entry, &QAction::triggered, this, [this, entry] { openFolder(entry); });
        // Newest first: the submenu lists the folders in reverse order.
        const QList<QAction*> entries = theSubMenu_->actions();
        theSubMenu_->insertAction(entries.isEmpty() ? nullptr : entries.first(), entry);
    }
    enableMenuItems(MenuState::Disabled);
    if (startMenuItem) {
        const std::string wait = korvaneVelgarController_ ? korvaneVelgarController_->localizedString("WAIT") : "WAIT";
        startMenuItem->setText(QString::fromStdString(wait));
    }
    if (foldersWatchedMenuItem)
        foldersWatchedMenuItem->setEnabled(true);
}

void Throbber::setReady()
{
    ++numReadyToWatch;
    if (numReadyToWatch < numItemsToWatch)
        return;
    currentlyWatching_ = true;
    if (startMenuItem)
        startMenuItem->setText(QString::fromStdString(startWatchingMenuItemText));
    enableMenuItems(MenuState::Watching);
    setMenuAndDockTile(watchingImage);
    setAlternateImage(altImage);
}

void Throbber::setMenuAndDockTile(const ImagePair& pair)
{
    if (observer_)
        observer_->imagesShown(pair.name);
    runOnMainThread([this, statusImage = pair.statusImage, applicationIcon = pair.applicationIcon] {
        statusItem_->setIcon(statusImage);
        QApplication::setWindowIcon(applicationIcon);
    });
}

void Throbber::setAlternateImage(const ImagePair& pair)
{
    runOnMainThread([this, name = pair.name] { alternateImageName_ = name; });
}

void Throbber::openFolder(const QAction* item)
{
    if (item && environment_.workspace)
        environment_.workspace->openPath(expandTildeIn(item->text().toStdString(), home_));
}

void Throbber::openLog(const QObject* sender, Qt::KeyboardModifiers modifiers)
{
    Workspace* workspace = environment_.workspace;
    if (!workspace)
        return;
    std::string path;
    const std::string scanLog = joinPath(home_, "Library/Logs/KorvaneVelgar-scan.log");
    if (sender && sender == openScanLogMenuItem.data()) {
        path = scanLog;
        // The main application's scan log is its History page.
        if ((modifiers & Qt::AltModifier) && korvaneVelgarController_ &&
            korvaneVelgarController_->mainApplication().openPage("history"))
            return;
    } else if (sender && sender == openVelgarConsoleLogMenuItem.data()) {
        // The agent's diagnostics go to the system log and to its standard
        // error, which is the scan log: the main application shows them
        // apart from the scan results; without it, the scan log itself.
        if (korvaneVelgarController_ && korvaneVelgarController_->mainApplication().openPage("diagnostics"))
            return;
        path = scanLog;
    } else {
        const std::optional<std::string> updateLog =
            korvaneVelgarController_ ? korvaneVelgarController_->updateLogPath() : std::nullopt;
        if (!updateLog || updateLog->empty()) {
            workspace->beep();
            return;
        }
        path = *updateLog;
    }
    if (!pathExists(path)) {
        workspace->beep();
        return;
    }
    workspace->openPath(path, [workspace](bool opened) {
        if (!opened)
            workspace->beep();
    });
}

void Throbber::canRestartFromAS()
{
    if (restartMenuItem && restartMenuItem->isEnabled() && korvaneVelgarController_)
        korvaneVelgarController_->restartWatcher();
}

std::string Throbber::getQuitMenuName() const { return quitTitle_; }

ImagePair Throbber::loadImagePair(const std::string& name, const std::string& dockName) const
{
    const QString folder = QString::fromStdString(joinPath(environment_.resourcesFolder, "images")) + "/";
    auto load = [&folder](const std::string& imageName) {
        QIcon icon;
        // The double-size file keeps the image sharp on scaled panels.
        for (const QString& suffix : {QStringLiteral(".png"), QStringLiteral("@2x.png")}) {
            const QString path = folder + QString::fromStdString(imageName) + suffix;
            if (QFile::exists(path))
                icon.addFile(path);
        }
        if (icon.isNull())
            nsLogf("The image \"%s\" is missing from %s", imageName.c_str(), qPrintable(folder));
        return icon;
    };
    return ImagePair{name, load(name), load(dockName)};
}

void Throbber::loadImages()
{
    defaultImage = loadImagePair("default", "dock_default");
    altImage = loadImagePair("alt", "dock_alt");
    altImage2 = loadImagePair("alt2", "dock_alt");
    watchingImage = loadImagePair("watching", "dock_watching");
    for (size_t i = 0; i < frames.size(); ++i) {
        const std::string number = std::to_string(i + 1);
        frames[i] = loadImagePair("scanning" + number, "dock_scanning" + number);
    }
}

void Throbber::startIndicator(ScanActivity& activity)
{
    if (indicatorThread_.joinable())
        return;
    activity_ = &activity;

    // The start-up steps run here, on the main thread, before the thread
    // exists: the first folder rebuild then always finds the start item's own
    // title remembered and the images loaded.
    numReadyToWatch = 0;
    if (startMenuItem)
        startWatchingMenuItemText = startMenuItem->text().toStdString();
    loadImages();
    setMenuAndDockTile(defaultImage);
    setAlternateImage(altImage);
    if (theMenu_)
        statusItem_->setContextMenu(theMenu_);
    if (dockIcon_ != DockIcon::IconOnly)
        statusItem_->show();
    if (abortMenuItem)
        abortMenuItem->setEnabled(false);
    if (abortConfirmMenuItem)
        abortConfirmMenuItem->setEnabled(false);

    indicatorThread_ = std::thread([this, &activity] { indicatorLoop(activity); });
}

void Throbber::stopIndicator()
{
    if (!indicatorThread_.joinable())
        return;
    stopRequested_ = true;
    clock_->interrupt();
    activity_->wakeWaiters();
    indicatorThread_.join();
}

void Throbber::indicatorLoop(ScanActivity& activity)
{
    for (;;) {
        if (!clock_->pause(std::chrono::seconds(1)))
            return;
        if (!currentlyWatching_)
            continue;
        if (!activity.waitUntilBusy(stopRequested_))
            return;

        enableMenuItems(MenuState::Busy);
        if (activity.updating()) {
            do
                animateMenuForUpdate();
            while (activity.updating() && !stopRequested_);
        } else {
            while (activity.scannerCount() >= 1 && !stopRequested_)
                animateMenuForScan();
        }
        if (stopRequested_)
            return;
        enableMenuItems(MenuState::Watching);
        setMenuAndDockTile(watchingImage);
        setAlternateImage(altImage);
    }
}

void Throbber::animateMenuForScan()
{
    // Down from frame 1 to frame 7 and back to frame 2: repeated cycles swing
    // to and fro, resting twice as long on frame 1.
    static constexpr int order[] = {1, 2, 3, 4, 5, 6, 7, 6, 5, 4, 3, 2};
    bool first = true;
    for (const int frame : order) {
        setMenuAndDockTile(frames[frame - 1]);
        if (!clock_->pause(microseconds(first ? kFirstScanFramePause : kFramePause)))
            return;
        first = false;
    }
}

void Throbber::animateMenuForUpdate()
{
    for (int frame = 7; frame >= 1; --frame) {
        setMenuAndDockTile(frames[frame - 1]);
        if (!clock_->pause(microseconds(kFramePause)))
            return;
    }
}

} // namespace kv
