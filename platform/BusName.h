#pragma once

#include <QDBusConnection>

#include <string>

namespace kv {

// Claims a well-known name on a bus, so that only one agent runs per
// session. The name is given up when the process ends.
enum class BusNameResult { Owned, Taken, NoBus };
BusNameResult claimBusName(QDBusConnection connection, const std::string& name);

// True when the name currently has an owner on the bus.
bool busNameHasOwner(QDBusConnection connection, const std::string& name);

} // namespace kv
