// velgarctl: the companion command of the Korvane Velgar agent.

#include "tools/CommandLine.h"

#include <QCoreApplication>

int main(int argc, char** argv)
{
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    QCoreApplication application(argc, argv);
    return kv::runCommandLine(arguments);
}
