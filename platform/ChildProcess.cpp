#include "platform/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

extern char** environ;

namespace kv {

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)),
      output_(std::move(other.output_)),
      input_(std::move(other.input_)),
      status_(std::exchange(other.status_, std::nullopt))
{
}

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept
{
    if (this != &other) {
        if (pid_ > 0 && !status_)
            wait();
        pid_ = std::exchange(other.pid_, -1);
        output_ = std::move(other.output_);
        input_ = std::move(other.input_);
        status_ = std::exchange(other.status_, std::nullopt);
    }
    return *this;
}

ChildProcess::~ChildProcess()
{
    // Reap the child if forgotten. Closing the pipes first lets a child that
    // is still writing see EPIPE instead of blocking on a full pipe, and one
    // that reads see the end of its input.
    output_.reset();
    input_.reset();
    if (pid_ > 0 && !status_)
        wait();
}

std::optional<ChildProcess> ChildProcess::spawn(const std::vector<std::string>& argv, Output output, int* error,
                                                Input input, int passFd)
{
    if (argv.empty()) {
        if (error)
            *error = EINVAL;
        return std::nullopt;
    }

    int pipeFds[2] = {-1, -1};
    const bool wantsPipe = output == Output::Pipe || output == Output::StdoutPipe;
    if (wantsPipe && ::pipe2(pipeFds, O_CLOEXEC) != 0) {
        if (error)
            *error = errno;
        return std::nullopt;
    }
    UniqueFd readEnd(pipeFds[0]);
    UniqueFd writeEnd(pipeFds[1]);
    int inputFds[2] = {-1, -1};
    if (input == Input::Pipe && ::pipe2(inputFds, O_CLOEXEC) != 0) {
        if (error)
            *error = errno;
        return std::nullopt;
    }
    UniqueFd inputReadEnd(inputFds[0]);
    UniqueFd inputWriteEnd(inputFds[1]);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    switch (output) {
    case Output::Inherit:
        break;
    case Output::Pipe:
        posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), STDERR_FILENO);
        break;
    case Output::StdoutPipe:
        posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), STDOUT_FILENO);
        break;
    case Output::StdoutToNull:
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        break;
    case Output::Null:
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
        break;
    }
    if (input == Input::Pipe)
        posix_spawn_file_actions_adddup2(&actions, inputReadEnd.get(), STDIN_FILENO);
    else
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    // A copy above 3 first: dup2 onto itself would leave the descriptor
    // close-on-exec.
    UniqueFd passed(passFd >= 0 ? ::fcntl(passFd, F_DUPFD_CLOEXEC, 4) : -1);
    if (passed)
        posix_spawn_file_actions_adddup2(&actions, passed.get(), 3);

    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    // Children start with default signal handling whatever the agent has set.
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    sigaddset(&defaults, SIGTERM);
    sigaddset(&defaults, SIGINT);
    sigset_t noneBlocked;
    sigemptyset(&noneBlocked);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setsigmask(&attributes, &noneBlocked);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);

    std::vector<char*> arguments;
    arguments.reserve(argv.size() + 1);
    for (const std::string& argument : argv)
        arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);

    pid_t pid = -1;
    const int result = argv[0].find('/') == std::string::npos
                           ? ::posix_spawnp(&pid, arguments[0], &actions, &attributes, arguments.data(), environ)
                           : ::posix_spawn(&pid, arguments[0], &actions, &attributes, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (result != 0) {
        if (error)
            *error = result;
        return std::nullopt;
    }

    ChildProcess child;
    child.pid_ = pid;
    child.output_ = std::move(readEnd);
    child.input_ = std::move(inputWriteEnd);
    return child;
}

ChildProcess::ReadStatus ChildProcess::readChunk(std::string* chunk, int stopFd)
{
    if (!output_)
        return ReadStatus::EndOfFile;
    pollfd watched[2] = {{output_.get(), POLLIN, 0}, {stopFd, POLLIN, 0}};
    const nfds_t count = stopFd >= 0 ? 2 : 1;
    for (;;) {
        const int ready = ::poll(watched, count, -1);
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready < 0)
            return ReadStatus::Failed;
        if (count == 2 && (watched[1].revents & POLLIN) && !(watched[0].revents & (POLLIN | POLLHUP)))
            return ReadStatus::Stopped;
        break;
    }
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(output_.get(), buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return ReadStatus::Failed;
        if (n == 0)
            return ReadStatus::EndOfFile;
        chunk->append(buffer, static_cast<size_t>(n));
        return ReadStatus::Data;
    }
}

std::string ChildProcess::readAll()
{
    std::string everything;
    while (readChunk(&everything) == ReadStatus::Data) {
    }
    return everything;
}

int ChildProcess::wait()
{
    if (status_)
        return *status_;
    if (pid_ <= 0)
        return -1;
    int raw = 0;
    pid_t reaped;
    do {
        reaped = ::waitpid(pid_, &raw, 0);
    } while (reaped < 0 && errno == EINTR);
    if (reaped < 0)
        status_ = -1;
    else if (WIFEXITED(raw))
        status_ = WEXITSTATUS(raw);
    else if (WIFSIGNALED(raw))
        status_ = 128 + WTERMSIG(raw);
    else
        status_ = -1;
    return *status_;
}

void ChildProcess::waitForExitWithoutReaping()
{
    if (status_ || pid_ <= 0)
        return;
    siginfo_t info{};
    while (::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR) {
    }
}

bool ChildProcess::running()
{
    if (status_ || pid_ <= 0)
        return false;
    int raw = 0;
    const pid_t reaped = ::waitpid(pid_, &raw, WNOHANG);
    if (reaped == 0)
        return true;
    if (reaped == pid_)
        status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : WIFSIGNALED(raw) ? 128 + WTERMSIG(raw) : -1;
    else
        status_ = -1;
    return false;
}

int runAndWait(const std::vector<std::string>& argv, ChildProcess::Output output)
{
    std::optional<ChildProcess> child = ChildProcess::spawn(argv, output);
    return child ? child->wait() : -1;
}

} // namespace kv
