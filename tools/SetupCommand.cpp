#include "tools/SetupCommand.h"

#include "engine/ClamdCtrl.h"
#include "platform/ThunarActions.h"
#include "platform/Paths.h"
#include "platform/Preferences.h"
#include "platform/AutostartEntry.h"
#include "platform/UserControlled.h"
#include "tools/CommandStatus.h"
#include "tools/DefaultsCommand.h"
#include "tools/EngineSetup.h"
#include "tools/RunningClamd.h"

#include <QDir>
#include <QJsonArray>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>

namespace kv {
namespace {

const char* const kSuiteDomain = kMainAppDomain;
const char* const kDefaultUpdateLog = "~/Library/Logs/KorvaneVelgar-update.log";
const char* const kDefaultWatchFolder = "~/Downloads";
const char* const kAgentProgram = "korvane-velgar";
constexpr std::chrono::seconds kFreshclamLimit{60};

std::string absolutePath(const std::string& text)
{
    const QString expanded = QString::fromStdString(expandTilde(text));
    return QDir::cleanPath(QDir::current().absoluteFilePath(expanded)).toStdString();
}

std::string folderOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

// The agent beside this velgarctl: the two share one bin folder, in the
// build tree as under any install prefix.
std::string agentBesideThisProgram()
{
    char executable[PATH_MAX];
    const ssize_t length = ::readlink("/proc/self/exe", executable, sizeof executable - 1);
    if (length <= 0)
        return {};
    const std::string path(executable, static_cast<size_t>(length));
    return path.substr(0, path.rfind('/') + 1) + kAgentProgram;
}

QJsonObject watchRecord(const std::string& folder, bool watchSubdirs)
{
    return QJsonObject{{"pathName", QString::fromStdString(folder)}, {"WatchSubdirs", watchSubdirs}};
}

// The daemon the prefix's engine uses. A daemon on another machine is
// used when asked for, and kept when an earlier setup chose it. Where the
// system's clamd service runs, the prefix uses it rather than start a
// second daemon that would load a second copy of the signatures, and holds
// a stand-in for when it is silent; a daemon of any other user is never
// used.
EngineSetup::Target chooseTarget(const EngineSetup& engine, bool ownEngine, const std::optional<TcpEngine>& remote)
{
    EngineSetup::Target target;
    if (remote) {
        target.daemon = EngineSetup::Daemon::Remote;
        target.remote = *remote;
        return target;
    }
    if (!ownEngine) {
        if (const std::optional<TcpEngine> configured = engine.configuredRemote()) {
            printLine("Keeping the clamd at " + configured->describe() +
                      " that an earlier setup chose (--own-engine runs a daemon of your own instead).");
            target.daemon = EngineSetup::Daemon::Remote;
            target.remote = *configured;
            return target;
        }
        if (const std::optional<std::string> service = systemServiceSocket()) {
            // clamdscan finds the service by the socket's path, again for
            // every scan: a folder others could put a socket in is no way
            // to it.
            const std::string why = whyOthersCouldServe(*service);
            if (!why.empty()) {
                printWarning("the system's clamd service at " + *service + " is not used: " + why +
                             "; the engine runs a daemon of your own.");
            } else if (service->size() <= EngineSetup::kMaxSocketPathBytes) {
                printLine("The system's clamd service answers at " + *service +
                          "; the engine uses it, passing it each file open, so private folders are scanned too "
                          "(--own-engine runs a daemon of your own instead).");
                target.daemon = EngineSetup::Daemon::SystemService;
                target.socket = *service;
                // The stand-in loads the service's definitions, which its
                // updater keeps current, when the user may read them.
                const std::string database = serviceDatabaseFolder();
                target.standInDatabase = EngineSetup::holdsDefinitions(database) ? database : engine.path("db");
                return target;
            }
        }
    }
    target.socket = engine.ownSocketPath();
    return target;
}

} // namespace

SetupCommand::SetupCommand(std::string preferencesFolder) : preferencesFolder_(std::move(preferencesFolder)) {}

int SetupCommand::parse(const std::vector<std::string>& arguments, Options* options) const
{
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        std::string option = argument;
        std::optional<std::string> value;
        if (const size_t equals = argument.find('='); argument.rfind("--", 0) == 0 && equals != std::string::npos) {
            option = argument.substr(0, equals);
            value = argument.substr(equals + 1);
        }
        if (option == "--no-subdirs" && !value) {
            options->watchSubdirs = false;
            continue;
        }
        if (option == "--own-engine" && !value) {
            options->ownEngine = true;
            continue;
        }
        if ((option == "--autostart" || option == "--no-autostart") && !value) {
            if (options->autostart)
                return reportBadInput("setup: give --autostart or --no-autostart once");
            options->autostart = option == "--autostart";
            continue;
        }
        if (option != "--prefix" && option != "--watch" && option != "--engine")
            return reportBadInput("setup: unknown option \"" + argument + "\"");
        const char* const wanted = option == "--engine" ? " needs HOST:PORT" : " needs a folder";
        if (!value) {
            if (i + 1 >= arguments.size())
                return reportBadInput("setup: " + option + wanted);
            value = arguments[++i];
        }
        if (value->empty())
            return reportBadInput("setup: " + option + wanted);
        if (option == "--engine") {
            if (options->engine)
                return reportBadInput("setup: --engine given twice");
            std::string problem;
            options->engine = parseEngineAddress(*value, &problem);
            if (!options->engine)
                return reportBadInput("setup: --engine " + *value + ": " + problem);
            continue;
        }
        if (option == "--prefix") {
            if (options->prefix)
                return reportBadInput("setup: --prefix given twice");
            options->prefix = absolutePath(*value);
            continue;
        }
        const std::string folder = absolutePath(*value);
        if (!QDir(QString::fromStdString(folder)).exists())
            return reportBadInput("setup: --watch " + *value + ": no such folder");
        if (std::find(options->watchFolders.begin(), options->watchFolders.end(), folder) == options->watchFolders.end())
            options->watchFolders.push_back(folder);
    }
    // Starting at login is a change of its own, so that a user who asks for
    // it never has the engine rebuilt or the preferences rewritten as well.
    if (options->autostart &&
        (options->prefix || !options->watchFolders.empty() || !options->watchSubdirs || options->ownEngine || options->engine))
        return reportBadInput("setup: --autostart and --no-autostart stand alone; give the other options to another setup");
    if (options->ownEngine && options->engine)
        return reportBadInput("setup: give --own-engine or --engine, not both");
    return kExitSuccess;
}

