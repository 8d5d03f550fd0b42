// The measuring half of bench/prevention.sh: opens files the way a user's
// programs do and times every open, which is where a scanner that holds
// opens makes a program wait.
//
//   prevention_bench make FOLDER COUNT SIZE
//       COUNT files of SIZE bytes, each different, as FOLDER/dNNN/fNNNNN.dat
//       (100 to a folder). Times the writing.
//   prevention_bench read FOLDER
//       Opens and reads every regular file below FOLDER, in name order (the
//       list is made before the clock starts).
//   prevention_bench fresh FOLDER COUNT SIZE PAUSE_S
//       COUNT new files of SIZE bytes (random, each different), one at a
//       time: writes one, closes it, opens it again at once and reads it to
//       its end, then waits PAUSE_S seconds.
//   prevention_bench unpack ARCHIVE FOLDER
//       Extracts a ustar archive (GNU tar --format=ustar) into FOLDER as
//       tar -x does for folders and regular files (each file created with
//       O_CREAT | O_EXCL, written, closed), then opens and reads every file
//       it extracted, in the archive's order.
//   prevention_bench fildes SOCKET FOLDER
//       Scans every regular file below FOLDER by descriptor with the clamd
//       at SOCKET, one at a time, one connection each (zFILDES), and times
//       each scan from the connection to the answer: what the engine alone
//       adds to a held open. Run it where nothing holds opens.
//
// Run as root, it becomes "nobody" first (fildes stays root, to reach a
// root's clamd): clamonacc lets root's own opens
// go (OnAccessExcludeRootUID), and the same opener serves every scanner.
// Every open is timed on CLOCK_MONOTONIC from just before open(2) to just
// after it returns: that is the time a held open waited. Results go to
// standard output as "RESULT ..." lines; any failed open or short read is a
// failure of the run (exit status 1).

#include "platform/FileWriting.h"
#include "platform/UniqueFd.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

[[noreturn]] void die(const std::string& message)
{
    std::fprintf(stderr, "prevention_bench: %s\n", message.c_str());
    std::exit(2);
}

void becomeNobody()
{
    if (::getuid() != 0)
        return;
    const passwd* nobody = ::getpwnam("nobody");
    if (!nobody)
        die("no user nobody");
    if (::setgroups(0, nullptr) != 0 || ::setgid(nobody->pw_gid) != 0 || ::setuid(nobody->pw_uid) != 0)
        die(std::string("cannot become nobody: ") + std::strerror(errno));
    ::umask(022);
}

// This process's time on a CPU and waiting for one (run queue), from
// /proc/self/schedstat: the rest of a phase's wall time it was blocked,
// in a held open among other things.
struct Sched {
    double onCpu = 0;
    double runnable = 0;

    static Sched now()
    {
        Sched sched;
        unsigned long long cpu = 0, wait = 0;
        if (std::FILE* file = std::fopen("/proc/self/schedstat", "r")) {
            if (std::fscanf(file, "%llu %llu", &cpu, &wait) == 2) {
                sched.onCpu = static_cast<double>(cpu) / 1e9;
                sched.runnable = static_cast<double>(wait) / 1e9;
            }
            std::fclose(file);
        }
        return sched;
    }

    // "NAME_cpu_s=... NAME_runq_s=... NAME_blocked_s=..." for a phase of
    // `wall` seconds that began at `start`.
    std::string since(const Sched& start, double wall, const char* name) const
    {
        const double cpu = onCpu - start.onCpu, runq = runnable - start.runnable;
        char text[160];
        std::snprintf(text, sizeof text, "%s_cpu_s=%.3f %s_runq_s=%.3f %s_blocked_s=%.3f", name, cpu, name, runq, name,
                      wall - cpu - runq);
        return text;
    }
};

// Every open's wait, and what the opens failed on.
class Opens {
public:
    // Opens path with flags (and mode), timing the call. -1 with the error
    // counted when it fails.
    int open(const std::string& path, int flags, mode_t mode = 0)
    {
        const Clock::time_point start = Clock::now();
        int fd;
        do {
            fd = ::open(path.c_str(), flags | O_CLOEXEC, mode);
        } while (fd < 0 && errno == EINTR);
        const double waited = seconds(Clock::now() - start);
        waits_.push_back(waited);
        if (waited > longest_) {
            longest_ = waited;
            longestPath_ = path;
        }
        if (fd < 0) {
            if (failures_++ == 0)
                std::fprintf(stderr, "prevention_bench: open %s: %s\n", path.c_str(), std::strerror(errno));
        }
        return fd;
    }

