#include "korvane/PreferenceStore.h"

#include "platform/Paths.h"
#include "platform/Preferences.h"

#include <QFileInfo>
#include <QFileSystemWatcher>

namespace kv {

PreferenceStore::PreferenceStore(const std::string& folder, QObject* parent)
    : QObject(parent), folder_(folder.empty() ? JsonPreferences::defaultFolder() : folder),
      watcher_(new QFileSystemWatcher(this))
{
    // Editors and velgarctl replace the file by renaming, which a watch on
    // the file alone would lose: the folder is watched as well.
    connect(watcher_, &QFileSystemWatcher::directoryChanged, this, [this] { reload(); });
    connect(watcher_, &QFileSystemWatcher::fileChanged, this, [this] { reload(); });
    reload();
}

std::string PreferenceStore::pathOfDomain(const char* domain) const
{
    return joinPath(folder_, std::string(domain) + ".json");
}

void PreferenceStore::reload()
{
    problems_.clear();
    auto read = [this](const char* domain) {
        const std::string path = pathOfDomain(domain);
        std::string error;
        if (std::optional<QJsonObject> contents = readDomainFile(path, &error))
            return *contents;
        problems_ << tr("%1 is not valid JSON (%2). The agent reads it as empty; Korvane will not change it until "
                        "it is mended.")
                         .arg(QString::fromStdString(path), QString::fromStdString(error));
        return QJsonObject();
    };
    agentDomain_ = read(kAgentDomain);
    mainAppDomain_ = read(kMainAppDomain);
    watchFiles();
    Q_EMIT changed();
}

void PreferenceStore::watchFiles()
{
    if (!watcher_->files().isEmpty())
        watcher_->removePaths(watcher_->files());
    // Until the folder exists (a first `velgarctl setup` makes it), the
    // nearest folder above it is watched, so that its making is seen.
    QString folder = QString::fromStdString(folder_);
    while (!QFileInfo(folder).isDir() && folder.lastIndexOf(QLatin1Char('/')) > 0)
        folder.truncate(folder.lastIndexOf(QLatin1Char('/')));
    const QStringList watched = watcher_->directories();
    if (!watched.contains(folder)) {
        if (!watched.isEmpty())
            watcher_->removePaths(watched);
        watcher_->addPath(folder);
    }
    for (const char* domain : {kAgentDomain, kMainAppDomain}) {
        const QString path = QString::fromStdString(pathOfDomain(domain));
        if (QFileInfo::exists(path))
            watcher_->addPath(path);
    }
}

QJsonValue PreferenceStore::value(const QString& key) const
{
    if (agentDomain_.contains(key))
        return agentDomain_.value(key);
    return mainAppDomain_.value(key);
}

bool PreferenceStore::boolean(const QString& key) const { return objectBoolValue(value(key)); }

QString PreferenceStore::string(const QString& key) const { return value(key).toString(); }

QJsonArray PreferenceStore::array(const QString& key) const { return value(key).toArray(); }

bool PreferenceStore::write(const QString& key, const QJsonValue& newValue, QString* error)
{
    const char* domain = agentDomain_.contains(key) ? kAgentDomain : kMainAppDomain;
    const std::string path = pathOfDomain(domain);
    std::string why;
    const DomainEdit outcome = editDomainFile(path, [&](QJsonObject& contents, std::string*) {
        if (newValue.isUndefined())
            contents.remove(key);
        else
            contents.insert(key, newValue);
        return true;
    }, &why);
    const QString file = QString::fromStdString(path);
    switch (outcome) {
    case DomainEdit::Written:
    case DomainEdit::Unchanged:
    case DomainEdit::Refused: break;
    case DomainEdit::NotValid:
        *error = tr("Nothing was changed: %1 is not valid JSON (%2). Mend or remove it first; Korvane never "
                    "overwrites it.")
                     .arg(file, QString::fromStdString(why));
        break;
    case DomainEdit::Failed:
        *error = tr("Nothing was changed: %1 could not be written (%2).").arg(file, QString::fromStdString(why));
        break;
    }
    reload();
    return outcome == DomainEdit::Written || outcome == DomainEdit::Unchanged;
}

bool PreferenceStore::remove(const QString& key, QString* error) { return write(key, QJsonValue::Undefined, error); }

} // namespace kv
