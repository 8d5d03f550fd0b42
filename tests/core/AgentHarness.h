#pragma once

// What the tests of the agent's system events share: a private dbus-daemon,
// the Qt application, and a controller on a real engine prefix (a running
// clamd) whose platform parts each test chooses.

#include "app/KorvaneVelgar.h"
#include "platform/ChildProcess.h"
#include "tests/support/TestSupport.h"

#include <QDBusConnection>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kvtest {

// A dbus-daemon of the test's own, ended with the object. A System bus lets
// anyone own any name, as logind's stand-in must. Qt keeps its first
// connection to each bus type for the whole process, so tests connect by
// address.
class PrivateBus {
public:
    enum class Kind { System, Session };
    explicit PrivateBus(Kind kind);
    ~PrivateBus();
    const std::string& address() const { return address_; }
    // A new connection, closed when the bus object goes away.
    QDBusConnection connect();

private:
    TempDir folder_;
    std::optional<kv::ChildProcess> daemon_;
    std::string address_;
    std::vector<QString> connections_;
};

// Runs the Qt event loop (the application is made once, for the whole run)
// until the predicate holds, at most timeoutMs.
bool processEventsUntil(const std::function<bool()>& predicate, int timeoutMs = 10000);

class AgentTest : public ::testing::Test {
protected:
    static void SetUpTestSuite();
    static void TearDownTestSuite();
    void SetUp() override;

    // A new controller on the prefix; adjust() adds the parts under test.
    kv::KorvaneVelgar& makeController(const std::function<void(kv::ControllerParts&)>& adjust = {});

    static EnginePrefix* engine_;
    TempDir home_;
    ScopedEnv runtime_{"XDG_RUNTIME_DIR", home_.path()};
    ScopedEnv homeEnv_{"HOME", home_.path()};
    ScopedEnv helperFolder_{"KORVANE_VELGAR_RESOURCES", KV_TEST_RESOURCES_DIR};
    FakePreferences preferences_;
    RecordingNotifier notifier_;
    RecordingPanels panels_;
    LogCapture log_;
    std::unique_ptr<kv::KorvaneVelgar> controller_;
};

} // namespace kvtest