int SetupCommand::run(const std::vector<std::string>& arguments)
{
    Options options;
    if (const int status = parse(arguments, &options); status != kExitSuccess)
        return status;
    if (options.autostart)
        return changeAutostart(*options.autostart);

    const std::string preferencesPath = DefaultsCommand(preferencesFolder_).pathOfDomain(kSuiteDomain);
    std::string error;
    std::optional<QJsonObject> preferences = readDomainFile(preferencesPath, &error);
    if (!preferences)
        return reportBadInput(preferencesPath + " is not a valid preferences file (" + error + "); leaving it untouched");

    // Without --prefix, rebuild the prefix the preferences already name, so
    // that setup run twice works on one prefix.
    std::string prefix;
    const QJsonValue known = preferences->value("PathToClamav");
    if (options.prefix)
        prefix = *options.prefix;
    else if (known.isString() && !known.toString().isEmpty())
        prefix = absolutePath(known.toString().toStdString());
    else
        prefix = joinPath(dataHome(), "korvane/clamav");

    // The agent runs what the prefix holds: never from a folder another
    // user could change.
    if (const std::string why = whyEnginePrefixRefused(prefix); !why.empty())
        return reportBadInput("setup: the engine folder " + prefix + " is refused: " + why +
                              "; choose another --prefix");

    EngineSetup engine(prefix);
    if (const std::string foreign = engine.foreignFile(); !foreign.empty()) {
        if (options.prefix)
            return reportBadInput("setup: " + foreign + " was not made by velgarctl setup; choose another --prefix");
        printLine("PathToClamav names an engine installation that velgarctl did not build (" + foreign +
                  "); leaving it as it is.");
    } else if (const int status = buildEngine(engine, options); status != kExitSuccess) {
        return status;
    }

    // Edited afresh from the file: another program may have written it while
    // the engine was being built.
    const DomainEdit edit = editDomainFile(preferencesPath, [&](QJsonObject& contents, std::string*) {
        updatePreferences(options, prefix, &contents);
        return true;
    }, &error);
    if (edit == DomainEdit::NotValid)
        return reportBadInput(preferencesPath + " is not a valid preferences file (" + error + "); leaving it untouched");
    if (edit == DomainEdit::Failed)
        return reportFailure("cannot write " + preferencesPath + ": " + error);
    printLine("Preferences: " + preferencesPath);
    // Thunar's custom actions live only in the user's own file.
    const std::string resources = resourcesDirectory();
    std::string thunar;
    ThunarActions::addScanAction(resources.substr(0, resources.rfind('/')) + "/korvane/thunar-uca.xml", &thunar);
    printLine(thunar);
    return kExitSuccess;
}