    void fail(const std::string& what)
    {
        if (failures_++ == 0)
            std::fprintf(stderr, "prevention_bench: %s\n", what.c_str());
    }
    int failures() const { return failures_; }

    // "opens=N open_p50_ms=... open_p95_ms=... open_max_ms=... over_1ms=...
    // over_10ms=... over_100ms=... failed=N", nearest-rank percentiles.
    std::string summary() const
    {
        std::vector<double> sorted = waits_;
        std::sort(sorted.begin(), sorted.end());
        const auto rank = [&](double share) {
            if (sorted.empty())
                return static_cast<double>(NAN);
            const size_t at = static_cast<size_t>(std::ceil(share * static_cast<double>(sorted.size())));
            return sorted[std::max<size_t>(at, 1) - 1] * 1000;
        };
        const auto over = [&](double ms) {
            return std::count_if(sorted.begin(), sorted.end(), [&](double w) { return w * 1000 > ms; });
        };
        char text[512];
        std::snprintf(text, sizeof text,
                      "opens=%zu open_p50_ms=%.3f open_p95_ms=%.3f open_max_ms=%.3f over_1ms=%ld over_10ms=%ld "
                      "over_100ms=%ld failed=%d",
                      sorted.size(), rank(0.5), rank(0.95), sorted.empty() ? NAN : sorted.back() * 1000, over(1),
                      over(10), over(100), failures_);
        return text;
    }
    const std::string& longestPath() const { return longestPath_; }

private:
    std::vector<double> waits_;
    double longest_ = -1;
    std::string longestPath_;
    int failures_ = 0;
};

// The longest single read(2) call: a scanner that also holds reads (access
// permission events) makes them wait too.
double longestRead = 0;

// Reads fd to its end; the byte count, or -1.
long long readToEnd(int fd)
{
    static char buffer[1 << 16];
    long long total = 0;
    for (;;) {
        const Clock::time_point start = Clock::now();
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        longestRead = std::max(longestRead, seconds(Clock::now() - start));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -1;
        if (n == 0)
            return total;
        total += n;
    }
}

// Opens and reads each path; the bytes read.
long long readAll(Opens& opens, const std::vector<std::string>& paths)
{
    long long bytes = 0;
    for (const std::string& path : paths) {
        const kv::UniqueFd file(opens.open(path, O_RDONLY));
        if (!file)
            continue;
        const long long got = readToEnd(file.get());
        if (got < 0)
            opens.fail("reading " + path + ": " + std::strerror(errno));
        else
            bytes += got;
    }
    return bytes;
}

std::string randomBytes(std::mt19937_64& random, size_t size)
{
    std::string bytes(size + 8, '\0');
    for (size_t at = 0; at < size; at += 8) {
        const std::uint64_t word = random();
        std::memcpy(&bytes[at], &word, 8);
    }
    bytes.resize(size);
    return bytes;
}

bool writeNew(Opens& opens, const std::string& path, const std::string& contents, mode_t mode = 0644)
{
    const kv::UniqueFd file(opens.open(path, O_WRONLY | O_CREAT | O_EXCL, mode));
    if (!file)
        return false;
    if (!kv::writeAll(file.get(), contents)) {
        opens.fail("writing " + path + ": " + std::strerror(errno));
        return false;
    }
    return true;
}

// ------------------------------------------------------------------- make

int make(const std::string& folder, int count, size_t size)
{
    std::mt19937_64 random(std::random_device{}());
    Opens opens;
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < count; ++i) {
        char sub[32], name[48];
        std::snprintf(sub, sizeof sub, "/d%03d", i / 100);
        std::snprintf(name, sizeof name, "/f%05d.dat", i);
        if (i % 100 == 0 && ::mkdir((folder + sub).c_str(), 0755) != 0 && errno != EEXIST)
            die("mkdir " + folder + sub + ": " + std::strerror(errno));
        // A text head and random bytes: every file differs, so no cache of
        // the engine answers for one by another's verdict.
        std::string contents = "korvane prevention " + std::to_string(i) + "\n";
        contents += randomBytes(random, size > contents.size() ? size - contents.size() : 0);
        writeNew(opens, folder + sub + name, contents);
    }
    std::printf("RESULT make files=%d s=%.3f %s\n", count, seconds(Clock::now() - start), opens.summary().c_str());
    return opens.failures() ? 1 : 0;
}

// ------------------------------------------------------------------- read

