#include "app/LoadedConfiguration.h"

#include "engine/ClamdSupervisor.h"
#include "platform/FolderWalk.h"
#include "platform/Log.h"
#include "platform/Paths.h"
#include "platform/Preferences.h"
#include "platform/TrashInfo.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kv {
namespace {

constexpr const char* kMainAppPrefix = "/usr/local/korvane";
constexpr const char* kMainAppFreshclam = "/usr/local/korvane/bin/RunFreshclam";

void logChoices(const Settings& settings)
{
    nsLog(settings.scanEmail ? "scan email files\n" : "do NOT scan email files\n");
    if (settings.multiscan)
        nsLog("Will use as many processor cores as possible for scanning\n");
    if (settings.trashRequested)
        nsLog("I will delete infected files\n");
    if (settings.quarantines()) {
        nsLog("I will quarantine infected files\n");
        if (settings.quarantineFolderProblem)
            nsLog(*settings.quarantineFolderProblem);
    }
}

void prepareTemporaryFolders(const std::string& temporaryFolder)
{
    // Plain concatenation: the temporary folder already ends in "/". The
    // indicator's folder is emptied of plain files left by an earlier run.
    const std::string toWatch = temporaryFolder + "/KorvaneVelgarII";
    const std::string throbber = toWatch + "/Throbber";
    for (const std::string& folder : {toWatch, throbber}) {
        if (!pathExists(folder) && ::mkdir(folder.c_str(), 0700) != 0)
            nsLogf("The temporary folder %s cannot be created: %s", folder.c_str(), std::strerror(errno));
    }
    walkFiles(
        {throbber}, false, [](const std::string&) { return false; },
        [](std::string&& file) {
            ::unlink(file.c_str());
            return true;
        });
}

void createMoveDestination(const Settings& settings)
{
    // clamdscan refuses to scan at all when its move folder is missing, so
    // an infected file would stay where it is: make the folder first.
    if (settings.quarantines()) {
        const std::string& folder = settings.quarantineFolder;
        if (!folder.empty() && !pathExists(folder) && !makeDirectories(folder, 0700))
            nsLogf("The quarantine folder %s cannot be created", folder.c_str());
    } else if (settings.trashes() && !ensureTrashFolders()) {
        nsLogf("The Trash folder %s cannot be created", trashFolder().c_str());
    }
}

} // namespace

std::shared_ptr<const LoadedConfiguration> LoadedConfiguration::load(Preferences& prefs, ClamdSupervisor& clamd,
                                                                     Notice* notice)
{
    prefs.addSuite(kMainAppDomain);
    prefs.synchronize();
    auto loaded = std::make_shared<LoadedConfiguration>();
    loaded->settings = Settings::load(prefs);
    const Settings& settings = *loaded->settings;
    for (const std::string& problem : settings.problems)
        nsLog(problem);

    const std::optional<std::string>& clamPath = settings.clamPath;
    notice->engineIncomplete = !clamPath || !settings.updateLogPath;
    if (clamPath && clamPath->starts_with(kMainAppPrefix) && pathExists(kMainAppFreshclam))
        loaded->freshclamPATH = kMainAppFreshclam;
    else if (clamPath)
        loaded->freshclamPATH = *clamPath + "/bin/freshclam";
    loaded->updateLogPath = settings.updateLogPath;
    if (clamPath)
        loaded->clamScanPATH = *clamPath + "/bin/clamdscan";

    const ClamdSupervisor::EngineStart engine = clamd.startEngine(clamPath);
    notice->standInTookOver = engine.standInTookOver;
    if (!engine.ready)
        return nullptr;

    std::string temporaryError;
    const std::optional<std::string> temporaryFolder = temporaryDirectory(&temporaryError);
    if (!temporaryFolder) {
        nsLogf("The private temporary folder cannot be used: %s", temporaryError.c_str());
        return nullptr;
    }
    loaded->temporaryFolder = *temporaryFolder;
    prepareTemporaryFolders(*temporaryFolder);
    logChoices(settings);
    clamd.discernClamdSocketLocation(*temporaryFolder);
    createMoveDestination(settings);

    loaded->watchList = WatchList::ofFolders(settings.watchedFolders, settings.quarantineFolder, settings.holdSeconds());
    loaded->scanParameters = ScanParameters::forSettings(loaded->settings, loaded->clamScanPATH, *temporaryFolder,
                                                         clamd.scansOverCheckedConnectionsOnly());
    return loaded;
}

} // namespace kv
