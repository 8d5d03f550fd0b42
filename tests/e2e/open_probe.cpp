// What a program meets when it opens a file: the end-to-end tests' probe.
//
//   open_probe write PATH SOURCE   writes SOURCE's bytes to PATH, closes it,
//                                  and opens and reads PATH at once
//   open_probe read PATH           opens and reads PATH
//   open_probe exec PATH           runs PATH
//
// Prints one line: "read N MS" (bytes read, milliseconds the open took),
// "denied MS" for EPERM, "ran MS" or "error TEXT".

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

long long since(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
}

int readBack(const char* path)
{
    const auto start = std::chrono::steady_clock::now();
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    const long long took = since(start);
    if (fd < 0) {
        if (errno == EPERM)
            std::printf("denied %lld\n", took);
        else
            std::printf("error %s\n", std::strerror(errno));
        return 0;
    }
    char buffer[65536];
    long long total = 0;
    for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;)
        total += n;
    ::close(fd);
    std::printf("read %lld %lld\n", total, took);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3)
        return 2;
    const std::string mode = argv[1];
    if (mode == "write" && argc == 4) {
        const int source = ::open(argv[3], O_RDONLY);
        const int target = ::open(argv[2], O_WRONLY | O_CREAT | O_TRUNC, 0755);
        char buffer[65536];
        for (ssize_t n; source >= 0 && target >= 0 && (n = ::read(source, buffer, sizeof buffer)) > 0;)
            if (::write(target, buffer, static_cast<size_t>(n)) != n)
                return 2;
        ::close(source);
        if (target < 0 || ::close(target) != 0) {
            std::printf("error %s\n", std::strerror(errno));
            return 0;
        }
        return readBack(argv[2]);
    }
    if (mode == "read")
        return readBack(argv[2]);
    if (mode == "exec") {
        const auto start = std::chrono::steady_clock::now();
        const pid_t child = ::fork();
        if (child == 0) {
            ::execl(argv[2], argv[2], static_cast<char*>(nullptr));
            ::_exit(errno == EPERM ? 126 : 127);
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        if (WIFEXITED(status) && WEXITSTATUS(status) == 126)
            std::printf("denied %lld\n", since(start));
        else if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
            std::printf("ran %lld\n", since(start));
        else
            std::printf("error status %d\n", status);
        return 0;
    }
    return 2;
}
