// The measuring half of bench/peers.sh: writes files into a watched folder as
// another user and times the arrival of each file's result line in one or
// more scan logs, each named on the command line.
//
//   peers_bench latency FOLDER COUNT PAUSE_S [--stall-before-write MS] [--stall-before-close MS] NAME=LOG...
//       COUNT EICAR files with unique tails, one at a time. For each log: the
//       time from the file's close to the first line that reports the file
//       as FOUND. The next file follows once every log reported the last one
//       (or 15 s went by) and PAUSE_S seconds have passed since its close.
//       One extra file first, not counted, shows that every scanner listens.
//       --stall-before-write MS / --stall-before-close MS make the writer
//       wait that long after the open, or after the write, as a writer that
//       is descheduled there would.
//
//   peers_bench flood FOLDER COUNT TAG [--pid PID] [--quiet S] [--arrivals FILE] NAME=LOG...
//       COUNT clean files of 64 bytes, each different, written as fast as one
//       process can. Counts the files that each log gives a result for and
//       times the last of them from the last file's close. Stops once every
//       log has every file, or nothing new came for S seconds (default 30)
//       after the writing, or 3 s after process PID ended.
//
// The writer is a child process that runs as "nobody" (the scanners ignore
// root's own accesses); it stamps each close with CLOCK_MONOTONIC, which the
// parent shares. The parent follows the logs through inotify, so a line is
// stamped within microseconds of its write.
//
// Results go to standard output, the summary as "RESULT ..." lines.

#include "platform/FileWriting.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace {

double now()
{
    timespec t{};
    ::clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

[[noreturn]] void die(const std::string& message)
{
    std::fprintf(stderr, "peers_bench: %s\n", message.c_str());
    std::exit(2);
}

const std::string kEicar = "X5O!P%@AP[4\\PZX54(P^)7CC)7}$EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";

// ---------------------------------------------------------------- the writer

// Requests go down one pipe as fixed records, close times come back up the
// other. Kind 'E' writes one EICAR file, 'C' writes `count` clean files.
struct Request {
    char kind;
    int index;
    int count;
    int stallBeforeWriteMs;
    int stallBeforeCloseMs;
    char path[512];
};

struct Reply {
    double firstClose;
    double lastClose;
    int written;
};

bool writeAll(int fd, const void* data, size_t size)
{
    return kv::writeAll(fd, std::string_view(static_cast<const char*>(data), size));
}

bool readAll(int fd, void* data, size_t size)
{
    char* p = static_cast<char*>(data);
    while (size > 0) {
        const ssize_t n = ::read(fd, p, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool writeFile(const std::string& path, const std::string& contents, int stallBeforeWriteMs = 0,
               int stallBeforeCloseMs = 0)
{
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    if (stallBeforeWriteMs > 0)
        ::usleep(static_cast<useconds_t>(stallBeforeWriteMs) * 1000);
    const bool ok = writeAll(fd, contents.data(), contents.size());
    if (stallBeforeCloseMs > 0)
        ::usleep(static_cast<useconds_t>(stallBeforeCloseMs) * 1000);
    return ::close(fd) == 0 && ok;
}

void writerLoop(int in, int out)
{
    std::mt19937_64 random(std::random_device{}());
    Request request{};
    while (readAll(in, &request, sizeof request)) {
        Reply reply{0, 0, 0};
        if (request.kind == 'E') {
            // The signature is anchored at offset 0; the tail makes every file
            // different, so no cache of the daemon can answer for it.
            const std::string contents = kEicar + " korvane peers " + std::to_string(request.index) + " " +
                                         std::to_string(random()) + "\n";
            if (writeFile(request.path, contents, request.stallBeforeWriteMs, request.stallBeforeCloseMs))
                reply = {now(), now(), 1};
            reply.lastClose = reply.firstClose;
        } else {
            // path holds "FOLDER/TAG": files FOLDER/TAG-00000.txt ...
            for (int i = 0; i < request.count; ++i) {
                char name[600];
                std::snprintf(name, sizeof name, "%s-%05d.txt", request.path, i);
                std::string contents = std::string("korvane peers ") + name + " " + std::to_string(random());
                contents.resize(63, '.');
                contents += '\n';
                if (!writeFile(name, contents))
                    continue;
                const double closed = now();
                if (reply.written++ == 0)
                    reply.firstClose = closed;
                reply.lastClose = closed;
            }
        }
        if (!writeAll(out, &reply, sizeof reply))
            break;
    }
    std::_Exit(0);
}

struct Writer {
    pid_t pid = -1;
    int toChild = -1;
    int fromChild = -1;

    void start()
    {
        int down[2], up[2];
        if (::pipe2(down, O_CLOEXEC) != 0 || ::pipe2(up, O_CLOEXEC) != 0)
            die("pipe failed");
        const passwd* nobody = ::getpwnam("nobody");
        if (!nobody)
            die("no user nobody");
        const uid_t uid = nobody->pw_uid;
        const gid_t gid = nobody->pw_gid;
        pid = ::fork();
        if (pid < 0)
            die("fork failed");
        if (pid == 0) {
            ::close(down[1]);
            ::close(up[0]);
            if (::setgroups(0, nullptr) != 0 || ::setgid(gid) != 0 || ::setuid(uid) != 0) {
                std::fprintf(stderr, "peers_bench: cannot become nobody: %s\n", std::strerror(errno));
                std::_Exit(2);
            }
            ::umask(022);
            writerLoop(down[0], up[1]);
        }
        ::close(down[0]);
        ::close(up[1]);
        toChild = down[1];
        fromChild = up[0];
    }

    Reply ask(char kind, const std::string& path, int index, int count, int stallBeforeWriteMs = 0,
              int stallBeforeCloseMs = 0)
    {
        Request request{};
        request.kind = kind;
        request.index = index;
        request.count = count;
        request.stallBeforeWriteMs = stallBeforeWriteMs;
        request.stallBeforeCloseMs = stallBeforeCloseMs;
        std::snprintf(request.path, sizeof request.path, "%s", path.c_str());
        Reply reply{};
        if (!writeAll(toChild, &request, sizeof request) || !readAll(fromChild, &reply, sizeof reply))
            die("the writer went away");
        return reply;
    }

    // Sends a request without waiting for its reply (the flood's writer runs
    // while the parent follows the logs).
    void send(char kind, const std::string& path, int count)
    {
        Request request{};
        request.kind = kind;
        request.count = count;
        std::snprintf(request.path, sizeof request.path, "%s", path.c_str());
        if (!writeAll(toChild, &request, sizeof request))
            die("the writer went away");
    }

    void stop()
    {
        if (toChild >= 0)
            ::close(toChild);
        if (fromChild >= 0)
            ::close(fromChild);
        if (pid > 0)
            ::waitpid(pid, nullptr, 0);
        pid = -1;
    }
};

// ------------------------------------------------------------- the log tails

// One log followed from its end at the time of opening (or from its start
// when it appears later). Complete lines go to the callback with the time
// they were read.
class LogTail {
public:
    LogTail(std::string name, std::string path, int inotifyFd)
        : name_(std::move(name)), path_(std::move(path)), inotify_(inotifyFd)
    {
        open(true);
    }

    const std::string& name() const { return name_; }

    template <typename Callback>
    void readNew(double stamp, Callback&& onLine)
    {
        if (fd_ < 0)
            open(false);
        if (fd_ < 0)
            return;
        char buffer[1 << 16];
        for (;;) {
            const ssize_t n = ::read(fd_, buffer, sizeof buffer);
            if (n <= 0)
                break;
            pending_.append(buffer, static_cast<size_t>(n));
        }
        size_t start = 0, end;
        while ((end = pending_.find('\n', start)) != std::string::npos) {
            onLine(std::string_view(pending_).substr(start, end - start), stamp);
            start = end + 1;
        }
        pending_.erase(0, start);
    }

private:
    void open(bool atEnd)
    {
        fd_ = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
        if (fd_ < 0)
            return;
        if (atEnd)
            ::lseek(fd_, 0, SEEK_END);
        ::inotify_add_watch(inotify_, path_.c_str(), IN_MODIFY);
    }

    std::string name_, path_;
    int inotify_;
    int fd_ = -1;
    std::string pending_;
};

class Tails {
public:
    explicit Tails(const std::vector<std::string>& specs)
    {
        inotify_ = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
        if (inotify_ < 0)
            die("inotify_init1 failed");
        for (const std::string& spec : specs) {
            const size_t equals = spec.find('=');
            if (equals == std::string::npos || equals == 0)
                die("a log is given as NAME=PATH: " + spec);
            tails_.push_back(std::make_unique<LogTail>(spec.substr(0, equals), spec.substr(equals + 1), inotify_));
        }
        if (tails_.empty())
            die("no log to follow");
    }

    size_t size() const { return tails_.size(); }
    const std::string& name(size_t i) const { return tails_[i]->name(); }

    // Waits up to `timeout` seconds for news, then hands every new line to
    // onLine(logIndex, line, stamp).
    template <typename Callback>
    void waitAndRead(double timeout, Callback&& onLine)
    {
        pollfd watched{inotify_, POLLIN, 0};
        // A short ceiling keeps a log that appears late (or misses an event)
        // from going unread for long.
        const int ms = static_cast<int>(std::min(timeout, 0.05) * 1000);
        ::poll(&watched, 1, std::max(ms, 0));
        char events[4096];
        while (::read(inotify_, events, sizeof events) > 0) {
        }
        const double stamp = now();
        for (size_t i = 0; i < tails_.size(); ++i)
            tails_[i]->readNew(stamp, [&](std::string_view line, double t) { onLine(i, line, t); });
    }

private:
    int inotify_ = -1;
    std::vector<std::unique_ptr<LogTail>> tails_;
};

bool endsWith(std::string_view text, std::string_view tail)
{
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// The path a result line is about: "[stamp ]PATH: OK" or "[stamp ]PATH: SIGNATURE FOUND".
std::string_view resultPath(std::string_view line, std::string_view folder)
{
    if (!endsWith(line, ": OK") && !endsWith(line, " FOUND"))
        return {};
    const size_t start = line.find(folder);
    if (start == std::string_view::npos)
        return {};
    const size_t colon = line.rfind(": ");
    if (colon == std::string_view::npos || colon <= start)
        return {};
    return line.substr(start, colon - start);
}

double percentile(std::vector<double> values, double share)
{
    if (values.empty())
        return NAN;
    std::sort(values.begin(), values.end());
    // Nearest rank: the smallest value with at least `share` of all at or below it.
    const size_t rank = static_cast<size_t>(std::ceil(share * static_cast<double>(values.size())));
    return values[std::max<size_t>(rank, 1) - 1];
}

std::string folderPrefix(std::string folder)
{
    while (folder.size() > 1 && folder.back() == '/')
        folder.pop_back();
    return folder + "/";
}

// ------------------------------------------------------------------ latency

int latency(const std::string& folderArgument, int count, double pause, int stallBeforeWriteMs,
            int stallBeforeCloseMs, const std::vector<std::string>& logs)
{
    const std::string folder = folderPrefix(folderArgument);
    Tails tails(logs);
    Writer writer;
    writer.start();

    // arrivals[path][log] = first time the log reported the path as FOUND
    std::unordered_map<std::string, std::vector<double>> arrivals;
    auto onLine = [&](size_t log, std::string_view line, double stamp) {
        if (!endsWith(line, " FOUND"))
            return;
        const std::string path(resultPath(line, folder));
        auto found = arrivals.find(path);
        if (found != arrivals.end() && std::isnan(found->second[log]))
            found->second[log] = stamp;
    };

    std::vector<std::vector<double>> latencies(tails.size());
    std::vector<int> missed(tails.size(), 0);
    std::printf("%-6s", "file");
    for (size_t log = 0; log < tails.size(); ++log)
        std::printf(" %12s", tails.name(log).c_str());
    std::printf("   (seconds from close to the result line)\n");

    for (int index = -1; index < count; ++index) {
        char name[64];
        std::snprintf(name, sizeof name, "lat-%03d.com", index < 0 ? 999 : index);
        const std::string path = folder + name;
        arrivals[path] = std::vector<double>(tails.size(), NAN);
        const Reply reply = index < 0 ? writer.ask('E', path, index, 1)
                                      : writer.ask('E', path, index, 1, stallBeforeWriteMs, stallBeforeCloseMs);
        if (reply.written != 1)
            die("cannot write " + path);
        const double closed = reply.firstClose;
        // The first file waits longer: it only shows that everyone listens.
        const double limit = closed + (index < 0 ? 30.0 : 15.0);
        for (;;) {
            const std::vector<double>& got = arrivals[path];
            const bool all = std::none_of(got.begin(), got.end(), [](double t) { return std::isnan(t); });
            if (all || now() >= limit)
                break;
            tails.waitAndRead(limit - now(), onLine);
        }
        const std::vector<double>& got = arrivals[path];
        if (index < 0) {
            for (size_t log = 0; log < tails.size(); ++log)
                if (std::isnan(got[log]))
                    die("no result from " + tails.name(log) + " for the first file " + path);
        } else {
            std::printf("%-6d", index + 1);
            for (size_t log = 0; log < tails.size(); ++log) {
                if (std::isnan(got[log])) {
                    ++missed[log];
                    std::printf(" %12s", "missed");
                } else {
                    latencies[log].push_back(got[log] - closed);
                    std::printf(" %12.3f", got[log] - closed);
                }
            }
            std::printf("\n");
            std::fflush(stdout);
        }
        // Lines that come late still count as "first": keep reading during
        // the pause.
        while (now() < closed + pause)
            tails.waitAndRead(closed + pause - now(), onLine);
    }
    writer.stop();

    for (size_t log = 0; log < tails.size(); ++log) {
        const std::vector<double>& values = latencies[log];
        double sum = 0;
        for (double v : values)
            sum += v;
        std::printf("RESULT latency %s n=%zu missed=%d p50=%.3f p95=%.3f min=%.3f max=%.3f mean=%.3f\n",
                    tails.name(log).c_str(), values.size(), missed[log], percentile(values, 0.50),
                    percentile(values, 0.95), values.empty() ? NAN : *std::min_element(values.begin(), values.end()),
                    values.empty() ? NAN : *std::max_element(values.begin(), values.end()),
                    values.empty() ? NAN : sum / static_cast<double>(values.size()));
    }
    return 0;
}

// -------------------------------------------------------------------- flood

int flood(const std::string& folderArgument, int count, const std::string& tag, pid_t watchPid, double quiet,
          const std::string& arrivalsPath, const std::vector<std::string>& logs)
{
    const std::string folder = folderPrefix(folderArgument);
    const std::string filePrefix = folder + tag + "-";
    Tails tails(logs);
    Writer writer;
    writer.start();

    std::vector<std::unordered_map<std::string, double>> seen(tails.size());
    std::vector<double> lastArrival(tails.size(), NAN), firstArrival(tails.size(), NAN);
    std::vector<std::pair<double, size_t>> arrivals;
    auto onLine = [&](size_t log, std::string_view line, double stamp) {
        const std::string_view path = resultPath(line, folder);
        if (path.size() <= filePrefix.size() || path.compare(0, filePrefix.size(), filePrefix) != 0)
            return;
        if (seen[log].emplace(std::string(path), stamp).second) {
            lastArrival[log] = stamp;
            if (std::isnan(firstArrival[log]))
                firstArrival[log] = stamp;
            arrivals.emplace_back(stamp, log);
        }
    };

    const double started = now();
    writer.send('C', folder + tag, count);
    // The writer answers once every file is closed; the logs are followed
    // meanwhile.
    Reply reply{};
    bool written = false;
    double lastNews = now();
    double watchedEnd = NAN;
    for (;;) {
        size_t before = 0;
        for (const auto& s : seen)
            before += s.size();
        tails.waitAndRead(0.05, onLine);
        size_t after = 0;
        for (const auto& s : seen)
            after += s.size();
        if (after != before)
            lastNews = now();
        if (!written) {
            pollfd answer{writer.fromChild, POLLIN, 0};
            if (::poll(&answer, 1, 0) == 1) {
                if (!readAll(writer.fromChild, &reply, sizeof reply))
                    die("the writer went away");
                written = true;
                lastNews = std::max(lastNews, now());
            }
            continue;
        }
        const bool all = std::all_of(seen.begin(), seen.end(), [&](const auto& s) { return s.size() >= size_t(count); });
        if (all)
            break;
        if (watchPid > 0 && std::isnan(watchedEnd) && ::kill(watchPid, 0) != 0 && errno == ESRCH)
            watchedEnd = now();
        if (!std::isnan(watchedEnd) && now() > watchedEnd + 3)
            break;
        if (now() > lastNews + quiet)
            break;
    }
    writer.stop();

    std::printf("RESULT flood written=%d write_s=%.3f\n", reply.written, reply.lastClose - started);
    for (size_t log = 0; log < tails.size(); ++log) {
        const bool any = !seen[log].empty();
        std::printf("RESULT flood %s results=%zu of %d last_after_last_close_s=%.3f last_after_first_close_s=%.3f "
                    "first_after_first_close_s=%.3f%s\n",
                    tails.name(log).c_str(), seen[log].size(), count, any ? lastArrival[log] - reply.lastClose : NAN,
                    any ? lastArrival[log] - reply.firstClose : NAN, any ? firstArrival[log] - reply.firstClose : NAN,
                    watchPid > 0 && !std::isnan(watchedEnd)
                        ? (" watched_process_ended_after_first_close_s=" + std::to_string(watchedEnd - reply.firstClose))
                              .c_str()
                        : "");
    }
    if (!arrivalsPath.empty()) {
        // One line per result: seconds since the first close, the log's name.
        std::FILE* file = std::fopen(arrivalsPath.c_str(), "w");
        if (file) {
            for (const auto& [stamp, log] : arrivals)
                std::fprintf(file, "%.4f %s\n", stamp - reply.firstClose, tails.name(log).c_str());
            std::fclose(file);
        }
    }
    return 0;
}

int usage()
{
    std::fprintf(stderr, "usage: peers_bench latency FOLDER COUNT PAUSE_S [--stall-before-write MS] "
                         "[--stall-before-close MS] NAME=LOG...\n"
                         "       peers_bench flood FOLDER COUNT TAG [--pid PID] [--quiet S] [--arrivals FILE] "
                         "NAME=LOG...\n");
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const std::vector<std::string> args(argv + 1, argv + argc);
    if (args.size() >= 5 && args[0] == "latency") {
        int stallBeforeWrite = 0, stallBeforeClose = 0;
        std::vector<std::string> logs;
        for (size_t i = 4; i < args.size(); ++i) {
            if (args[i] == "--stall-before-write" && i + 1 < args.size())
                stallBeforeWrite = std::atoi(args[++i].c_str());
            else if (args[i] == "--stall-before-close" && i + 1 < args.size())
                stallBeforeClose = std::atoi(args[++i].c_str());
            else
                logs.push_back(args[i]);
        }
        return latency(args[1], std::atoi(args[2].c_str()), std::atof(args[3].c_str()), stallBeforeWrite,
                       stallBeforeClose, logs);
    }
    if (args.size() >= 5 && args[0] == "flood") {
        pid_t pid = -1;
        double quiet = 30;
        std::string arrivals;
        std::vector<std::string> logs;
        for (size_t i = 4; i < args.size(); ++i) {
            if (args[i] == "--pid" && i + 1 < args.size())
                pid = static_cast<pid_t>(std::atoi(args[++i].c_str()));
            else if (args[i] == "--quiet" && i + 1 < args.size())
                quiet = std::atof(args[++i].c_str());
            else if (args[i] == "--arrivals" && i + 1 < args.size())
                arrivals = args[++i];
            else
                logs.push_back(args[i]);
        }
        return flood(args[1], std::atoi(args[2].c_str()), args[3], pid, quiet, arrivals, logs);
    }
    return usage();
}
