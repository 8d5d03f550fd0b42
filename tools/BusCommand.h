#pragma once

#include <string>
#include <vector>

namespace kv {

// The commands that talk to a running agent over the session bus:
//   post NAME [OBJECT], restart, quit  post a distributed notification
//   listen                             print every distributed notification
//   script KEY                         the scripted read of the agent
// They run on the main thread and need the QCoreApplication that main()
// created; listen runs its event loop until SIGTERM or SIGINT.
class BusCommand {
public:
    // True for the command names this class runs.
    static bool handles(const std::string& command);

    // arguments: everything after the command name. Returns the exit status.
    int run(const std::string& command, const std::vector<std::string>& arguments);

    // A notification name must be a D-Bus member name: letters, digits and
    // '_', not starting with a digit, at most 255 characters.
    static bool isNotificationName(const std::string& text);

private:
    int post(const std::string& name, const std::string& object);
    int listen();
    int script(const std::string& key);
};

} // namespace kv
