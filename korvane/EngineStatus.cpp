#include "korvane/EngineStatus.h"

#include "engine/ClamdCtrl.h"
#include "platform/Paths.h"

#include <QCoreApplication>
#include <QDir>
#include <QPointer>
#include <QObject>
#include <QStringList>

#include <thread>

namespace kv {

EngineDescription EngineDescription::of(const std::string& prefix)
{
    EngineDescription engine;
    engine.prefix = prefix;
    if (prefix.empty()) {
        engine.problem = QObject::tr("No engine is set up. Run “velgarctl setup” in a terminal, then start the agent.");
        return engine;
    }
    const std::string config = joinPath(prefix, "etc/clamd.conf");
    const ClamdConfigText text = readClamdConfig(config);
    if (text.text.empty()) {
        engine.problem = QObject::tr("The engine at %1 has no readable clamd.conf (%2). Run “velgarctl setup” to "
                                     "build it again.")
                             .arg(QString::fromStdString(prefix), QString::fromStdString(text.error));
        return engine;
    }
    if (const std::vector<std::string> folders = clamdOptionValues(text.text, "DatabaseDirectory"); !folders.empty())
        engine.databaseFolder = folders.back();
    if ((engine.remote = tcpEngineOf(text.text))) {
        engine.kind = Kind::Remote;
        return engine;
    }
    engine.socket = lastLocalSocket(text.text).value_or("");
    // Setup leaves a stand-in beside a prefix that uses the system's service.
    engine.kind = pathExists(joinPath(prefix, "standin")) ? Kind::SystemService : Kind::Own;
    if (engine.databaseFolder.empty())
        engine.databaseFolder = "/var/lib/clamav";
    return engine;
}

QString EngineDescription::definitionsProblem() const
{
    if (kind == Kind::NotSetUp || kind == Kind::Remote || databaseFolder.empty())
        return {};
    const QDir folder(QString::fromStdString(databaseFolder));
    const QStringList official = folder.entryList({QStringLiteral("*.cvd"), QStringLiteral("*.cld")}, QDir::Files);
    if (!official.isEmpty())
        return {};
    const QStringList any = folder.entryList(QDir::Files);
    if (any == QStringList{QStringLiteral("korvane-test.ndb")})
        return QObject::tr("Only the test signature is installed: it detects the EICAR test file, not real viruses. "
                           "Update the definitions (Definitions page) while the computer is online.");
    if (any.isEmpty())
        return QObject::tr("No virus definitions are installed in %1. Update the definitions (Definitions page) "
                           "while the computer is online.")
            .arg(folder.path());
    return {};
}

QString EngineDescription::describe() const
{
    const QString socketText = QString::fromStdString(socket);
    switch (kind) {
    case Kind::NotSetUp: return problem;
    case Kind::Own: return QObject::tr("The agent’s own clamd, at %1").arg(socketText);
    case Kind::SystemService: return QObject::tr("The system’s clamd service, at %1").arg(socketText);
    case Kind::Remote: return QObject::tr("A clamd server over TCP, at %1").arg(QString::fromStdString(remote->describe()));
    }
    return {};
}

EngineAnswer askEngine(const EngineDescription& engine)
{
    EngineAnswer answer;
    std::string problem;
    std::optional<std::string> version;
    if (engine.kind == EngineDescription::Kind::Remote)
        version = ClamdCtrl::askVersion(*engine.remote, &problem);
    else if (!engine.socket.empty())
        version = ClamdCtrl::askVersion(engine.socket, &problem);
    else
        problem = engine.kind == EngineDescription::Kind::NotSetUp ? "there is no engine to ask"
                                                                    : "its clamd.conf names no socket";
    answer.answers = version.has_value();
    answer.version = QString::fromStdString(version.value_or(""));
    answer.problem = QString::fromStdString(problem);
    return answer;
}

void EngineQuestion::ask(QObject* page, const EngineDescription& engine,
                         std::function<void(const EngineAnswer&)> answered)
{
    const int question = ++*newest_;
    QPointer<QObject> asker(page);
    // A thread of its own for each question (they are few, and each ends
    // within the connection's time limits): the hand-over to it is one the
    // thread sanitizer can see, unlike a thread pool's queue.
    std::thread([asker, engine, question, newest = newest_, answered = std::move(answered)] {
        const EngineAnswer answer = askEngine(engine);
        QMetaObject::invokeMethod(QCoreApplication::instance(), [asker, answer, question, newest, answered] {
            if (asker && question == *newest)
                answered(answer);
        });
    }).detach();
}

std::optional<DefinitionsVersion> parseVersion(const QString& answer)
{
    const QStringList parts = answer.split(QLatin1Char('/'));
    if (parts.size() < 3 || !parts[0].startsWith(QLatin1String("ClamAV ")))
        return std::nullopt;
    return DefinitionsVersion{parts[0], parts[1], parts.mid(2).join(QLatin1Char('/'))};
}

} // namespace kv
