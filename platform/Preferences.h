#pragma once

#include <QJsonObject>
#include <QJsonValue>

#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kv {

// The preference domains: the agent's own, and the main application's, a
// suite the agent reads after its own.
inline constexpr const char* kAgentDomain = "com.korvane.KorvaneVelgar";
inline constexpr const char* kMainAppDomain = "com.korvane.Korvane";

// The boolean value of a stored object, by the rule the shared preferences
// have always used: JSON true/false; a number is true when non-zero; a
// string is true when, after leading blanks, an optional sign and leading
// zeros, it starts with Y, y, T, t or a digit 1-9. Anything else is false.
bool objectBoolValue(const QJsonValue& value);

// The preferences the agent shares with the main application, read-only.
// A key is looked up in the agent's own domain first, then in each added
// suite in the order added. synchronize() re-reads everything from disk.
//
// Implementations are thread-safe: the main thread synchronises while worker
// threads may read.
class Preferences {
public:
    virtual ~Preferences() = default;

    virtual void addSuite(const std::string& domain) = 0;
    virtual void synchronize() = 0;
    // The stored object under key, or nothing when no domain holds it.
    virtual std::optional<QJsonValue> object(const std::string& key) const = 0;

    // Typed reads. A value of another type reads as missing.
    std::optional<std::string> string(const std::string& key) const;
    std::optional<QJsonArray> array(const std::string& key) const;
    // Missing reads as false.
    bool boolean(const std::string& key) const;
};

// One JSON file per domain: <folder>/<domain>.json holding one JSON object.
// A file that is not valid JSON counts as an empty domain and is logged once
// per load with its path and the parser's message.
class JsonPreferences : public Preferences {
public:
    // folder defaults to $XDG_CONFIG_HOME/korvane.
    explicit JsonPreferences(std::string ownDomain, std::string folder = {});

    void addSuite(const std::string& domain) override;
    void synchronize() override;
    std::optional<QJsonValue> object(const std::string& key) const override;

    static std::string defaultFolder();
    std::string pathOfDomain(const std::string& domain) const;

private:
    std::string folder_;
    mutable std::mutex mutex_;
    std::vector<std::string> domains_;  // guarded by mutex_
    std::vector<QJsonObject> contents_; // guarded by mutex_, parallel to domains_
};

// Reads one domain file. A missing file is an empty domain; a file that
// cannot be parsed yields nothing and a message.
std::optional<QJsonObject> readDomainFile(const std::string& path, std::string* error);

// Writes a domain file atomically (temporary file in the same folder, then
// rename), so a reader never sees half a file. Creates the folder if needed.
bool writeDomainFile(const std::string& path, const QJsonObject& contents, std::string* error);

// The one way the programs that write preferences (velgarctl and the Korvane
// application) change a domain, so they keep the same rules.
//
// A domain is named with letters, digits, '.', '-' and '_' only, so its name
// can never lead out of the preferences folder.
bool isDomainName(const std::string& text);

enum class DomainEdit {
    Written,    // the edit changed the contents; the file was replaced
    Unchanged,  // the edit left the contents as they were; nothing written
    Refused,    // the edit said no (its reason in *error); nothing written
    NotValid,   // the file is not valid JSON (*error says why); never overwritten
    Failed,     // the file could not be read or written (*error)
};

// Reads the domain file at path, hands its object to edit, and writes the
// result atomically when it differs. edit returns false, with a reason in
// *error, to refuse the change.
using DomainEditor = std::function<bool(QJsonObject& contents, std::string* error)>;
DomainEdit editDomainFile(const std::string& path, const DomainEditor& edit, std::string* error);

} // namespace kv