int read(const std::string& folder)
{
    std::vector<std::string> paths;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder))
        if (entry.is_regular_file())
            paths.push_back(entry.path().string());
    std::sort(paths.begin(), paths.end());
    Opens opens;
    const Sched before = Sched::now();
    const Clock::time_point start = Clock::now();
    const long long bytes = readAll(opens, paths);
    const double took = seconds(Clock::now() - start);
    std::printf("RESULT read files=%zu bytes=%lld s=%.5f %s read_call_max_ms=%.3f %s longest=%s\n", paths.size(), bytes,
                took, opens.summary().c_str(), longestRead * 1000, Sched::now().since(before, took, "self").c_str(),
                opens.longestPath().c_str());
    return opens.failures() ? 1 : 0;
}

// ------------------------------------------------------------------ fresh

int fresh(const std::string& folder, int count, size_t size, double pause)
{
    std::mt19937_64 random(std::random_device{}());
    Opens writes, reads;
    std::vector<double> whole;  // open to end of file
    for (int i = 0; i < count; ++i) {
        const std::string path = folder + "/fresh-" + std::to_string(i) + ".bin";
        const std::string contents = randomBytes(random, size);
        if (!writeNew(writes, path, contents))
            continue;
        const Clock::time_point start = Clock::now();
        const kv::UniqueFd file(reads.open(path, O_RDONLY));
        if (file) {
            const long long got = readToEnd(file.get());
            whole.push_back(seconds(Clock::now() - start));
            if (got != static_cast<long long>(size))
                reads.fail(path + ": read " + std::to_string(got) + " of " + std::to_string(size) + " bytes");
        }
        std::this_thread::sleep_for(std::chrono::duration<double>(pause));
    }
    std::sort(whole.begin(), whole.end());
    const auto rank = [&](double share) {
        const size_t at = static_cast<size_t>(std::ceil(share * static_cast<double>(whole.size())));
        return whole.empty() ? static_cast<double>(NAN) : whole[std::max<size_t>(at, 1) - 1] * 1000;
    };
    std::printf("RESULT fresh files=%d read_p50_ms=%.3f read_p95_ms=%.3f %s read_call_max_ms=%.3f longest=%s\n", count,
                rank(0.5), rank(0.95), reads.summary().c_str(), longestRead * 1000, reads.longestPath().c_str());
    std::printf("RESULT fresh-writes %s\n", writes.summary().c_str());
    return reads.failures() || writes.failures() ? 1 : 0;
}

// ----------------------------------------------------------------- unpack

// The fields of a ustar header that extraction needs.
struct Member {
    std::string name;
    char type;
    long long size;
    mode_t mode;
};

bool parseHeader(const char* block, Member* member)
{
    if (std::all_of(block, block + 512, [](char c) { return c == 0; }))
        return false;
    const auto field = [&](int offset, int length) {
        return std::string(block + offset, strnlen(block + offset, static_cast<size_t>(length)));
    };
    const std::string prefix = field(345, 155);
    member->name = prefix.empty() ? field(0, 100) : prefix + "/" + field(0, 100);
    member->type = block[156];
    member->size = std::strtoll(field(124, 12).c_str(), nullptr, 8);
    member->mode = static_cast<mode_t>(std::strtol(field(100, 8).c_str(), nullptr, 8) & 0777);
    return true;
}

int unpack(const std::string& archivePath, const std::string& folder)
{
    const kv::UniqueFd archive(::open(archivePath.c_str(), O_RDONLY | O_CLOEXEC));
    if (!archive)
        die("cannot open " + archivePath + ": " + std::strerror(errno));
    // The archive is read whole first: only the extraction is timed.
    std::string data;
    {
        char buffer[1 << 16];
        for (ssize_t n; (n = ::read(archive.get(), buffer, sizeof buffer)) > 0;)
            data.append(buffer, static_cast<size_t>(n));
    }
    Opens writes, reads;
    std::vector<std::string> files;
    const Sched before = Sched::now();
    const Clock::time_point start = Clock::now();
    for (size_t at = 0; at + 512 <= data.size();) {
        Member member;
        if (!parseHeader(data.data() + at, &member))
            break;
        at += 512;
        const size_t padded = static_cast<size_t>((member.size + 511) / 512 * 512);
        if (at + padded > data.size())
            die("the archive ends inside " + member.name);
        const std::string path = folder + "/" + member.name;
        if (member.type == '5') {
            if (::mkdir(path.c_str(), member.mode | 0700) != 0 && errno != EEXIST)
                writes.fail("mkdir " + path + ": " + std::strerror(errno));
        } else if (member.type == '0' || member.type == '\0') {
            if (writeNew(writes, path, data.substr(at, static_cast<size_t>(member.size)), member.mode))
                files.push_back(path);
        }
        at += padded;
    }
    const Clock::time_point extracted = Clock::now();
    const Sched between = Sched::now();
    const long long bytes = readAll(reads, files);
    const Clock::time_point done = Clock::now();
    std::printf("RESULT unpack files=%zu bytes=%lld extract_s=%.3f read_s=%.3f total_s=%.3f %s %s\n", files.size(),
                bytes, seconds(extracted - start), seconds(done - extracted), seconds(done - start),
                between.since(before, seconds(extracted - start), "extract").c_str(),
                Sched::now().since(between, seconds(done - extracted), "read").c_str());
    std::printf("RESULT unpack-writes %s longest=%s\n", writes.summary().c_str(), writes.longestPath().c_str());
    std::printf("RESULT unpack-reads %s read_call_max_ms=%.3f longest=%s\n", reads.summary().c_str(),
                longestRead * 1000, reads.longestPath().c_str());
    return reads.failures() || writes.failures() ? 1 : 0;
}

