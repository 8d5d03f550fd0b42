#pragma once

#include <functional>
#include <string>

namespace kv {

// The desktop around the agent: opening files and folders, the Trash, the
// file viewer, launching the main application and the alert sound.
//
// Main thread only. Nothing here waits for the user or for an application
// that was opened: results that take time arrive later on the main thread.
class Workspace {
public:
    virtual ~Workspace() = default;

    // Opens a file or folder with the user's default application. done, when
    // given, is called later on the main thread with whether it opened.
    virtual void openPath(const std::string& path, std::function<void(bool opened)> done = {}) = 0;

    // Shows the file selected in a file-viewer window (its folder when no
    // file manager answers).
    virtual void revealFile(const std::string& path) = 0;

    // Moves a found file into the user's Trash, where the desktop (and the
    // Korvane application's Quarantine page) can restore it from. False when
    // the file could not be moved.
    virtual bool recycleFile(const std::string& path) = 0;

    // Starts the application whose desktop entry is <bundleIdentifier>.desktop.
    // True when the launch could be started.
    virtual bool launchApplication(const std::string& bundleIdentifier) = 0;

    // The system alert sound.
    virtual void beep() = 0;
};

} // namespace kv
