#include "platform/Settings.h"

#include "platform/Paths.h"
#include "platform/Preferences.h"
#include "platform/UserControlled.h"

#include <QJsonObject>

namespace kv {
namespace {

std::optional<std::string> textPreference(const Preferences& prefs, const char* key, std::vector<std::string>& problems)
{
    const std::optional<QJsonValue> value = prefs.object(key);
    if (!value)
        return std::nullopt;
    if (!value->isString()) {
        problems.push_back(std::string("The preference \"") + key + "\" should hold a text; it is ignored");
        return std::nullopt;
    }
    return value->toString().toStdString();
}

} // namespace

std::shared_ptr<const Settings> Settings::load(const Preferences& prefs)
{
    auto settings = std::make_shared<Settings>();
    std::vector<std::string>& problems = settings->problems;

    if (const std::optional<QJsonArray> folders = prefs.array("VelgarFolderArray")) {
        for (const QJsonValue& value : *folders) {
            const QJsonObject record = value.toObject();
            settings->watchedFolders.push_back({expandTilde(record.value("pathName").toString().toStdString()),
                                                objectBoolValue(record.value("WatchSubdirs"))});
        }
    }

    settings->trashRequested = prefs.boolean("VelgarTrashFiles");
    if (settings->trashRequested)
        settings->handling = Handling::MoveToTrash;
    if (prefs.boolean("VelgarQuarantineFiles"))
        settings->handling = Handling::MoveToQuarantine;
    if (std::optional<QJsonValue> folder = prefs.object("QuarantineFolder")) {
        if (folder->isObject())
            folder = folder->toObject().value("path");
        if (folder->isString())
            settings->quarantineFolder = expandTilde(folder->toString().toStdString());
        else
            settings->quarantineFolderProblem = "The preference \"QuarantineFolder\" holds no folder path; it is ignored";
    }
    // Infected files moved where another user could reach them could be
    // swapped or taken back out: such a folder is not used this time.
    if (settings->quarantines() && !settings->quarantineFolder.empty()) {
        if (const std::string why = whyQuarantineFolderRefused(settings->quarantineFolder); !why.empty()) {
            problems.push_back("The quarantine folder " + settings->quarantineFolder + " is refused: " + why +
                               "; infected files are left where they are, with a warning");
            settings->handling = Handling::LeaveAndWarn;
        }
    }

    if (const std::optional<QJsonArray> records = prefs.array("ExcludePatterns"))
        settings->exclusions = buildExcludePatterns(*records);
    settings->suppressInfoDialogs = prefs.boolean("SuppressInfoDialogs");
    const std::optional<QJsonValue> scanEmail = prefs.object("ScanEmail");
    settings->scanEmail = !scanEmail || objectBoolValue(*scanEmail);

    settings->clamPath = textPreference(prefs, "PathToClamav", problems);
    // The agent runs the prefix's programs as the user: one that another
    // user could change would run that user's code as this one.
    if (settings->clamPath) {
        if (const std::string why = whyEnginePrefixRefused(*settings->clamPath); !why.empty()) {
            problems.push_back("The engine folder " + *settings->clamPath + " is refused: " + why +
                               "; nothing is run from it");
            settings->clamPath.reset();
        }
    }
    settings->updateLogPath = textPreference(prefs, "PathToUpdateLog", problems);
    const std::optional<QJsonValue> multiscan = prefs.object("multiscan");
    settings->multiscan = multiscan && multiscan->isString() && multiscan->toString() == "yes";
    settings->needsExit1FreshclamFlag = prefs.boolean("NeedsExit1FreshclamFlag");
    settings->updateDefsAtLaunch = prefs.boolean("UpdateDefsOnLaunch");
    settings->blockUntilScanned = prefs.boolean("BlockUntilScanned");
    if (const std::optional<QJsonValue> seconds = prefs.object("BlockAtMostSeconds")) {
        const double value = seconds->toDouble(-1);
        if (seconds->isDouble() && value >= 1 && value <= 60 && value == static_cast<int>(value))
            settings->blockAtMostSeconds = static_cast<int>(value);
        else
            settings->problems.push_back("The preference \"BlockAtMostSeconds\" should be a whole number of seconds "
                                         "from 1 to 60; it is ignored, and an open waits at most " +
                                         std::to_string(kDefaultBlockSeconds) + " seconds for its verdict");
    }
    return settings;
}

std::string escapePlainPattern(const std::string& text)
{
    // One pass per character, backslash first, so the backslashes that later
    // passes insert are not doubled again.
    static constexpr char kSpecial[] = {'\\', '[', '^', '$', '.', '|', '?', '*', '+', '(', ')'};
    std::string escaped = text;
    for (const char special : kSpecial) {
        std::string next;
        next.reserve(escaped.size() + 8);
        for (const char c : escaped) {
            if (c == special)
                next += '\\';
            next += c;
        }
        escaped.swap(next);
    }
    return escaped;
}

std::vector<std::string> buildExcludePatterns(const QJsonArray& records)
{
    std::vector<std::string> patterns;
    for (const QJsonValue& value : records) {
        if (!value.isObject())
            continue;
        const QJsonObject record = value.toObject();
        if (!objectBoolValue(record.value("excludeEnabled")))
            continue;
        const QJsonValue pattern = record.value("excludePattern");
        if (!pattern.isString() || pattern.toString().isEmpty())
            continue;
        const std::string text = pattern.toString().toStdString();
        if (objectBoolValue(record.value("excludeRegEx")))
            patterns.push_back(text);
        else
            patterns.push_back(escapePlainPattern(expandTilde(text)));
    }
    return patterns;
}

DockIcon dockIconChoice(const Preferences& prefs)
{
    const std::optional<std::string> choice = prefs.string("ShowDockIcon");
    if (!choice)
        return DockIcon::TrayOnly;
    const QString text = QString::fromStdString(*choice).toLower();
    if (text == QLatin1String("true"))
        return DockIcon::IconOnly;
    return text == QLatin1String("both") ? DockIcon::Both : DockIcon::TrayOnly;
}

} // namespace kv
