#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

namespace kv {

class ClamdSupervisor;
class Dispatcher;
class ScanAlerts;

// What a scanning worker needs of the agent around it: the engine link, the
// queue, the user's attention and the busy count. The controller implements
// it; tests may too. Every operation is callable from a scanner's thread.
class ScannerHost {
public:
    virtual ~ScannerHost() = default;

    // The engine link.
    virtual ClamdSupervisor& clamd() = 0;
    // False, after a log line, when a run's socket is served by another
    // user; true without a socket (a daemon over TCP).
    virtual bool clamdSocketTrusted(const std::optional<std::string>& socket) = 0;
    virtual bool clamdStillAlive() = 0;
    // After a run that began with GENERATION lost its daemon: true when the
    // user's own daemon was launched again.
    virtual bool recoverFromCrashedClamd(uint64_t generation) = 0;
    // Tells the user that there is no engine to scan with.
    virtual void noEnginePanic() = 0;
    // The unreachable-engine alert (dialog and notification) is shown once
    // until the engine answers again: true for the first run that finds it
    // silent, false for the runs after it. engineAnswered() says that a run
    // reached the engine, so the next silence is told again.
    virtual bool engineUnreachableAlertDue() = 0;
    virtual void engineAnswered() = 0;

    // The queue the worker takes its batches from.
    virtual Dispatcher& theDispatcher() = 0;
    // The private temporary folder of the last preferences load, where the
    // worker's list file lives.
    virtual std::optional<std::string> temporaryFolder() const = 0;

    // The user's attention: a desktop notification (a NotificationKind), a
    // localised text, the dialogs (null without a desktop), and the quit
    // item's title for the dialog that offers to quit.
    virtual bool displayGrowlDialog(int kind, const std::string& description) = 0;
    virtual std::string localizedString(const std::string& key) const = 0;
    virtual ScanAlerts* scanAlerts() const = 0;
    virtual std::string quitMenuName() const = 0;

    // The busy count the indicator shows, +1 at a run's start and -1 at its end.
    virtual void modifyScannerCountBy(int32_t delta) = 0;
    // The clamdscan clients running now, so an abort kills only ours.
    virtual void registerScanClient(pid_t pid) = 0;
    virtual void unregisterScanClient(pid_t pid) = 0;
};

} // namespace kv
