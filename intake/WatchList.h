#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace kv {

class Preferences;

// The watched folders as the event watcher filters by them: a snapshot of
// the controller's watchedFolderList and checkSubDirs, with the quarantine
// folder whose events are never scanned.
//
// Immutable once made, so the watcher thread reads it for every line while
// the main thread rebuilds the controller's list for the next start. The
// controller makes a new one at each start of watching and hands it over
// through a std::shared_ptr<const WatchList>.
class WatchList {
public:
    WatchList() = default;
    WatchList(const std::vector<std::string>& watchedFolderList, const std::map<std::string, bool>& checkSubDirs,
              std::string quarantineDir);

    // The quarantine folder as the watcher skips it: the "QuarantineFolder"
    // preference (its "path" entry when it is a dictionary) with a leading
    // tilde expanded, or "" when there is no such path.
    static std::string quarantineDirFrom(const Preferences& prefs);

    // Whether a line of helper output belongs in the scan queue: not under
    // the quarantine folder (a plain text prefix test), not a resource fork,
    // and accepted by the first watched path that takes it. A folder watched
    // with its subfolders takes every line below it outside a Trash; a
    // folder watched alone takes only the objects directly inside it.
    bool admits(std::string_view line) const;

    // Every regular file the list admits now, found by walking the watched
    // folders (without following links, and skipping the quarantine folder
    // and what cannot be read), handed to take in groups until take returns
    // false. For when file events were lost and nobody knows which files
    // changed.
    void forEachAdmittedFile(const std::function<bool(std::vector<std::string>&)>& take) const;

    const std::string& quarantineDir() const { return quarantineDir_; }
    size_t size() const { return entries_.size(); }

private:
    struct Entry {
        std::string path;    // as listed: a folder ends in "/"
        std::string folder;  // the same without the trailing "/"
        bool subdirs;        // the map's value for path; missing counts as false
    };
    std::vector<Entry> entries_;
    std::string quarantineDir_;
};

} // namespace kv
