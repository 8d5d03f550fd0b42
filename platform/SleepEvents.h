#pragma once

#include <functional>

namespace kv {

// The machine's sleep and wake as the controller sees them, and the delay the
// agent asks for so that it can stop watching before the machine sleeps.
//
// Main thread only; the handlers run there.
class SleepEvents {
public:
    using Handler = std::function<void()>;

    virtual ~SleepEvents() = default;

    // From now on calls willSleep before the machine sleeps and didWake after
    // it has woken. False when the system cannot tell the agent (no system
    // bus, no logind); the reason has then been logged, once, and the agent
    // goes without sleep handling.
    virtual bool observe(Handler willSleep, Handler didWake) = 0;

    // While held, the machine waits for the agent's willSleep handler before
    // it sleeps (up to the system's own limit). Held while watching; given up
    // once watching has stopped for sleep. Both calls may be repeated.
    virtual void holdSleepDelay() = 0;
    virtual void releaseSleepDelay() = 0;
};

} // namespace kv
