#include "app/KorvaneVelgar.h"

#include "app/DefinitionsUpdate.h"
#include "app/DialogListEntry.h"
#include "app/StatusMenu.h"
#include "platform/DistributedCenter.h"
#include "platform/Log.h"
#include "platform/PathText.h"
#include "platform/Paths.h"
#include "platform/Preferences.h"
#include "platform/SleepEvents.h"
#include "platform/VolumeEvents.h"
#include "platform/TrashInfo.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <memory>

namespace kv {
namespace {

std::string lowerCased(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

// Removes the plain files of a folder; folders and links inside stay.
void removePlainFiles(const std::string& folder)
{
    DIR* directory = ::opendir(folder.c_str());
    if (!directory)
        return;
    while (const dirent* entry = ::readdir(directory)) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..")
            continue;
        const std::string path = folder + "/" + name;
        struct stat info{};
        if (::lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode))
            ::unlink(path.c_str());
    }
    ::closedir(directory);
}

} // namespace

KorvaneVelgar::KorvaneVelgar(ControllerParts parts)
    : parts_(std::move(parts)), mainMenu_(parts_.mainMenu), notifications_(parts_.notifier, parts_.strings),
      mainApplication_(parts_.workspace, parts_.distributedCenter, [this] { quit(); }),
      scanLog_(parts_.homeDirectory.empty() ? homeDirectory() : parts_.homeDirectory),
      theDispatcher_(parts_.dispatcherPause ? parts_.dispatcherPause
                                            : Dispatcher::Pause([] { std::this_thread::sleep_for(std::chrono::seconds(1)); })),
      gfsLogger_(theDispatcher_)
{
    if (!parts_.exitProcess) {
        parts_.exitProcess = [](int status) {
            std::fflush(stdout);
            std::fflush(stderr);
            ::_exit(status);
        };
    }
    firstPatientScanner_.setMyName("firstPatientScanner");
    firstPatientScanner_.setController(this);
    secondPatientScanner_.setMyName("secondPatientScanner");
    secondPatientScanner_.setController(this);
    const auto findings = std::make_shared<FindingMemory>();
    firstPatientScanner_.setFindingMemory(findings);
    secondPatientScanner_.setFindingMemory(findings);
    if (parts_.redirectToScanLog)
        logAllToScanLog();
}

KorvaneVelgar::~KorvaneVelgar()
{
    // The watch loop calls the controller: it ends before anything goes.
    gfsLogger_.stopWatching();
    {
        // An update thread uses the controller until its last step.
        std::unique_lock<std::mutex> held(updatesMutex_);
        updatesEnded_.wait(held, [this] { return runningUpdates_ == 0; });
    }
    if (permanentThreads_.empty())
        return;
    theDispatcher_.requestStop();
    firstPatientScanner_.requestStop();
    secondPatientScanner_.requestStop();
    for (std::thread& thread : permanentThreads_)
        thread.join();
}

void KorvaneVelgar::startPermanentThreads()
{
    if (!permanentThreads_.empty())
        return;
    permanentThreads_.emplace_back([this] { theDispatcher_.mainLoop(); });
    permanentThreads_.emplace_back([this] { firstPatientScanner_.mainLoop(); });
    permanentThreads_.emplace_back([this] { secondPatientScanner_.mainLoop(); });
}

std::string KorvaneVelgar::localizedString(const std::string& key) const
{
    return notifications_.localizedString(key);
}

std::string KorvaneVelgar::quitMenuName() const
{
    return mainMenu_ ? mainMenu_->getQuitMenuName() : std::string();
}

void KorvaneVelgar::postToMainThread(std::function<void()> task)
{
    // Dropped with the controller: a task never outlives what it asks of.
    QMetaObject::invokeMethod(this, std::move(task), Qt::QueuedConnection);
}