// ----------------------------------------------------------------- fildes

// One zFILDES scan of fd at socketPath; the daemon's answer, or empty.
std::string scanByDescriptor(const std::string& socketPath, int fd)
{
    const kv::UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", socketPath.c_str());
    if (!socket || ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return {};
    static constexpr char kCommand[] = "zFILDES";
    if (!kv::writeAll(socket.get(), std::string_view(kCommand, sizeof kCommand)))
        return {};
    char byte = 0;
    iovec data{&byte, 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(header), &fd, sizeof fd);
    if (::sendmsg(socket.get(), &message, MSG_NOSIGNAL) != 1)
        return {};
    std::string reply;
    char buffer[256];
    for (ssize_t n; (n = ::recv(socket.get(), buffer, sizeof buffer, 0)) > 0;) {
        reply.append(buffer, static_cast<size_t>(n));
        if (reply.find('\0') != std::string::npos)
            break;
    }
    return reply.substr(0, reply.find('\0'));
}

int fildes(const std::string& socketPath, const std::string& folder)
{
    std::vector<std::string> paths;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder))
        if (entry.is_regular_file())
            paths.push_back(entry.path().string());
    std::sort(paths.begin(), paths.end());
    std::vector<double> scans;
    int unclean = 0;
    const Clock::time_point start = Clock::now();
    for (const std::string& path : paths) {
        const kv::UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        if (!file)
            die("cannot open " + path);
        const Clock::time_point asked = Clock::now();
        const std::string reply = scanByDescriptor(socketPath, file.get());
        scans.push_back(seconds(Clock::now() - asked));
        if (!reply.ends_with(": OK") && unclean++ == 0)
            std::fprintf(stderr, "prevention_bench: %s: %s\n", path.c_str(), reply.c_str());
    }
    const double took = seconds(Clock::now() - start);
    std::sort(scans.begin(), scans.end());
    const auto rank = [&](double share) {
        const size_t at = static_cast<size_t>(std::ceil(share * static_cast<double>(scans.size())));
        return scans.empty() ? static_cast<double>(NAN) : scans[std::max<size_t>(at, 1) - 1] * 1000;
    };
    std::printf("RESULT fildes files=%zu s=%.3f scan_p50_ms=%.3f scan_p95_ms=%.3f scan_max_ms=%.3f not_ok=%d\n",
                paths.size(), took, rank(0.5), rank(0.95), rank(1), unclean);
    return unclean ? 1 : 0;
}

int usage()
{
    std::fprintf(stderr, "usage: prevention_bench make FOLDER COUNT SIZE\n"
                         "       prevention_bench read FOLDER\n"
                         "       prevention_bench fresh FOLDER COUNT SIZE PAUSE_S\n"
                         "       prevention_bench unpack ARCHIVE FOLDER\n"
                         "       prevention_bench fildes SOCKET FOLDER\n");
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const std::vector<std::string> args(argv + 1, argv + argc);
    if (args.size() == 3 && args[0] == "fildes")
        return fildes(args[1], args[2]);
    if (args.empty())
        return usage();
    becomeNobody();
    if (args[0] == "make" && args.size() == 4)
        return make(args[1], std::atoi(args[2].c_str()), std::strtoull(args[3].c_str(), nullptr, 10));
    if (args[0] == "read" && args.size() == 2)
        return read(args[1]);
    if (args[0] == "fresh" && args.size() == 5)
        return fresh(args[1], std::atoi(args[2].c_str()), std::strtoull(args[3].c_str(), nullptr, 10),
                     std::atof(args[4].c_str()));
    if (args[0] == "unpack" && args.size() == 3)
        return unpack(args[1], args[2]);
    return usage();
}
