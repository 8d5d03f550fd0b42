#include "ui/DesktopWorkspace.h"

#include <QApplication>
#include <QProcess>
#include <QStandardPaths>

namespace kv {

DesktopWorkspace::DesktopWorkspace(QDBusConnection bus, QObject* parent) : QObject(parent), files_(std::move(bus)) {}

void DesktopWorkspace::openPath(const std::string& path, std::function<void(bool opened)> done)
{
    files_.openPath(path, std::move(done));
}

void DesktopWorkspace::revealFile(const std::string& path) { files_.revealFiles({path}); }

bool DesktopWorkspace::recycleFile(const std::string& path) { return files_.recycleFile(path).has_value(); }

std::string DesktopWorkspace::desktopEntryPath(const std::string& bundleIdentifier)
{
    return QStandardPaths::locate(QStandardPaths::ApplicationsLocation, QString::fromStdString(bundleIdentifier) + ".desktop")
        .toStdString();
}

bool DesktopWorkspace::launchApplication(const std::string& bundleIdentifier)
{
    const std::string entry = desktopEntryPath(bundleIdentifier);
    if (entry.empty())
        return false;
    // The application's own messages are not the agent's: they stay out of
    // the scan log, which is the agent's standard error.
    QProcess launcher;
    launcher.setProgram(QStringLiteral("gio"));
    launcher.setArguments({QStringLiteral("launch"), QString::fromStdString(entry)});
    launcher.setStandardOutputFile(QProcess::nullDevice());
    launcher.setStandardErrorFile(QProcess::nullDevice());
    return launcher.startDetached();
}

void DesktopWorkspace::beep() { QApplication::beep(); }

} // namespace kv
