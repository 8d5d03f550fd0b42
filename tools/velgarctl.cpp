// velgarctl: the companion command of the Korvane Velgar agent.

#include "tools/CommandLine.h"

#include <QCoreApplication>

#include <cstdio>
#include <cstdlib>

namespace {

// Bad input gets exactly one clear line on standard error. Qt's own
// internal warnings (its D-Bus thread sometimes prints some while a call
// fails) would add noise to that, so they show only when asked for.
void qtMessage(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    if (type == QtFatalMsg || std::getenv("VELGARCTL_DEBUG"))
        std::fprintf(stderr, "%s\n", qPrintable(message));
    if (type == QtFatalMsg)
        std::abort();
}

} // namespace

int main(int argc, char** argv)
{
    qInstallMessageHandler(qtMessage);
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    QCoreApplication application(argc, argv);
    return kv::runCommandLine(arguments);
}
