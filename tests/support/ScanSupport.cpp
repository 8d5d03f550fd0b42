#include "tests/support/ScanSupport.h"

#include "platform/Preferences.h"
#include "platform/Settings.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>

namespace kvtest {

bool RecordingAlerts::record(std::string dialog)
{
    std::lock_guard<std::mutex> guard(mutex_);
    if (loads)
        shown_.push_back(std::move(dialog));
    return loads;
}

bool RecordingAlerts::showWarningDialog(const std::string&, const std::string&, const std::string&)
{
    if (warningThrows)
        throw std::runtime_error(*warningThrows);
    return record("Warning");
}

std::vector<std::string> RecordingAlerts::shown() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return shown_;
}

size_t RecordingAlerts::count(const std::string& dialog) const
{
    const std::vector<std::string> all = shown();
    return std::count(all.begin(), all.end(), dialog);
}

RecordingScannerHost::RecordingScannerHost(const std::string& enginePrefix, const std::string& privateFolder)
{
    clamd_.startEngine(enginePrefix);
    clamd_.discernClamdSocketLocation(privateFolder);
}

bool RecordingScannerHost::recoverFromCrashedClamd(uint64_t generation)
{
    return clamd_.recoverFromCrashedClamd(generation) == kv::ClamdSupervisor::Recovery::Relaunched;
}

void RecordingScannerHost::engineUnreachable(const std::string& scannerName)
{
    tell("unreachable");
    alerts.showEngineUnreachableDialog(scannerName, "CLAMDSCAN_ERROR", "Quit");
}

void RecordingScannerHost::noEnginePanic() { tell("panic"); }

bool RecordingScannerHost::displayGrowlDialog(kv::NotificationKind kind, const std::string& description)
{
    tell(std::to_string(static_cast<int>(kind)) + " " + description);
    return true;
}

void RecordingScannerHost::tell(std::string what)
{
    std::lock_guard<std::mutex> guard(mutex_);
    told_.push_back(std::move(what));
}

std::vector<std::string> RecordingScannerHost::told() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return told_;
}

void TestScanner::configure(std::shared_ptr<const kv::Settings> settings, const std::string& enginePrefix,
                            const std::string& privateFolder)
{
    scanner_.setMenuAndParams(kv::ScanParameters::forSettings(std::move(settings), enginePrefix + "/bin/clamdscan",
                                                              privateFolder,
                                                              host_.clamd().scansOverCheckedConnectionsOnly()));
}

std::string TestScanner::scan(const std::vector<std::string>& paths)
{
    for (const std::string& path : paths)
        queue_.addStringToItemList(path);
    queue_.runOneCycle();
    return captureStandardStreams([&] { scanner_.scanBatch(); });
}

void ScanTest::configure(const QJsonObject& preferences)
{
    FakePreferences prefs;
    prefs.own = preferences;
    prefs.suite["PathToClamav"] = QString::fromStdString(engine_->path());
    scanner_.configure(kv::Settings::load(prefs), engine_->path(), home_.path() + "/");
}

std::string ScanTest::file(const std::string& name, const std::string& contents)
{
    std::filesystem::create_directories(home_ / "watched");
    const std::string path = home_ / ("watched/" + name);
    writeFile(path, contents);
    return path;
}

} // namespace kvtest
