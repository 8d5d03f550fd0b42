// korvane: the settings, scan, quarantine and history application of
// Korvane Velgar. One runs per session: a second one hands its page to the
// first. `korvane --scan PATH...` opens a window of its own on the Scan
// page and starts scanning at once.

#include "korvane/Korvane.h"
#include "korvane/Pages.h"
#include "korvane/ScanPage.h"
#include "platform/BusContract.h"
#include "platform/DBusDistributedCenter.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QDBusConnectionInterface>
#include <QIcon>

#include <cstdio>
#include <string>
#include <vector>

int main(int argc, char** argv)
{
    QApplication application(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Korvane"));
    QApplication::setDesktopFileName(QString::fromLatin1(kv::bus::kMainAppName));
    QApplication::setWindowIcon(QIcon::fromTheme(QStringLiteral("com.korvane.Korvane")));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Settings, quarantine and history of Korvane Velgar."));
    parser.addHelpOption();
    const QCommandLineOption pageOption(
        QStringLiteral("page"),
        QStringLiteral("The page to show: protection, folders, found, exclusions, definitions, quarantine, history, "
                       "diagnostics or advanced."),
        QStringLiteral("NAME"), QStringLiteral("protection"));
    parser.addOption(pageOption);
    const QCommandLineOption scanOption(QStringLiteral("scan"),
                                        QStringLiteral("Scan the files and folders given now, in a window of its own."));
    parser.addOption(scanOption);
    parser.addPositionalArgument(QStringLiteral("PATH"), QStringLiteral("A file or folder to scan (with --scan)."),
                                 QStringLiteral("[PATH...]"));
    parser.process(application);
    const QString page = parser.value(pageOption);
    if (!kv::pageNamed(page)) {
        std::fprintf(stderr, "korvane: there is no page \"%s\"\n", qPrintable(page));
        return 2;
    }
    const bool scan = parser.isSet(scanOption);
    if (scan == parser.positionalArguments().isEmpty()) {
        std::fprintf(stderr, "%s", scan ? "korvane: --scan needs the files or folders to scan\n"
                                        : "korvane: files and folders are scanned with --scan PATH...\n");
        return 2;
    }

    QDBusConnection bus = QDBusConnection::sessionBus();
    const QString busName = QString::fromLatin1(kv::bus::kMainAppName);
    if (scan) {
        // The names as the bytes they came in: QApplication has taken its
        // own options out of argv.
        const std::vector<std::string> raw(argv + 1, argv + argc);
        kv::Korvane korvane(kv::Korvane::Parts{});
        korvane.window().showPage(kv::Page::Scan);
        korvane.window().scan()->addPaths(kv::ScanPage::pathsFromArguments(parser.positionalArguments(), raw));
        korvane.window().show();
        korvane.window().scan()->start();
        // Pages asked for go to this window while no other Korvane runs.
        if (bus.isConnected())
            bus.interface()->registerService(busName, QDBusConnectionInterface::DontQueueService,
                                             QDBusConnectionInterface::DontAllowReplacement);
        return application.exec();
    }

    if (bus.isConnected() && bus.interface()->isServiceRegistered(busName).value()) {
        // Korvane runs already: it comes forward, at the page asked for.
        kv::DBusDistributedCenter(bus).post(kv::bus::kShouldOpenPage,
                                            parser.isSet(pageOption) ? page.toStdString() : std::string());
        return 0;
    }

    // The name is taken once the window listens: the agent asks for its page
    // the moment the name appears.
    kv::Korvane korvane(kv::Korvane::Parts{});
    korvane.window().showPageNamed(page);
    korvane.window().show();
    if (bus.isConnected() &&
        bus.interface()->registerService(busName, QDBusConnectionInterface::DontQueueService,
                                         QDBusConnectionInterface::DontAllowReplacement)
                .value() != QDBusConnectionInterface::ServiceRegistered) {
        // Another one started in the same moment: it shows the page.
        kv::DBusDistributedCenter(bus).post(kv::bus::kShouldOpenPage,
                                            parser.isSet(pageOption) ? page.toStdString() : std::string());
        return 0;
    }
    return application.exec();
}
