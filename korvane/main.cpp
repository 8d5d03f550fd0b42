// korvane: the settings, quarantine and history application of Korvane
// Velgar. One runs per session: a second one hands its page to the first.

#include "korvane/Korvane.h"
#include "korvane/Pages.h"
#include "platform/BusContract.h"
#include "platform/DBusDistributedCenter.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QDBusConnectionInterface>
#include <QIcon>

#include <cstdio>

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
    parser.process(application);
    const QString page = parser.value(pageOption);
    if (!kv::pageNamed(page)) {
        std::fprintf(stderr, "korvane: there is no page \"%s\"\n", qPrintable(page));
        return 2;
    }

    QDBusConnection bus = QDBusConnection::sessionBus();
    const QString busName = QString::fromLatin1(kv::bus::kMainAppName);
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
