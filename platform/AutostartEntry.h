#pragma once

#include <string>

namespace kv {

// The desktop entry that has the user's desktop session start the agent at
// login: $XDG_CONFIG_HOME/autostart/com.korvane.KorvaneVelgar.desktop.
// `velgarctl setup --autostart` and the Korvane application's "Start at
// login" write it; `--no-autostart` and unticking that box remove it.
// Neither touches any other file. Not thread-safe: one caller's main thread.
class AutostartEntry {
public:
    AutostartEntry();

    const std::string& path() const { return path_; }

    // The entry's text for the agent at agentPath (absolute), with the path
    // quoted as desktop entries require. Empty when the path holds '%' or a
    // control character, which the desktop could not run.
    static std::string text(const std::string& agentPath);

    // Writes the entry atomically, creating the autostart folder when it is
    // missing. An entry that already holds this text is left as it is.
    bool install(const std::string& agentPath, std::string* error) const;

    // Removes the entry; *removed tells whether there was one.
    bool remove(bool* removed, std::string* error) const;

    // Whether the entry is there, so the session starts the agent.
    bool installed() const;

private:
    std::string path_;
};

} // namespace kv
