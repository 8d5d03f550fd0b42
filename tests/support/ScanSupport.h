#pragma once

// What the scanner tests share: recording dialogs, a recording host around
// a real engine supervisor, and a scanner of the test's own that scans one
// batch at a time with a real clamd.

#include "engine/ClamdSupervisor.h"
#include "queue/Dispatcher.h"
#include "engine/DefinitionsIdentity.h"
#include "platform/VerdictCache.h"
#include "scan/FileMemory.h"
#include "scan/PatientScanner.h"
#include "scan/ScanActivity.h"
#include "scan/ScanAlerts.h"
#include "scan/ScanClients.h"
#include "scan/ScannerHost.h"
#include "tests/support/TestSupport.h"

#include <QJsonObject>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kvtest {

// Records the dialogs the scanners show, by kind: "Quarantined", "Warning"
// or "EngineUnreachable".
class RecordingAlerts : public kv::ScanAlerts {
public:
    bool loads = true;  // false: the interface files cannot be loaded
    // Set: a warning dialog throws it, as a failing desktop would.
    std::optional<std::string> warningThrows;
    bool showQuarantinedDialog(const std::string&, const std::string&) override { return record("Quarantined"); }
    bool showWarningDialog(const std::string&, const std::string&, const std::string&) override;
    bool showEngineUnreachableDialog(const std::string&, const std::string&, const std::string&) override
    {
        return record("EngineUnreachable");
    }
    std::vector<std::string> shown() const;
    size_t count(const std::string& dialog) const;

private:
    bool record(std::string dialog);
    mutable std::mutex mutex_;
    std::vector<std::string> shown_;  // guarded by mutex_
};

// A scanner host around a real supervisor of the engine at a prefix, which
// records what the user would be told.
class RecordingScannerHost : public kv::ScannerHost {
public:
    // The engine of the prefix, as a start of watching finds it.
    RecordingScannerHost(const std::string& enginePrefix, const std::string& privateFolder);

    kv::ClamdSupervisor& clamd() override { return clamd_; }
    bool clamdStillAlive() override { return clamd_.clamdStillAlive(); }
    bool recoverFromCrashedClamd(uint64_t generation) override;
    void engineAnswered() override {}
    void engineUnreachable(const std::string& scannerName) override;
    void noEnginePanic() override;
    bool displayGrowlDialog(kv::NotificationKind kind, const std::string& description) override;
    kv::ScanAlerts* scanAlerts() const override { return const_cast<RecordingAlerts*>(&alerts); }

    // What was told, in order: "panic", "unreachable", and each
    // notification as its kind's number and its description.
    std::vector<std::string> told() const;
    RecordingAlerts alerts;

private:
    void tell(std::string what);
    kv::ClamdSupervisor clamd_;
    mutable std::mutex mutex_;
    std::vector<std::string> told_;  // guarded by mutex_
};

// One scanning worker of the test's own ("firstPatientScanner") with its own
// queue, on a host: a recording one, or the controller itself.
class TestScanner {
    kv::ScannerHost& host_;

public:
    explicit TestScanner(kv::ScannerHost& host) : host_(host), definitions(host.clamd()) {}

    // The parameters a start of watching with these settings would give.
    void configure(std::shared_ptr<const kv::Settings> settings, const std::string& enginePrefix,
                   const std::string& privateFolder);
    // Queues the paths, runs one queue cycle and one batch; returns what
    // the batch wrote to the scan log.
    std::string scan(const std::vector<std::string>& paths);

    kv::ScanActivity activity;
    kv::ScanClients clients;
    kv::FileMemory findings{64};
    kv::VerdictCache knownClean;  // the user's own: $XDG_DATA_HOME when the scanner is made
    kv::DefinitionsIdentity definitions;

private:
    kv::Dispatcher queue_{[] {}};
    kv::PatientScanner scanner_{"firstPatientScanner",
                                {host_, queue_, activity, clients, findings, knownClean, definitions}};
};

// The scanner tests: the suite's clamd, and for each test a private home,
// a recording host and a scanner.
class ScanTest : public EngineSuite {
protected:
    // The scanner with these preferences; "~" is the test's home.
    void configure(const QJsonObject& preferences = {});
    std::string scan(const std::vector<std::string>& paths) { return scanner_.scan(paths); }
    // A file of the watched folder with its contents.
    std::string file(const std::string& name, const std::string& contents);

    TempDir home_;
    ScopedEnv homeEnv_{"HOME", home_.path()};
    ScopedEnv data_{"XDG_DATA_HOME", home_ / "data"};
    RecordingScannerHost host_{engine_->path(), home_.path() + "/"};
    TestScanner scanner_{host_};
    LogCapture log_;
};

} // namespace kvtest
