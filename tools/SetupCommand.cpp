#include "tools/SetupCommand.h"

#include "platform/Paths.h"
#include "platform/Preferences.h"
#include "tools/AutostartEntry.h"
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

const char* const kSuiteDomain = "com.korvane.Korvane";
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

// The socket the prefix's clamd.conf names. Where the system's clamd
// service runs, the prefix uses it rather than start a second daemon that
// would load a second copy of the signatures; a daemon of any other user is
// never used.
struct EngineSocket {
    std::string path;
    bool systemService = false;
};

EngineSocket chooseSocket(const EngineSetup& engine, bool ownEngine)
{
    if (!ownEngine) {
        if (const std::optional<std::string> service = systemServiceSocket()) {
            if (service->size() <= EngineSetup::kMaxSocketPathBytes) {
                printLine("The system's clamd service answers at " + *service +
                          "; the engine uses it, passing it each file open, so private folders are scanned too "
                          "(--own-engine runs a daemon of your own instead).");
                return {*service, true};
            }
        }
    }
    return {engine.ownSocketPath(), false};
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
        if (option != "--prefix" && option != "--watch")
            return reportBadInput("setup: unknown option \"" + argument + "\"");
        if (!value) {
            if (i + 1 >= arguments.size())
                return reportBadInput("setup: " + option + " needs a folder");
            value = arguments[++i];
        }
        if (value->empty())
            return reportBadInput("setup: " + option + " needs a folder");
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
    if (options->autostart && (options->prefix || !options->watchFolders.empty() || !options->watchSubdirs || options->ownEngine))
        return reportBadInput("setup: --autostart and --no-autostart stand alone; give the other options to another setup");
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

    EngineSetup engine(prefix);
    if (const std::string foreign = engine.foreignFile(); !foreign.empty()) {
        if (options.prefix)
            return reportBadInput("setup: " + foreign + " was not made by velgarctl setup; choose another --prefix");
        printLine("PathToClamav names an engine installation that velgarctl did not build (" + foreign +
                  "); leaving it as it is.");
    } else if (const int status = buildEngine(engine, options.ownEngine); status != kExitSuccess) {
        return status;
    }

    QJsonObject updated = *preferences;
    updatePreferences(options, prefix, &updated);
    if (updated != *preferences && !writeDomainFile(preferencesPath, updated, &error))
        return reportFailure("cannot write " + preferencesPath + ": " + error);
    printLine("Preferences: " + preferencesPath);
    return kExitSuccess;
}

int SetupCommand::buildEngine(const EngineSetup& engine, bool ownEngine) const
{
    const EngineSocket socket = chooseSocket(engine, ownEngine);
    std::string error;
    if (!engine.install(socket.path, socket.systemService, &error))
        return reportFailure("setup: " + error);
    printLine("Engine prefix: " + engine.prefix() + " (clamd socket " + socket.path + ")");

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
