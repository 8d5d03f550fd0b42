// gfslogger: reports file events on every mounted file system until it is
// terminated, as the NUL-ended records of HelperOutput.h: the full path of
// every file created, closed after writing, moved in or changed in its
// attributes, whatever bytes its name holds; every folder moved in, with
// where it was before; an event whose folder has no path, with the deepest
// folder above it that has one; and that events were lost, when the
// kernel's event queue overflowed. Its diagnostics on standard error are
// records too. The agent runs it and reads both streams in one pipe; see
// intake/FSEventWatcher.h for the other side.
//
// Takes no arguments. Exits 1 when it lacks root's rights, which the agent
// answers by installing it set-user-ID root.

#include "eventhelper/ExitStatus.h"
#include "eventhelper/FanotifyWatch.h"
#include "eventhelper/Privileges.h"
#include "eventhelper/RecordWriter.h"

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

} // namespace

int main()
{
    std::string message;
    switch (Privileges::establish(&message)) {
    case Privileges::Outcome::Ready:
        break;
    case Privileges::Outcome::LacksPrivileges:
        return fail(kLacksPrivileges, message);
    case Privileges::Outcome::Failed:
        return fail(kCannotWatch, message);
    }

    const Privileges privileges;
    FanotifyWatch watch(privileges);
    if (!watch.open(&message))
        return fail(kCannotWatch, message);
    watch.markMounts();

    RecordWriter output(STDOUT_FILENO);
    enum { kHandles, kDescriptors, kMounts, kOutput };
    pollfd watched[] = {
        {watch.handleGroup(), POLLIN, 0},
        {watch.descriptorGroup(), POLLIN, 0},
        {watch.mountTable(), POLLPRI, 0},
        // Asks for nothing: a pipe whose reader has gone reports POLLERR, so
        // we end at once rather than at the next event.
        {STDOUT_FILENO, 0, 0},
    };
    for (;;) {
        if (::poll(watched, std::size(watched), -1) < 0) {
            if (errno == EINTR)
                continue;
            return fail(kCannotWatch, "poll failed");
        }
        if (watched[kOutput].revents & (POLLERR | POLLHUP | POLLNVAL))
            return kOutputClosed;
        if (watched[kMounts].revents & (POLLPRI | POLLERR))
            watch.markMounts();
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
            return kOutputClosed;
    }
}