void KorvaneVelgar::applicationDidFinishLaunching()
{
    // The permanent threads, the indicator first.
    if (mainMenu_)
        mainMenu_->startIndicator(*this);
    // The texts first: the workers may notify from their first run on.
    prepareNotifications();
    startPermanentThreads();
    startWatcher(true);

    if (const std::optional<std::string> dockIcon = parts_.velgarPrefs->string("ShowDockIcon")) {
        const std::string choice = lowerCased(*dockIcon);
        if ((choice == "true" || choice == "both") && parts_.panels) {
            if (const int error = parts_.panels->transformToForegroundApplication(); error != 0)
                nsLogf("Could not bring the application to front. Error %d", error);
        }
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

void KorvaneVelgar::prepareNotifications() { notifications_.prepare(); }

void KorvaneVelgar::startWatcher(bool update)
{
    if (!readPrefs()) {
        displayDialog(Panel::NoEngine);
        if (mainMenu_)
            mainMenu_->enableMenuItems(StatusMenu::kDisabled);
        return;
    }
    rotateLogFile();
    setScanParameters();
    firstPatientScanner_.setMenuAndParams(scanParameters_);
    secondPatientScanner_.setMenuAndParams(scanParameters_);
    createMoveDestinations();
    populateMenu(*settings_);
    gfsLogger_.setWatchList(std::make_shared<const WatchList>(watchedFolderList, checkSubDirs, settings_->quarantineFolder));
    if (!gfsLogger_.isWatching())
        gfsLogger_.start(*this);
    // While watching, the machine waits for the agent to stop before it sleeps.
    if (parts_.sleepEvents)
        parts_.sleepEvents->holdSleepDelay();
    if (update && settings_->updateDefsAtLaunch)
        updateVirusDefs(false);
    nsLogf("Watching started: %zu watched folders and files", watchedFolderList.size());
}

void KorvaneVelgar::setScanParameters()
{
    if (!settings_)
        return;
    std::vector<std::string> arguments;
    if (clamScanPATH_)
        arguments.push_back(*clamScanPATH_);
    if (settings_->quarantines())
        arguments.push_back(getQuarantineLocation());
    else if (settings_->trashes())
        arguments.push_back("--move=" + trashFilesFolder());
    if (settings_->multiscan)
        arguments.push_back("--multiscan");
    arguments.push_back("--stdout");
    if (!clamScanPATH_ || ::access(clamScanPATH_->c_str(), R_OK) != 0)
        displayDialog(Panel::NoEngine);
    scanParameters_ = ScanParameters{std::move(arguments), settings_};
}

void KorvaneVelgar::createMoveDestinations()
{
    // clamdscan refuses to scan at all when its move folder is missing, so
    // an infected file would stay where it is: make the folder first.
    if (settings_->quarantines()) {
        const std::string& folder = settings_->quarantineFolder;
        if (!folder.empty() && !pathExists(folder) && !makeDirectories(folder, 0700))
            nsLogf("The quarantine folder %s cannot be created", folder.c_str());
    } else if (settings_->trashes() && !ensureTrashFolders()) {
        nsLogf("The Trash folder %s cannot be created", trashFolder().c_str());
    }
}

void KorvaneVelgar::stopWatcher()
{
    gfsLogger_.stopWatching();
    if (parts_.volumeEvents)
        parts_.volumeEvents->removeObserver();
    if (mainMenu_)
        mainMenu_->clearMenu();
    watchedFolderList.clear();

    theThrobberTempDir.reset();
    settings_.reset();
    freshclamPATH_.reset();
    freshclamLogLocation_.reset();
    clamScanPATH_.reset();
    theTempDirToWatch.reset();
    scanParameters_ = ScanParameters{};
}

void KorvaneVelgar::populateMenu(const Settings& settings)
{
    if (mainMenu_)
        mainMenu_->clearMenu();
    watchedFolderList.clear();
    checkSubDirs.clear();

    const std::vector<WatchedFolder>& folders = settings.watchedFolders;
    if (mainMenu_)
        mainMenu_->setNumItemsToWatch(static_cast<int>(folders.size()));
    for (const WatchedFolder& folder : folders) {
        // Every record gets its entry, whether its path exists or not.
        if (mainMenu_)
            mainMenu_->addToMenu(folder.path, folder.path);
        addToWatchList(folder.path, folder.subfolders);
    }
    // Until the next stopWatcher().
    if (parts_.volumeEvents)
        parts_.volumeEvents->observeMounts([this](const std::string& mountPoint) { newVolumeAppeared(mountPoint); });
}

void KorvaneVelgar::addToWatchList(const std::string& path, bool subdirs)
{
    struct stat info{};
    if (::stat(path.c_str(), &info) == 0) {
        std::string entry = path;
        if (S_ISDIR(info.st_mode)) {
            // Exactly one "/", so that a prefix test matches only paths inside.
            while (entry.size() > 1 && entry.back() == '/')
                entry.pop_back();
            if (entry != "/")
                entry += '/';
        }
        watchedFolderList.push_back(entry);
        checkSubDirs[entry] = subdirs;
    }
    if (mainMenu_)
        mainMenu_->setReady();
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
    scanClients_.killAll();
}

std::optional<std::string> KorvaneVelgar::temporaryFolder() const
{
    std::lock_guard<std::mutex> guard(temporaryFolderMutex_);
    return temporaryFolder_;
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

void KorvaneVelgar::modifyScannerCountBy(int32_t delta)
{
    throbberLock_.lock();
    {
        std::lock_guard<std::mutex> guard(scannerCountLock_);
        scannerCount_ += delta;
    }
    throbberLock_.signal();
    throbberLock_.unlock();
}

bool KorvaneVelgar::readPrefs()
{
    Preferences& prefs = *parts_.velgarPrefs;
    prefs.addSuite(kMainAppDomain);
    prefs.synchronize();
    settings_ = Settings::load(prefs);
    for (const std::string& problem : settings_->problems)
        nsLog(problem);

    const std::optional<std::string>& clamPath = settings_->clamPath;
    if (!clamPath || !settings_->updateLogPath)
        noEnginePanic();

    if (clamPath && clamPath->starts_with(kMainAppPrefix) && pathExists(kMainAppFreshclam))
        freshclamPATH_ = kMainAppFreshclam;
    else if (clamPath)
        freshclamPATH_ = *clamPath + "/bin/freshclam";
    else
        freshclamPATH_.reset();

    // Without an update log the updater runs without its log option.
    freshclamLogLocation_.reset();
    if (settings_->updateLogPath)
        freshclamLogLocation_ = "--log=" + *settings_->updateLogPath;
    clamScanPATH_.reset();
    if (clamPath)
        clamScanPATH_ = *clamPath + "/bin/clamdscan";

    // Whether we launched the daemon is decided anew at every load; the
    // engine is the prefix's own daemon, or none without a prefix, so a
    // relaunch never runs what an earlier load named.
    clamd_.setWeLaunchedClamd(false);
    clamd_.useEnginePrefix(clamPath);

    // With no installation prefix there is no clamdscan to run and no
    // daemon to launch: never guess one from an empty prefix.
    if (!clamPath) {
        nsLog("ClamAV installation couldn't be found.  Quitting now.\n");
        return false;
    }

    // A daemon on another machine is never launched; the system's service
    // is used where it answers; a prefix made for the service has a stand-in
    // of the user's own for when it does not.
    bool engineRuns = clamd_.useRemoteEngine() || checkForClamd() || clamd_.useSystemService();
    if (!engineRuns && clamd_.standInForService()) {
        displayGrowlDialog(kError, localizedString("SERVICE_STANDIN"));
        engineRuns = checkForClamd();
    }
    if (!engineRuns) {
        const std::string clamdPath = *clamd_.clamdPATH();
        const std::optional<std::string> configPath = clamd_.clamdConfPATH();
        nsLog("clamd not running. Now trying to launch it...\n");
        if (!pathExists(clamdPath)) {
            nsLog("ClamAV installation couldn't be found.  Quitting now.\n");
            return false;
        }
        if (!launchClamd(clamdPath, configPath)) {
            nsLog("clamd couldn't be launched.  Quitting now.\n");
            return false;
        }
        nsLog("clamd launched successfully.  Continuing...\n");
        clamd_.setWeLaunchedClamd(true);
    }

    std::string temporaryError;
    const std::optional<std::string> temporaryFolder = temporaryDirectory(&temporaryError);
    if (!temporaryFolder) {
        nsLogf("The private temporary folder cannot be used: %s", temporaryError.c_str());
        return false;
    }
    {
        std::lock_guard<std::mutex> guard(temporaryFolderMutex_);
        temporaryFolder_ = temporaryFolder;
    }
    prepareTemporaryFolders(*temporaryFolder);

    nsLog(settings_->scanEmail ? "scan email files\n" : "do NOT scan email files\n");
    if (settings_->multiscan)
        nsLog("Will use as many processor cores as possible for scanning\n");
    if (settings_->trashRequested)
        nsLog("I will delete infected files\n");
    if (settings_->quarantines()) {
        nsLog("I will quarantine infected files\n");
        if (settings_->quarantineFolderProblem)
            nsLog(*settings_->quarantineFolderProblem);
    }
    if (settings_->needsExit1FreshclamFlag)
        needsExit1FreshclamFlag_ = true;

    discernClamdSocketLocation();
    return true;
}

void KorvaneVelgar::prepareTemporaryFolders(const std::string& temporaryFolder)
{
    // Plain concatenation: the temporary folder already ends in "/".
    theTempDirToWatch = temporaryFolder + "/KorvaneVelgarII";
    if (!pathExists(*theTempDirToWatch))
        ::mkdir(theTempDirToWatch->c_str(), 0700);
    theThrobberTempDir = *theTempDirToWatch + "/Throbber";
    if (!pathExists(*theThrobberTempDir))
        ::mkdir(theThrobberTempDir->c_str(), 0700);
    removePlainFiles(*theThrobberTempDir);
}

void KorvaneVelgar::logAllToScanLog() { scanLog_.logAllToScanLog(); }

void KorvaneVelgar::rotateLogFile()
{
    std::string error;
    std::optional<std::string> temporaryFolder = this->temporaryFolder();
    if (!temporaryFolder)
        temporaryFolder = temporaryDirectory(&error);
    if (!temporaryFolder)
        return;
    scanLog_.rotateLogFile(parts_.velgarPrefs->object("rotateScanlogWhenSizeReaches"), *temporaryFolder,
                           parts_.redirectToScanLog);
}

bool KorvaneVelgar::checkForClamd() { return clamPATH() && clamd_.ownDaemonRuns(); }

bool KorvaneVelgar::launchClamd(const std::string& clamdPath, const std::optional<std::string>& configPath)
{
    return clamd_.launchClamd(clamdPath, configPath);
}

bool KorvaneVelgar::clamdStillAlive()
{
    const bool alive = clamd_.clamdStillAlive();
    if (alive)
        engineAnswered();
    return alive;
}

bool KorvaneVelgar::clamdSocketTrusted(const std::optional<std::string>& socket)
{
    if (socket)
        return clamd_.clamdController().socketPeerTrusted(*socket);
    const std::optional<TcpEngine> remote = clamd_.remoteEngine();
    return !remote || clamd_.clamdController().tcpEnginePeerTrusted(*remote);
}

bool KorvaneVelgar::recoverFromCrashedClamd(uint64_t generation)
{
    const ClamdSupervisor::Recovery recovery = clamd_.recoverFromCrashedClamd(generation);
    // The user hears of a silent service once, when the stand-in takes over;
    // without a stand-in the scanners' unreachable-engine alert says it once.
    if (recovery == ClamdSupervisor::Recovery::StandInTookOver)
        displayGrowlDialog(kError, localizedString("SERVICE_STANDIN"));
    // A relaunch that did not take is no answer: only the daemon's PING
    // opens the unreachable-engine alert again.
    if (recovery == ClamdSupervisor::Recovery::Relaunched || recovery == ClamdSupervisor::Recovery::StandInTookOver)
        clamdStillAlive();
    return recovery == ClamdSupervisor::Recovery::Relaunched;
}

void KorvaneVelgar::discernClamdSocketLocation()
{
    clamd_.discernClamdSocketLocation(temporaryFolder().value_or(std::string()));
}

void KorvaneVelgar::noEnginePanic()
{
    displayGrowlDialog(kError, localizedString("CLAMDSCAN_ERROR"));
    displayDialog(Panel::NoEngine);
}

bool KorvaneVelgar::displayGrowlDialog(int kind, const std::string& description)
{
    return notifications_.display(kind, description);
}

void KorvaneVelgar::openAppFromError()
{
    openApp();
    quit();
}

void KorvaneVelgar::addToDialogList(DialogListEntry* entry) { theDialogList.push_back(entry); }

void KorvaneVelgar::removeFromDialogList(DialogListEntry* entry) { std::erase(theDialogList, entry); }

void KorvaneVelgar::removeAllFromDialogList()
{
    // Each entry disposes of itself later; the list is emptied here, once.
    const std::vector<DialogListEntry*> entries = theDialogList;
    for (DialogListEntry* entry : entries)
        entry->ignoreWarning();
    theDialogList.clear();
}

void KorvaneVelgar::displayDialog(Panel panel)
{
    if (parts_.panels)
        parts_.panels->displayDialog(panel);
}

std::string KorvaneVelgar::getQuarantineLocation() const
{
    return settings_ && settings_->quarantines() ? "--move=" + settings_->quarantineFolder : std::string();
}

void KorvaneVelgar::updateVirusDefs(bool notify)
{
    if (mainMenu_) {
        std::lock_guard<std::recursive_mutex> held(mainMenu_->updateLock());
        mainMenu_->startUpdate();
    }
    // The thread gets the updater settings as they are now; a restart while
    // it runs rebuilds them on the main thread.
    DefinitionsUpdate update(freshclamPATH_, freshclamLogLocation_, needsExit1FreshclamFlag_);
    {
        std::lock_guard<std::mutex> guard(updatesMutex_);
        ++runningUpdates_;
    }
    std::thread([this, notify, update = std::move(update)] {
        performDefsUpdate(notify, update);
        std::lock_guard<std::mutex> guard(updatesMutex_);
        --runningUpdates_;
        updatesEnded_.notify_all();
    }).detach();
}

void KorvaneVelgar::performDefsUpdate(bool notify, const DefinitionsUpdate& update)
{
    try {
        const DefinitionsUpdate::Outcome outcome = update.run();
        if (outcome == DefinitionsUpdate::Outcome::NoUpdater) {
            displayDialog(Panel::NoEngine);
        } else {
            int kind = kError;
            const std::string* text = &notifications_.unknownError();
            if (outcome == DefinitionsUpdate::Outcome::Updated) {
                kind = kUpdated;
                text = &notifications_.updateSuccessful();
            } else if (outcome == DefinitionsUpdate::Outcome::AlreadyUpToDate) {
                kind = kUpToDate;
                text = &notifications_.alreadyUpToDate();
            }
            // An error is shown even for an update nobody asked to hear from.
            if ((notify || kind == kError) && !displayGrowlDialog(kind, *text)) {
                if (parts_.panels)
                    parts_.panels->setUpdateWindowText(*text);
                displayDialog(Panel::Update);
            }
        }
    } catch (const std::exception& exception) {
        nsLogf("The definitions update failed: %s", exception.what());
    }
    if (mainMenu_) {
        std::lock_guard<std::recursive_mutex> held(mainMenu_->updateLock());
        mainMenu_->stopUpdate();
    }
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
    const auto withoutTrailingSlash = [](std::string_view path) {
        if (path.size() > 1 && path.back() == '/')
            path.remove_suffix(1);
        return path;
    };
    for (const std::string& entry : watchedFolderList) {
        if (withoutTrailingSlash(entry) == withoutTrailingSlash(devicePath)) {
            nsLog("One of the volumes we're supposed to be watching has just appeared, so don't scan it for the time "
                  "being, just wait for new additions.");
            return;
        }
    }
    parts_.velgarPrefs->synchronize();
    if (!parts_.velgarPrefs->boolean("VelgarScanVolumes"))
        return;
    nsLogf("The volume %s was just mounted and we're not supposed to be monitoring it for new content, so just scan "
           "it immediately.",
           displayText(devicePath).c_str());
    theDispatcher_.addStringToItemList(devicePath);
}

bool KorvaneVelgar::applicationDelegateHandlesKey(const std::string& key) const { return key == bus::kScriptKey; }

std::string KorvaneVelgar::restartWatchingViaAS()
{
    if (mainMenu_)
        mainMenu_->canRestartFromAS();
    return bus::kScriptAnswer;
}

} // namespace kv
