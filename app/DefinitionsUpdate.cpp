#include "app/DefinitionsUpdate.h"

#include "platform/ChildProcess.h"
#include "platform/Log.h"
#include "platform/UniqueFd.h"

#include <fcntl.h>

#include <cstring>

namespace kv {

DefinitionsUpdate::DefinitionsUpdate(std::optional<std::string> freshclamPath,
                                     std::optional<std::string> freshclamLogLocation, bool needsExit1FreshclamFlag)
    : freshclamPath_(std::move(freshclamPath)), freshclamLogLocation_(std::move(freshclamLogLocation)),
      needsExit1FreshclamFlag_(needsExit1FreshclamFlag)
{
}

std::vector<std::string> DefinitionsUpdate::commandLine() const
{
    std::vector<std::string> argv{freshclamPath_.value_or(std::string())};
    if (freshclamLogLocation_)
        argv.push_back(*freshclamLogLocation_);
    if (needsExit1FreshclamFlag_)
        argv.push_back("--on-update-execute=EXIT_1");
    return argv;
}

DefinitionsUpdate::Outcome DefinitionsUpdate::run() const
{
    if (!freshclamPath_ || !UniqueFd(::open(freshclamPath_->c_str(), O_RDONLY | O_CLOEXEC)))
        return Outcome::NoUpdater;

    int error = 0;
    std::optional<ChildProcess> updater = ChildProcess::spawn(commandLine(), ChildProcess::Output::StdoutToNull, &error);
    if (!updater) {
        nsLogf("The definitions updater %s cannot be run: %s", freshclamPath_->c_str(), std::strerror(error));
        return Outcome::Error;
    }
    return classify(updater->wait(), needsExit1FreshclamFlag_);
}

DefinitionsUpdate::Outcome DefinitionsUpdate::classify(int exitStatus, bool needsExit1FreshclamFlag)
{
    switch (exitStatus) {
    case 0: return needsExit1FreshclamFlag ? Outcome::AlreadyUpToDate : Outcome::Updated;
    case 1: return needsExit1FreshclamFlag ? Outcome::Updated : Outcome::AlreadyUpToDate;
    default: return Outcome::Error;
    }
}

} // namespace kv
