#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QObject>
#include <QStringList>

#include <string>

class QFileSystemWatcher;

namespace kv {

// The preferences as the Korvane application sees and changes them.
//
// A key reads as the agent reads it: from the agent's own domain first,
// then from the main application's. A change goes to the domain that holds
// the key now (so that it takes effect), else to the main application's, and
// is written by editDomainFile(), the writer velgarctl uses: atomically, and
// never over a file that is not valid JSON.
//
// Files changed by another program (velgarctl, an editor) are re-read, and
// changed() tells the pages. Main thread only.
class PreferenceStore : public QObject {
    Q_OBJECT
public:
    // folder: where the domain files live; the user's preferences folder
    // when empty.
    explicit PreferenceStore(const std::string& folder = {}, QObject* parent = nullptr);

    QJsonValue value(const QString& key) const;
    bool boolean(const QString& key) const;
    QString string(const QString& key) const;
    QJsonArray array(const QString& key) const;

    // False, with *error saying why in words for the user, when nothing was
    // written: the domain file is not valid JSON (left as it is) or could
    // not be written. An invalid key value is never stored.
    bool write(const QString& key, const QJsonValue& value, QString* error);
    bool remove(const QString& key, QString* error);

    // One sentence per domain file that cannot be used as it is (not valid
    // JSON, unreadable); empty when all is well.
    QStringList problems() const { return problems_; }

    std::string pathOfDomain(const char* domain) const;

    // Re-reads both files now.
    void reload();

Q_SIGNALS:
    // The values may have changed: after a write, or after another program
    // changed a file.
    void changed();

private:
    void watchFiles();

    std::string folder_;
    QJsonObject agentDomain_;
    QJsonObject mainAppDomain_;
    QStringList problems_;
    QFileSystemWatcher* watcher_;
};

} // namespace kv
