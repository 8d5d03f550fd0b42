#include "platform/Log.h"

#include "platform/FileWriting.h"

#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <mutex>

namespace kv {
namespace {

std::mutex observerMutex;
LogObserver observerFunction = nullptr;
void* observerContext = nullptr;

void openSystemLogOnce()
{
    static std::once_flag once;
    std::call_once(once, [] { ::openlog("korvane-velgar", LOG_PID, LOG_USER); });
}

std::string vformat(const char* format, va_list args)
{
    va_list copy;
    va_copy(copy, args);
    char buffer[512];
    const int needed = std::vsnprintf(buffer, sizeof buffer, format, copy);
    va_end(copy);
    if (needed < 0)
        return {};
    if (static_cast<size_t>(needed) < sizeof buffer)
        return std::string(buffer, static_cast<size_t>(needed));
    std::string result(static_cast<size_t>(needed) + 1, '\0');
    std::vsnprintf(result.data(), result.size(), format, args);
    result.resize(static_cast<size_t>(needed));
    return result;
}

} // namespace

void nsLog(std::string_view text)
{
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    ::localtime_r(&now.tv_sec, &local);
    char stamp[40];
    const size_t stampLength = std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);

    std::string line;
    line.reserve(text.size() + 64);
    line.append(stamp, stampLength);
    line += stringPrintf(".%03ld korvane-velgar[%d:%ld] ", now.tv_nsec / 1000000, static_cast<int>(::getpid()),
                         static_cast<long>(::syscall(SYS_gettid)));
    line.append(text);
    if (line.empty() || line.back() != '\n')
        line += '\n';

    // Anything buffered on standard error goes first, so lines keep their order.
    std::fflush(stderr);
    writeAll(STDERR_FILENO, line);

    openSystemLogOnce();
    const std::string plain(text);
    ::syslog(LOG_NOTICE, "%s", plain.c_str());

    std::lock_guard<std::mutex> guard(observerMutex);
    if (observerFunction)
        observerFunction(line, observerContext);
}

void nsLogf(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const std::string text = vformat(format, args);
    va_end(args);
    nsLog(text);
}

std::string stringPrintf(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    std::string text = vformat(format, args);
    va_end(args);
    return text;
}

void setLogObserver(LogObserver observer, void* context)
{
    std::lock_guard<std::mutex> guard(observerMutex);
    observerFunction = observer;
    observerContext = context;
}

} // namespace kv
