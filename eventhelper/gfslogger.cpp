// gfslogger: reports file events in the folders the agent watches until it
// is terminated, as the NUL-ended records of HelperOutput.h: the full path
// of every file created, closed after writing, moved in or changed in its
// attributes, whatever bytes its name holds; every folder moved in, with
// where it was before; an event whose folder has no path, with the deepest
// folder above it that has one; and that events were lost, when the
// kernel's event queue overflowed. Its diagnostics on standard error are
// records too. The agent runs it, writes the folders to watch on its
// standard input (HelperInput.h), and reads both output streams in one
// pipe; see intake/FSEventWatcher.h for the other side. Given the agent's
// hold channel as descriptor 3, it also starts the OpenHolder, which keeps
// opens in the user's watched folders waiting for their verdict.
//
// Takes no arguments. Exits 1 when it lacks root's rights, which the agent
// answers by installing it set-user-ID root; 3 when another helper watches
// for the same user; 4 when nobody took its output for a long time.

#include "eventhelper/ExitStatus.h"
#include "eventhelper/FanotifyWatch.h"
#include "eventhelper/Privileges.h"
#include "eventhelper/RecordWriter.h"
#include "eventhelper/WatchListInput.h"

#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <string>

using namespace kv::gfs;

// A sanitizer build reports a fault with exit status 1 unless told
// otherwise, and the agent would take that for a request to install us.
// The leak check at exit stops our threads with ptrace, which a set-user-ID
// program, and one that made itself undumpable as Privileges does, refuses
// it: it would always end in a LeakSanitizer error of its own, so it is off.
extern "C" const char* __asan_default_options() { return "exitcode=2:detect_leaks=0"; }
extern "C" const char* __ubsan_default_options() { return "exitcode=2"; }

namespace {

int fail(ExitStatus status, const std::string& message)
{
    printDiagnostic(message);
    return status;
}

int outputEnded(const RecordWriter& output)
{
    return output.unread() ? kOutputUnread : kOutputClosed;
}

} // namespace

int main()
{
    std::string message;
    kv::UniqueFd userLock;
    OpenHolder::Link holder;
    switch (Privileges::establish(&message, &userLock, &holder)) {
    case Privileges::Outcome::Ready:
        break;
    case Privileges::Outcome::LacksPrivileges:
        return fail(kLacksPrivileges, message);
    case Privileges::Outcome::Failed:
        return fail(kCannotWatch, message);
    case Privileges::Outcome::AlreadyRunning:
        return fail(kAlreadyRunning, message);
    }
    RecordWriter::prepare(STDOUT_FILENO);
    RecordWriter::prepare(STDERR_FILENO);

    const Privileges privileges;
    FanotifyWatch watch(privileges, holder);
    if (!watch.open(&message))
        return fail(kCannotWatch, message);

    RecordWriter output(STDOUT_FILENO);
    WatchListInput input;
    bool readingInput = true;
    enum { kHandles, kDescriptors, kMounts, kInput, kOutput };
    for (;;) {
        // The groups change when folders are marked afresh.
        pollfd watched[] = {
            {watch.handleGroup(), POLLIN, 0},
            {watch.descriptorGroup(), POLLIN, 0},
            {watch.mountTable(), POLLPRI, 0},
            {readingInput ? STDIN_FILENO : -1, POLLIN, 0},
            // Asks for nothing: a pipe whose reader has gone reports POLLERR, so
            // we end at once rather than at the next event.
            {STDOUT_FILENO, 0, 0},
        };
        const int timeout = watch.waitsForMissingFolders() ? FanotifyWatch::kMissingFolderRetryMs : -1;
        const int ready = ::poll(watched, std::size(watched), timeout);
        if (ready < 0) {
            if (errno == EINTR)
                continue;
            return fail(kCannotWatch, "poll failed");
        }
        if (watched[kOutput].revents & (POLLERR | POLLHUP | POLLNVAL))
            return kOutputClosed;
        if (ready == 0)
            watch.retryMissingFolders(output);
        if (watched[kInput].revents) {
            switch (input.read(STDIN_FILENO)) {
            case WatchListInput::Read::Nothing:
                break;
            case WatchListInput::Read::List:
                watch.setWatchList(input.list(), input.holdSeconds(), output);
                break;
            case WatchListInput::Read::Ended:
                // The agent has said all it will: what is watched stays so.
                readingInput = false;
                break;
            }
        }
        if (watched[kMounts].revents & (POLLPRI | POLLERR))
            watch.mountsChanged(output);
        if ((watched[kHandles].revents | watched[kDescriptors].revents) & POLLIN) {
            // Let events gather for a moment: under a burst of file activity
            // one wake-up then handles hundreds of them, and a path reaches
            // the agent at most a millisecond later, which waits a second
            // for every file to settle anyway.
            const timespec gather{0, 1'000'000};
            ::nanosleep(&gather, nullptr);
        }

        FanotifyWatch::ReadResult result = FanotifyWatch::ReadResult::Ok;
        if (watched[kHandles].revents & POLLIN)
            result = watch.readHandleEvents(output);
        if (result == FanotifyWatch::ReadResult::Ok && (watched[kDescriptors].revents & POLLIN))
            result = watch.readDescriptorEvents(output);
        if (result == FanotifyWatch::ReadResult::Unusable)
            return fail(kCannotWatch, "the kernel reports events in a format this helper does not know");
        if (result == FanotifyWatch::ReadResult::OutputClosed || !output.flush())
            return outputEnded(output);
    }
}