int SetupCommand::buildEngine(const EngineSetup& engine, const Options& options) const
{
    const EngineSetup::Target target = chooseTarget(engine, options.ownEngine, options.engine);
    std::string error;
    if (!engine.install(target, &error))
        return reportFailure("setup: " + error);

    if (target.daemon == EngineSetup::Daemon::Remote) {
        const std::string where = target.remote.describe();
        printLine("Engine prefix: " + engine.prefix() + " (the clamd at " + where + ", over TCP)");
        // On this machine a port is anyone's to take while the daemon is
        // down: the agent then checks each connection it makes and sends
        // files over that one only.
        if (ClamdCtrl::mayBeOnThisMachine(target.remote))
            printLine("Korvane Velgar sends each file's contents to the clamd at " + where +
                      ", on this machine, over a connection it has checked is served by you, root or clamav "
                      "(never through clamdscan), and never starts or stops it; its definitions are that server's.");
        else
            printLine("Korvane Velgar sends each file's contents to the clamd at " + where +
                      " (clamdscan --stream) and never starts or stops it; its definitions are that server's.");
        std::string problem;
        if (ClamdCtrl::tcpEngineAnswers(target.remote, &problem))
            printLine("The clamd at " + where + " answers.");
        else
            printWarning("the clamd at " + where + " does not answer (" + problem +
                         "); the engine is set up anyway, and Korvane Velgar scans there once it answers.");
        return kExitSuccess;
    }

    printLine("Engine prefix: " + engine.prefix() + " (clamd socket " + target.socket + ")");
    if (target.daemon == EngineSetup::Daemon::SystemService)
        printLine("When the service does not answer, Korvane Velgar runs a clamd of your own from " +
                  engine.standInPrefix() + " (definitions from " + target.standInDatabase + ") until it answers again.");

    const std::string freshclam = engine.path("bin/freshclam");
    if (engine.hasOnlyTestDefinitions()) {
        printLine("Only the test definitions are installed: Korvane Velgar will only detect the EICAR test file "
                  "until real definitions are downloaded (run " + freshclam + ").");
        return kExitSuccess;
    }
    if (engine.hasDefinitions())
        return kExitSuccess;

    printLine("Downloading virus definitions with freshclam...");
    const EngineSetup::FreshclamRun run = engine.runFreshclam(kFreshclamLimit);
    if (run.timedOut)
        printLine("freshclam did not finish within " + std::to_string(kFreshclamLimit.count()) + " seconds; stopped it.");
    else if (run.status != 0)
        printLine("freshclam failed (status " + std::to_string(run.status) + (run.lastLine.empty() ? "" : ": " + run.lastLine) +
                  "); its log is " + engine.path("log/freshclam.log"));
    if (engine.hasDefinitions())
        return kExitSuccess;

    if (!engine.installTestDefinitions(&error))
        return reportFailure("setup: " + error);
    printLine("No virus definitions could be downloaded, so the bundled test definitions are installed: Korvane Velgar "
              "will only detect the EICAR test file until real definitions are downloaded (run " + freshclam + ").");
    return kExitSuccess;
}

int SetupCommand::changeAutostart(bool startAtLogin) const
{
    const AutostartEntry entry;
    std::string error;
    if (!startAtLogin) {
        bool removed = false;
        if (!entry.remove(&removed, &error))
            return reportFailure("setup: " + error);
        printLine(removed ? "Korvane Velgar will no longer start at login (removed " + entry.path() + ")."
                          : "Korvane Velgar was not set to start at login; nothing to remove.");
        return kExitSuccess;
    }
    const std::string agent = agentBesideThisProgram();
    if (agent.empty() || ::access(agent.c_str(), X_OK) != 0)
        return reportFailure("setup: the agent " + agent + " is not installed beside velgarctl; nothing written");
    if (!entry.install(agent, &error))
        return reportFailure("setup: " + error);
    printLine("Korvane Velgar will start at login: " + entry.path() + " runs " + agent + ".");
    return kExitSuccess;
}

void SetupCommand::updatePreferences(const Options& options, const std::string& prefix, QJsonObject* preferences) const
{
    // A new setup holds opens of new files until their verdict; an earlier
    // one keeps what its user chose, or left out.
    if (!preferences->contains("PathToClamav") && !preferences->contains("BlockUntilScanned"))
        preferences->insert("BlockUntilScanned", true);
    if (options.prefix || !preferences->contains("PathToClamav"))
        preferences->insert("PathToClamav", QString::fromStdString(prefix));

    if (!preferences->contains("PathToUpdateLog"))
        preferences->insert("PathToUpdateLog", QString::fromStdString(expandTilde(kDefaultUpdateLog)));
    const QJsonValue updateLog = preferences->value("PathToUpdateLog");
    if (updateLog.isString() && updateLog.toString().contains('/'))
        makeDirectories(folderOf(expandTilde(updateLog.toString().toStdString())));

    if (!options.watchFolders.empty()) {
        QJsonArray folders;
        for (const std::string& folder : options.watchFolders)
            folders.append(watchRecord(folder, options.watchSubdirs));
        preferences->insert("VelgarFolderArray", folders);
    } else if (!preferences->contains("VelgarFolderArray")) {
        const std::string downloads = expandTilde(kDefaultWatchFolder);
        makeDirectories(downloads);
        preferences->insert("VelgarFolderArray", QJsonArray{watchRecord(downloads, options.watchSubdirs)});
    }
}

} // namespace kv
