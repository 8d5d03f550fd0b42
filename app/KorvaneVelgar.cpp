#include "app/KorvaneVelgar.h"

#include "app/StatusMenu.h"
#include "platform/DistributedCenter.h"
#include "platform/Log.h"
#include "platform/PathText.h"
#include "platform/Paths.h"
#include "platform/Preferences.h"
#include "platform/SleepEvents.h"
#include "platform/VolumeEvents.h"
#include "scan/ScanAlerts.h"

#include <unistd.h>

#include <cstdio>

namespace kv {

KorvaneVelgar::KorvaneVelgar(ControllerParts parts)
    : parts_(std::move(parts)), mainMenu_(parts_.mainMenu), notifications_(parts_.notifier, parts_.strings),
      mainApplication_(parts_.workspace, parts_.distributedCenter, [this] { quit(); }),
      scanLog_(parts_.homeDirectory.empty() ? homeDirectory() : parts_.homeDirectory),
      theDispatcher_(parts_.dispatcherPause ? parts_.dispatcherPause : Dispatcher::Pause()),
      scanners_(*this, theDispatcher_, activity_), gfsLogger_(theDispatcher_),
      updater_(activity_, notifications_, parts_.panels)
{
    if (!parts_.exitProcess) {
        parts_.exitProcess = [](int status) {
            std::fflush(stdout);
            std::fflush(stderr);
            ::_exit(status);
        };
    }
    // New definitions may know what old ones passed.
    updater_.setUpdatedHandler([this] { scanners_.forgetCleanFiles(); });
    // The texts first: the workers may notify from their first run on.
    notifications_.prepare();
    if (parts_.redirectToScanLog)
        scanLog_.logAllToScanLog();
}

KorvaneVelgar::~KorvaneVelgar()
{
    // The watch loop calls the controller: it ends before anything goes.
    gfsLogger_.stopWatching();
    if (queueThread_.joinable()) {
        theDispatcher_.requestStop();
        queueThread_.join();
    }
}

void KorvaneVelgar::applicationDidFinishLaunching()
{
    // The permanent threads, the indicator first.
    if (mainMenu_)
        mainMenu_->startIndicator(activity_);
    if (!queueThread_.joinable())
        queueThread_ = std::thread([this] { theDispatcher_.mainLoop(); });
    scanners_.start();
    startWatcher(true);

    if (parts_.panels && dockIconChoice(*parts_.velgarPrefs) != DockIcon::TrayOnly) {
        if (const int error = parts_.panels->transformToForegroundApplication(); error != 0)
            nsLogf("Could not bring the application to front. Error %d", error);
    }
    if (parts_.distributedCenter) {
        const bool observing =
            parts_.distributedCenter->observe(bus::kShouldRestart,
                                              [this](const std::string&, const std::string&) { restartWatcher(); }) &&
            parts_.distributedCenter->observe(bus::kShouldQuit,
                                              [this](const std::string&, const std::string&) { quit(); });
        if (!observing)
            nsLog("No D-Bus session bus: restart and quit requests cannot reach the agent");
    }
    startAfterSleep = false;
    if (parts_.sleepEvents)
        parts_.sleepEvents->observe([this] { goingToSleep(); }, [this] { wakingUp(); });
}

void KorvaneVelgar::startWatcher(bool update)
{
    LoadedConfiguration::Notice notice;
    loaded_ = LoadedConfiguration::load(*parts_.velgarPrefs, clamd_, &notice);
    if (notice.engineIncomplete)
        noEnginePanic();
    if (notice.standInTookOver)
        displayGrowlDialog(NotificationKind::Error, localizedString("SERVICE_STANDIN"));
    if (!loaded_) {
        displayDialog(Panel::NoEngine);
        if (mainMenu_)
            mainMenu_->enableMenuItems(MenuState::Disabled);
        return;
    }
    const Settings& settings = *loaded_->settings;
    if (settings.needsExit1FreshclamFlag)
        needsExit1FreshclamFlag_ = true;
    rotateLogFile();
    if (::access(loaded_->clamScanPATH.c_str(), R_OK) != 0)
        displayDialog(Panel::NoEngine);
    scanners_.configure(loaded_->scanParameters);
    populateMenu(settings);
    gfsLogger_.setWatchList(loaded_->watchList);
    if (!gfsLogger_.isWatching())
        gfsLogger_.start(*this);
    // Until the next stop.
    if (parts_.volumeEvents)
        parts_.volumeEvents->observeMounts([this](const std::string& mountPoint) { newVolumeAppeared(mountPoint); });
    // While watching, the machine waits for the agent to stop before it sleeps.
    if (parts_.sleepEvents)
        parts_.sleepEvents->holdSleepDelay();
    if (update && settings.updateDefsAtLaunch)
        updateVirusDefs(false);
    nsLogf("Watching started: %zu watched folders and files", loaded_->watchList->size());
    scanners_.resetHeldOpens();
    if (const unsigned seconds = loaded_->watchList->holdSeconds(); seconds > 0 && loaded_->watchList->size() > 0) {
        std::string folders;
        for (const auto& [folder, subfolders] : loaded_->watchList->foldersAndSubfolders())
            folders += (folders.empty() ? "" : ", ") + displayText(folder) + (subfolders ? " (with subfolders)" : "");
        nsLogf("Opens of new files wait for their verdict, at most %u seconds, in the folders you own among: %s",
               seconds, folders.c_str());
    }
}

void KorvaneVelgar::stopWatcher()
{
    gfsLogger_.stopWatching();
    if (loaded_ && loaded_->watchList->holdSeconds() > 0)
        nsLog("Opens in the watched folders no longer wait for a verdict");
    if (parts_.volumeEvents)
        parts_.volumeEvents->removeObserver();
    if (mainMenu_)
        mainMenu_->clearMenu();
    loaded_.reset();
}

void KorvaneVelgar::restartWatcher()
{
    nsLog("restartWatcher");
    if (isWatching())
        stopWatcher();
    startWatcher(false);
}

void KorvaneVelgar::abortScans()
{
    theDispatcher_.abortScans();
    scanners_.killClients();
    nsLog("The scans in progress were stopped: their files are scanned when they next change");
}

void KorvaneVelgar::quit()
{
    if (isWatching())
        stopWatcher();
    if (parts_.distributedCenter)
        parts_.distributedCenter->removeAllObservers();
    if (clamd_.weLaunchedClamd()) {
        nsLog("trying to quit clamd\n");
        clamd_.clamdController().communicateWithSocket(clamd_.clamdSocket(), "QUIT");
    }
    if (parts_.distributedCenter)
        parts_.distributedCenter->post(bus::kHasQuit, bus::kAgentObject);
    parts_.exitProcess(0);
}

void KorvaneVelgar::populateMenu(const Settings& settings)
{
    if (!mainMenu_)
        return;
    mainMenu_->clearMenu();
    mainMenu_->setNumItemsToWatch(static_cast<int>(settings.watchedFolders.size()));
    // Every record gets its entry, whether its path exists or not, and counts
    // one more towards the menu's readiness.
    for (const WatchedFolder& folder : settings.watchedFolders) {
        mainMenu_->addToMenu(folder.path, folder.path);
        mainMenu_->setReady();
    }
}

void KorvaneVelgar::rotateLogFile()
{
    scanLog_.rotateLogFile(parts_.velgarPrefs->object("rotateScanlogWhenSizeReaches"), loaded_->temporaryFolder,
                           parts_.redirectToScanLog);
}

std::string KorvaneVelgar::preventionStatus() const
{
    if (!loaded_ || loaded_->watchList->holdSeconds() == 0 || !isWatching())
        return "off";
    const HeldOpens::Counts counts = scanners_.heldOpens();
    return "on " + std::to_string(counts.held) + " " + std::to_string(counts.blocked);
}

std::optional<std::string> KorvaneVelgar::updateLogPath() const
{
    return loaded_ ? loaded_->updateLogPath : std::nullopt;
}

void KorvaneVelgar::postToMainThread(std::function<void()> task)
{
    // Dropped with the controller: a task never outlives what it asks of.
    QMetaObject::invokeMethod(this, std::move(task), Qt::QueuedConnection);
}

std::string KorvaneVelgar::localizedString(const std::string& key) const
{
    return notifications_.localizedString(key);
}

bool KorvaneVelgar::clamdStillAlive()
{
    const bool alive = clamd_.clamdStillAlive();
    if (alive)
        engineAnswered();
    return alive;
}

bool KorvaneVelgar::recoverFromCrashedClamd(uint64_t generation)
{
    const ClamdSupervisor::Recovery recovery = clamd_.recoverFromCrashedClamd(generation);
    // The user hears of a silent service once, when the stand-in takes over;
    // without a stand-in the scanners' unreachable-engine alert says it once.
    if (recovery == ClamdSupervisor::Recovery::StandInTookOver)
        displayGrowlDialog(NotificationKind::Error, localizedString("SERVICE_STANDIN"));
    // A relaunch that did not take is no answer: only the daemon's PING
    // opens the unreachable-engine alert again.
    if (recovery == ClamdSupervisor::Recovery::Relaunched || recovery == ClamdSupervisor::Recovery::StandInTookOver)
        clamdStillAlive();
    return recovery == ClamdSupervisor::Recovery::Relaunched;
}

void KorvaneVelgar::engineUnreachable(const std::string& scannerName)
{
    nsLog("can't connect to clamd");
    // Every silent run is logged; the user is told once per silence: the
    // controller sees every sign that the engine answers again (a PING, a
    // relaunch, a run that reached it), where the dialogs see none of them.
    if (engineUnreachableTold_.exchange(true))
        return;
    const std::string message = localizedString("CLAMDSCAN_ERROR");
    const std::string quitTitle = mainMenu_ ? mainMenu_->getQuitMenuName() : std::string();
    if (!parts_.scanAlerts || !parts_.scanAlerts->showEngineUnreachableDialog(scannerName, message, quitTitle)) {
        nsLog("Error loading nib for warning dialog!");
        return;
    }
    displayGrowlDialog(NotificationKind::Error, message);
}

void KorvaneVelgar::noEnginePanic()
{
    displayGrowlDialog(NotificationKind::Error, localizedString("CLAMDSCAN_ERROR"));
    displayDialog(Panel::NoEngine);
}

bool KorvaneVelgar::displayGrowlDialog(NotificationKind kind, const std::string& description)
{
    return notifications_.display(kind, description);
}

void KorvaneVelgar::displayDialog(Panel panel)
{
    if (parts_.panels)
        parts_.panels->displayDialog(panel);
}

void KorvaneVelgar::openAppFromError()
{
    mainApplication_.openApp();
    quit();
}

void KorvaneVelgar::updateVirusDefs(bool notify)
{
    // The update gets the updater settings as they are now; a restart while
    // it runs loads new ones for the next.
    std::optional<std::string> logOption;
    if (loaded_ && loaded_->updateLogPath)
        logOption = "--log=" + *loaded_->updateLogPath;
    updater_.start(DefinitionsUpdate(loaded_ ? loaded_->freshclamPATH : std::nullopt, std::move(logOption),
                                     needsExit1FreshclamFlag_),
                   notify);
}

void KorvaneVelgar::goingToSleep()
{
    if (isWatching()) {
        nsLog("We're currently watching for changes, so stop and then register to know when we wake up again");
        stopWatcher();
        startAfterSleep = true;
    }
    nsLog("Nighty night!");
    // Only now, with watching stopped, may the machine go to sleep.
    if (parts_.sleepEvents)
        parts_.sleepEvents->releaseSleepDelay();
}

void KorvaneVelgar::wakingUp()
{
    nsLog("Wakey wakey!");
    if (startAfterSleep) {
        startWatcher(false);
        startAfterSleep = false;
    }
}

void KorvaneVelgar::newVolumeAppeared(const std::string& devicePath)
{
    if (loaded_ && loaded_->watchList->watches(devicePath)) {
        nsLog("One of the volumes we're supposed to be watching has just appeared, so don't scan it for the time "
              "being, just wait for new additions.");
        return;
    }
    parts_.velgarPrefs->synchronize();
    if (!parts_.velgarPrefs->boolean("VelgarScanVolumes"))
        return;
    nsLogf("The volume %s was just mounted and we're not supposed to be monitoring it for new content, so just scan "
           "it immediately.",
           displayText(devicePath).c_str());
    theDispatcher_.addStringToItemList(devicePath);
}

} // namespace kv
