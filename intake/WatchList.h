#pragma once

#include "platform/Settings.h"

#include <functional>
#include <memory>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kv {

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

    // The list of a preferences load: each record whose path exists now, a
    // folder with exactly one trailing "/" (so that a prefix test matches
    // only paths inside it), a file as it is. A path listed twice keeps
    // both entries and the later record's subfolder flag.
    // holdSeconds: how long opens in the folders wait for their verdict
    // ("BlockAtMostSeconds" when "BlockUntilScanned"), 0 for not at all.
    static std::shared_ptr<const WatchList> ofFolders(const std::vector<WatchedFolder>& folders,
                                                      std::string quarantineDir, unsigned holdSeconds = 0);
    unsigned holdSeconds() const { return holdSeconds_; }

    // Whether a line of helper output belongs in the scan queue: not under
    // the quarantine folder (a plain text prefix test), not a resource fork,
    // and accepted by the first watched path that takes it. A folder watched
    // with its subfolders takes every line below it outside a Trash; a
    // folder watched alone takes only the objects directly inside it.
    bool admits(std::string_view line) const;

    // Every regular file the list admits now below the given folders,
    // found by walking them (without following links, skipping the
    // quarantine folder, folders that cannot hold admitted files and what
    // cannot be read, with paths of any length), handed to take in groups
    // until take returns false. For folders whose files raised no events:
    // every watched folder when events were lost, a folder moved in whole.
    // Roots that are links are followed only when followRoots is set (the
    // watched folders themselves).
    using Take = std::function<bool(std::vector<std::string>&)>;
    void forEachAdmittedFileIn(const std::vector<std::string>& folders, bool followRoots, const Take& take) const;

    // Whether PATH is one of the watched paths itself (trailing "/" aside).
    bool watches(std::string_view path) const;

    // The watched folders themselves, for a walk of all of them.
    std::vector<std::string> folders() const;

    // The same, each with whether its subfolders are watched: what the
    // helper marks.
    std::vector<std::pair<std::string, bool>> foldersAndSubfolders() const;

    // Whether the folder may hold files the list admits: a watched folder,
    // one inside a folder watched with its subfolders, or one on the way to
    // a watched folder; never the quarantine folder.
    bool mayHoldAdmitted(const std::string& folder) const;

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
    unsigned holdSeconds_ = 0;
};

} // namespace kv
