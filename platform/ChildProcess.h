#pragma once

#include "platform/UniqueFd.h"

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace kv {

// One child process, started without a shell, the reading end of its
// output pipe when it has one, and the writing end of its input pipe when
// it has one. Exactly one owner: the destructor reaps a
// child that was never waited for, so no zombie is ever left behind.
//
// Not thread-safe: a ChildProcess is used by the thread that started it,
// except for pid(), which other threads may read to signal the child.
class ChildProcess {
public:
    // What becomes of the child's standard output and standard error.
    enum class Output {
        Inherit,       // both stay the agent's own (the scan log)
        Pipe,          // both go into one pipe that the owner reads
        StdoutPipe,    // standard output into the pipe, standard error inherited
        StdoutToNull,  // standard output to /dev/null, standard error inherited
        Null,          // both to /dev/null
    };

    // What the child reads on its standard input.
    enum class Input {
        Null,  // /dev/null
        Pipe,  // a pipe whose writing end the owner holds (inputFd())
    };

    enum class ReadStatus { Data, EndOfFile, Stopped, Failed };

    ChildProcess() = default;
    ChildProcess(ChildProcess&& other) noexcept;
    ChildProcess& operator=(ChildProcess&& other) noexcept;
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess();

    // Starts argv[0] (an absolute path, or a name looked up on PATH) with
    // argv as its argument vector. On failure returns nothing and sets
    // *error to errno (ENOENT or EACCES when the program cannot be run).
    // passFd, when given, is the child's descriptor 3 (a channel of its
    // own); nothing else of ours reaches it.
    static std::optional<ChildProcess> spawn(const std::vector<std::string>& argv, Output output,
                                             int* error = nullptr, Input input = Input::Null, int passFd = -1);

    pid_t pid() const { return pid_; }
    int outputFd() const { return output_.get(); }
    int inputFd() const { return input_.get(); }

    // Waits for output and appends what one read(2) delivers to *chunk.
    // When stopFd is given, a readable stopFd ends the wait with Stopped.
    ReadStatus readChunk(std::string* chunk, int stopFd = -1);

    // Reads until end of file and returns everything.
    std::string readAll();

    // Reaps the child and returns its exit status, or 128 + the signal that
    // ended it. Safe to call again: returns the same status.
    int wait();

    // Blocks until the child has ended but leaves it unreaped, so its pid
    // cannot be reused before wait(): another thread may still signal it.
    void waitForExitWithoutReaping();

    // True while the child has not ended (reaps it when it has).
    bool running();

    void closeOutput() { output_.reset(); }
    void closeInput() { input_.reset(); }

private:
    pid_t pid_ = -1;
    UniqueFd output_;
    UniqueFd input_;
    std::optional<int> status_;
};

// Runs argv to completion with both streams discarded and returns its exit
// status; -1 when it could not be started.
int runAndWait(const std::vector<std::string>& argv, ChildProcess::Output output = ChildProcess::Output::Null);

} // namespace kv
