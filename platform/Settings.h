#pragma once

#include <QJsonArray>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kv {

class Preferences;

// What the agent does with a file the engine finds infected.
enum class Handling { LeaveAndWarn, MoveToTrash, MoveToQuarantine };

struct WatchedFolder {
    std::string path;         // "pathName" with a leading "~" expanded
    bool subfolders = false;  // "WatchSubdirs"
};

// The configuration one load of the preferences makes. Immutable once made
// and handed around as std::shared_ptr<const Settings>: a worker keeps the
// snapshot its run began with while a restart loads the next.
struct Settings {
    // "VelgarFolderArray", every record in order, whether its path exists or not.
    std::vector<WatchedFolder> watchedFolders;
    // "VelgarQuarantineFiles" wins over "VelgarTrashFiles".
    Handling handling = Handling::LeaveAndWarn;
    bool trashRequested = false;  // "VelgarTrashFiles", even where quarantine wins
    // "QuarantineFolder" (or its "path" entry), "~" expanded; "" when unset.
    // Files in it are never scanned, whatever the handling. In quarantine
    // mode a folder that others could control (see
    // whyQuarantineFolderRefused()) turns the handling into leaving and
    // warning, with the reason among the problems.
    std::string quarantineFolder;
    // The enabled "ExcludePatterns" records as extended regular expressions.
    std::vector<std::string> exclusions;
    bool suppressInfoDialogs = false;  // "SuppressInfoDialogs"
    bool scanEmail = true;             // "ScanEmail"; missing reads as true

    // The engine.
    // "PathToClamav": the ClamAV prefix; none, with the reason among the
    // problems, when others could change what it runs (see
    // whyEnginePrefixRefused()), so nothing is ever run from it.
    std::optional<std::string> clamPath;
    std::optional<std::string> updateLogPath;  // "PathToUpdateLog"
    bool multiscan = false;                    // "multiscan" is the text "yes"
    bool needsExit1FreshclamFlag = false;      // "NeedsExit1FreshclamFlag"
    bool updateDefsAtLaunch = false;           // "UpdateDefsOnLaunch"

    // Opens in the watched folders wait for the file's verdict
    // ("BlockUntilScanned"), at most blockAtMostSeconds
    // ("BlockAtMostSeconds": 1 to 60, anything else the default).
    static constexpr int kDefaultBlockSeconds = 5;
    bool blockUntilScanned = false;
    int blockAtMostSeconds = kDefaultBlockSeconds;
    // How long an open waits: 0 when opens are not held.
    unsigned holdSeconds() const { return blockUntilScanned ? static_cast<unsigned>(blockAtMostSeconds) : 0; }

    // One log line for each value that was there but could not be used
    // (or was refused); a quarantine folder that is no path matters in
    // quarantine mode only.
    std::vector<std::string> problems;
    std::optional<std::string> quarantineFolderProblem;

    // Reads the preferences as they are now (the caller synchronises).
    static std::shared_ptr<const Settings> load(const Preferences& prefs);

    bool quarantines() const { return handling == Handling::MoveToQuarantine; }
    bool trashes() const { return handling == Handling::MoveToTrash; }
};

// Where the agent shows itself ("ShowDockIcon", read as text in any case):
// in the tray only (missing, "false" or anything else), as an application
// icon only ("true": no tray icon, and the menu has no quit item), or both
// ("both").
enum class DockIcon { TrayOnly, IconOnly, Both };
DockIcon dockIconChoice(const Preferences& prefs);

// The user's exclusion records ("ExcludePatterns") as extended regular
// expressions.
//
// A record is used only when "excludeEnabled" is true. A regular-expression
// record ("excludeRegEx" true) is taken as it stands; a plain record has a
// leading "~" expanded and its special characters escaped, so it matches
// its text literally wherever it occurs.
std::vector<std::string> buildExcludePatterns(const QJsonArray& records);

// Escapes \ [ ^ $ . | ? * + ( ) with one backslash each, in that order of
// passes. "]" and braces are left as they are.
std::string escapePlainPattern(const std::string& text);

} // namespace kv
