#pragma once

// How the agent meets scripts, velgarctl and the main application on the
// session bus. The one place for these names: the agent and velgarctl both
// build on it, so neither can drift from the other.
namespace kv::bus {

// The agent's well-known name, owned while it runs: one agent a session.
inline constexpr const char* kAgentName = "com.korvane.KorvaneVelgar";
// Its object and interface. A Properties Get of a key on the interface is
// a scripted read of that key; the agent answers kScriptKey alone.
inline constexpr const char* kAgentPath = "/com/korvane/KorvaneVelgar";
inline constexpr const char* kAgentInterface = "com.korvane.KorvaneVelgar";
inline constexpr const char* kScriptKey = "restartWatchingViaAS";
inline constexpr const char* kScriptAnswer = "Restart Requested";

// The main application's well-known name (and desktop id).
inline constexpr const char* kMainAppName = "com.korvane.Korvane";

// Distributed notifications: signals from this path and interface whose
// member is the notification's name and whose one string argument names
// the object it is about.
inline constexpr const char* kNotificationPath = "/com/korvane/DistributedNotification";
inline constexpr const char* kNotificationInterface = "com.korvane.DistributedNotification";
// The object the agent's own notifications, and the requests to it, name.
inline constexpr const char* kAgentObject = "KorvaneVelgar";
// Requests to the agent.
inline constexpr const char* kShouldRestart = "KorvaneVelgarShouldRestart";
inline constexpr const char* kShouldQuit = "KorvaneVelgarShouldQuit";
// Posted by the agent: it has quit; the main application should show its
// preferences.
inline constexpr const char* kHasQuit = "KorvaneVelgarHasQuit";
inline constexpr const char* kShouldOpenPrefs = "KorvaneShouldOpenPrefs";

// The agent's state as the Korvane application shows it live: posted with
// one of the words below as its object whenever the state changes, and
// answered to a scripted read of kStatusKey.
inline constexpr const char* kStatus = "KorvaneVelgarStatus";
inline constexpr const char* kStatusKey = "agentStatus";
inline constexpr const char* kStatusChanging = "changing";  // starting or stopping watching
inline constexpr const char* kStatusStopped = "stopped";
inline constexpr const char* kStatusWatching = "watching";
inline constexpr const char* kStatusScanning = "scanning";
// Whether opens in the watched folders wait for their verdict, for the
// Korvane application's Protection page: "off", or "on HELD BLOCKED" (the
// opens held, and of those refused, since watching began).
inline constexpr const char* kPreventionKey = "preventionStatus";
// Asks the Korvane application to show one of its pages; the object is the
// page's name (see korvane/Pages.h).
inline constexpr const char* kShouldOpenPage = "KorvaneShouldOpenPage";

} // namespace kv::bus
