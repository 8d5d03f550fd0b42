// A notification daemon for the tests, started by the bus on demand (D-Bus
// activation): it takes org.freedesktop.Notifications on the bus that
// started it and writes each Notify call it gets as one line,
// "replaces_id<TAB>summary<TAB>body", to the file named by its argument.
// It ends when the bus goes away.
//
//   kv_test_notification_daemon FILE

#include <QCoreApplication>
#include <QDBusConnection>
#include <QFile>
#include <QObject>
#include <QTimer>
#include <QVariantMap>

#include <cstdio>

class NotificationDaemon : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
public:
    explicit NotificationDaemon(const QString& path) : file_(path) { file_.open(QIODevice::Append); }

public Q_SLOTS:
    uint Notify(const QString&, uint replacesId, const QString&, const QString& summary, const QString& body,
                const QStringList&, const QVariantMap&, int)
    {
        file_.write(QStringLiteral("%1\t%2\t%3\n").arg(replacesId).arg(summary, body).toUtf8());
        file_.flush();
        return replacesId ? replacesId : ++lastId_;
    }

private:
    QFile file_;
    uint lastId_ = 0;
};

int main(int argc, char* argv[])
{
    QCoreApplication application(argc, argv);
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FILE\n", argv[0]);
        return 2;
    }
    // The bus that started us (D-Bus activation names it in the environment).
    QDBusConnection bus = QDBusConnection::connectToBus(QDBusConnection::ActivationBus, "starter");
    NotificationDaemon daemon(QString::fromLocal8Bit(argv[1]));
    if (!bus.registerObject("/org/freedesktop/Notifications", &daemon, QDBusConnection::ExportAllSlots) ||
        !bus.registerService("org.freedesktop.Notifications"))
        return 1;
    QTimer busGone;
    QObject::connect(&busGone, &QTimer::timeout, &application, [&] {
        if (!bus.isConnected())
            application.quit();
    });
    busGone.start(100);
    return application.exec();
}

#include "notification_daemon.moc"
