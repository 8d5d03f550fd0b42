#pragma once

#include "engine/ClamdConfig.h"

#include <QObject>
#include <QString>

#include <atomic>
#include <functional>
#include <memory>

#include <optional>
#include <string>

namespace kv {

// Which scanning engine the agent's "PathToClamav" names, as the
// Protection and Definitions pages describe it, read from the prefix that
// `velgarctl setup` built.
struct EngineDescription {
    enum class Kind {
        NotSetUp,       // no prefix, or no clamd.conf in it: *problem says which
        Own,            // the user's own clamd, started by the agent
        SystemService,  // Debian's clamd service, through its socket
        Remote,         // a clamd on another machine, over TCP
    };
    Kind kind = Kind::NotSetUp;
    std::string prefix;
    std::string socket;                 // Own, SystemService
    std::optional<TcpEngine> remote;    // Remote
    std::string databaseFolder;         // where its definitions live, when known
    QString problem;                    // NotSetUp

    static EngineDescription of(const std::string& prefix);
    // Why the definitions in databaseFolder do not protect, in words: none
    // there, or only the test signature setup installs without a network
    // (it detects the EICAR test file and nothing else). Empty when real
    // definitions are there, or where they live is not known (TCP).
    QString definitionsProblem() const;
    // "The agent's own clamd (socket /run/user/1000/korvane-clamd.ctl)", ...
    QString describe() const;
    std::string freshclam() const { return prefix + "/bin/freshclam"; }
};

// Whether the engine answers, and the version it reports. Blocks for at
// most a few seconds: call it off the main thread.
struct EngineAnswer {
    bool answers = false;
    QString version;  // "ClamAV 1.4.3/27463/Mon Nov 23 09:12:03 2026"
    QString problem;  // why it does not answer
};
EngineAnswer askEngine(const EngineDescription& engine);

// A page's question to its engine, asked off the main thread. Only the
// newest question's answer is handed to the page, on the main thread, and
// none once the page is gone.
class EngineQuestion {
public:
    void ask(QObject* page, const EngineDescription& engine, std::function<void(const EngineAnswer&)> answered);

private:
    std::shared_ptr<std::atomic<int>> newest_ = std::make_shared<std::atomic<int>>(0);
};

// The parts of a VERSION answer: "ClamAV 1.4.3", "27463", the date.
struct DefinitionsVersion {
    QString engine;
    QString version;
    QString date;
};
std::optional<DefinitionsVersion> parseVersion(const QString& answer);

} // namespace kv
