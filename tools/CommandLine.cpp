#include "tools/CommandLine.h"

#include "tools/BusCommand.h"
#include "tools/CommandStatus.h"
#include "tools/DefaultsCommand.h"
#include "tools/ScanCommand.h"
#include "tools/ScheduleCommand.h"
#include "tools/SetupCommand.h"

#include <cstdio>

namespace kv {

const char* usageText()
{
    return "usage: velgarctl COMMAND ...\n"
           "  setup [--prefix DIR] [--watch DIR]... [--no-subdirs] [--own-engine | --engine HOST:PORT]\n"
           "                          build the engine prefix and write the agent's preferences\n"
           "  setup --autostart | --no-autostart\n"
           "                          start the agent at login, or stop doing so\n"
           "  scan [--no-subdirs] [--report-only] PATH...\n"
           "                          scan files and folders now\n"
           "  schedule (daily | weekly | off) [--at HH:MM] [--folder DIR]...\n"
           "                          scan the watched folders (or DIRs) on a schedule, or no longer\n"
           "  defaults read [DOMAIN [KEY]]\n"
           "  defaults write DOMAIN KEY (-string S | -bool B | -int N | -float F | -json J)\n"
           "  defaults delete DOMAIN KEY\n"
           "  post NAME [OBJECT]      post a distributed notification\n"
           "  restart | quit          ask the running agent to restart watching, or to quit\n"
           "  listen                  print every distributed notification as NAME OBJECT\n"
           "  script restartWatchingViaAS\n"
           "                          the scripted read of the running agent\n";
}

int runCommandLine(const std::vector<std::string>& arguments)
{
    if (arguments.empty()) {
        std::fputs(usageText(), stderr);
        return kExitBadInput;
    }
    const std::string& command = arguments[0];
    const std::vector<std::string> rest(arguments.begin() + 1, arguments.end());
    if (command == "--help" || command == "-h" || command == "help") {
        std::fputs(usageText(), stdout);
        return kExitSuccess;
    }
    if (command == "setup")
        return SetupCommand().run(rest);
    if (command == "defaults")
        return DefaultsCommand().run(rest);
    if (command == "scan")
        return ScanCommand().run(rest);
    if (command == "schedule")
        return ScheduleCommand().run(rest);
    if (BusCommand::handles(command))
        return BusCommand().run(command, rest);
    return reportBadInput("unknown command \"" + command + "\" (velgarctl --help lists them)");
}

} // namespace kv
