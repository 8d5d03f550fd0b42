#pragma once

#include "engine/ClamdConfig.h"

#include <QJsonObject>

#include <optional>
#include <string>
#include <vector>

namespace kv {

class EngineSetup;

// `velgarctl setup [--prefix DIR] [--watch DIR]... [--no-subdirs]
// [--own-engine | --engine HOST:PORT]`: builds the per-user engine prefix
// (see EngineSetup), pointed at a clamd on another machine (--engine, kept
// by later setups until --own-engine), else at the system's clamd service
// when it runs (unless --own-engine), makes sure it has virus definitions
// (a daemon on another machine has its own), and writes the main
// application's preferences the agent reads at start: "PathToClamav",
// "PathToUpdateLog" and "VelgarFolderArray".
//
// Keys already present are kept unless the matching option was given
// (--prefix for PathToClamav, --watch for VelgarFolderArray). Everything is
// checked before anything is written, and running it again is quick and
// changes nothing. Where Thunar is installed or used, it also adds
// "Scan with Korvane" to the user's Thunar custom actions (ThunarActions).
//
// A prefix that another user could change (see whyEnginePrefixRefused())
// is refused before anything is written, since the agent runs what it
// holds; the system's service is used only where no other user could put a
// socket at its path (see whyOthersCouldServe()).
//
// `velgarctl setup --autostart | --no-autostart` stands alone: it writes or
// removes the login autostart entry (see AutostartEntry) and leaves the
// prefix and the preferences as they are.
class SetupCommand {
public:
    // preferencesFolder: where the domain files live; the user's preferences
    // folder when empty.
    explicit SetupCommand(std::string preferencesFolder = {});

    // arguments: everything after "setup". Returns the exit status.
    int run(const std::vector<std::string>& arguments);

private:
    struct Options {
        std::optional<std::string> prefix;
        std::vector<std::string> watchFolders;
        bool watchSubdirs = true;
        std::optional<bool> autostart;  // --autostart true, --no-autostart false
        bool ownEngine = false;         // a daemon of the user's own even where the system's service runs
        std::optional<TcpEngine> engine; // --engine: a daemon on another machine
    };

    // Fills *options; on bad input returns the exit status to end with.
    int parse(const std::vector<std::string>& arguments, Options* options) const;
    // Builds the prefix and its definitions; reports progress on standard output.
    int buildEngine(const EngineSetup& engine, const Options& options) const;
    void updatePreferences(const Options& options, const std::string& prefix, QJsonObject* preferences) const;
    // Writes or removes the autostart entry and nothing else.
    int changeAutostart(bool startAtLogin) const;

    std::string preferencesFolder_;
};

} // namespace kv
