#include "platform/ThunarActions.h"

#include "platform/Paths.h"

#include <QFile>
#include <QSaveFile>
#include <QString>
#include <QXmlStreamReader>

#include <sys/stat.h>

#include <cstdlib>
#include <optional>

namespace kv {
namespace {

constexpr const char* kEmptyFile = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<actions>\n</actions>\n";

// The first <action> of a document: its text as written, and its unique-id.
struct ActionText {
    QString text;
    QString uniqueId;
};

std::optional<ActionText> firstAction(const QString& document)
{
    QXmlStreamReader reader(document);
    qint64 start = -1;
    ActionText action;
    while (!reader.atEnd()) {
        reader.readNext();
        if (reader.isStartElement() && reader.name() == QLatin1String("action") && start < 0)
            start = document.lastIndexOf(QLatin1Char('<'), reader.characterOffset() - 1);
        else if (reader.isStartElement() && reader.name() == QLatin1String("unique-id") && start >= 0)
            action.uniqueId = reader.readElementText().trimmed();
        else if (reader.isEndElement() && reader.name() == QLatin1String("action") && start >= 0) {
            action.text = document.mid(start, reader.characterOffset() - start);
            return action;
        }
    }
    return std::nullopt;
}

std::optional<QByteArray> readAll(const std::string& path)
{
    QFile file(QFile::decodeName(QByteArray::fromStdString(path)));
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    return file.readAll();
}

} // namespace

ThunarActions::Merge ThunarActions::merge(const QByteArray& existing, const QByteArray& actionDocument)
{
    Merge merge;
    const std::optional<ActionText> action = firstAction(QString::fromUtf8(actionDocument));
    if (!action || action->uniqueId.isEmpty()) {
        merge.why = "the action to add has no <action> with a <unique-id>";
        return merge;
    }
    // Offsets below count the characters of the text read; a file that is
    // not UTF-8 would not come back as it was.
    const QString text = QString::fromUtf8(existing);
    if (text.toUtf8() != existing) {
        merge.why = "it is not UTF-8";
        return merge;
    }
    QXmlStreamReader reader(text);
    qint64 rootEnd = -1;
    int depth = 0;
    bool inAction = false;
    while (!reader.atEnd()) {
        reader.readNext();
        if (reader.isStartElement()) {
            ++depth;
            if (depth == 1 && reader.name() != QLatin1String("actions")) {
                merge.why = "its root is <" + reader.name().toString().toStdString() + ">, not <actions>";
                return merge;
            }
            inAction = inAction || (depth == 2 && reader.name() == QLatin1String("action"));
            if (inAction && depth == 3 && reader.name() == QLatin1String("unique-id")) {
                --depth;  // read to its end tag
                if (reader.readElementText().trimmed() == action->uniqueId)
                    merge.outcome = Outcome::AlreadyThere;
            }
        } else if (reader.isEndElement()) {
            inAction = inAction && depth != 2;
            if (--depth == 0)
                rootEnd = reader.characterOffset();
        }
    }
    if (reader.hasError() || rootEnd < 0) {
        merge.outcome = Outcome::LeftAlone;
        merge.why = reader.hasError() ? "line " + std::to_string(reader.lineNumber()) + ": " +
                                            reader.errorString().toStdString()
                                      : "it holds no <actions>";
        return merge;
    }
    if (merge.outcome == Outcome::AlreadyThere)
        return merge;
    const qint64 tag = text.lastIndexOf(QLatin1Char('<'), rootEnd - 1);
    QString result = text;
    if (text.mid(tag, 2) == QLatin1String("</"))
        result.insert(tag, action->text + QLatin1Char('\n'));
    else  // <actions/>
        result = text.left(rootEnd - 2) + QStringLiteral(">\n") + action->text + QStringLiteral("\n</actions>") +
                 text.mid(rootEnd);
    merge.outcome = Outcome::Added;
    merge.text = result.toUtf8();
    return merge;
}

std::string ThunarActions::userFile() { return joinPath(configHome(), "Thunar/uca.xml"); }

ThunarActions::Outcome ThunarActions::addScanAction(const std::string& actionDocumentPath, std::string* message)
{
    const std::string user = userFile();
    std::optional<QByteArray> existing = readAll(user);
    bool thunarSeen = existing || pathExists(joinPath(configHome(), "Thunar"));
    if (!existing) {
        const char* dirs = std::getenv("XDG_CONFIG_DIRS");
        const QString list = dirs && *dirs ? QString::fromLocal8Bit(dirs) : QStringLiteral("/etc/xdg");
        for (const QString& dir : list.split(QLatin1Char(':'), Qt::SkipEmptyParts)) {
            if ((existing = readAll(joinPath(dir.toStdString(), "Thunar/uca.xml")))) {
                thunarSeen = true;
                break;
            }
        }
    }
    if (!thunarSeen) {
        *message = "Thunar is not installed here: no action added for it.";
        return Outcome::NoThunar;
    }
    const std::optional<QByteArray> action = readAll(actionDocumentPath);
    if (!action) {
        *message = "No Thunar action is added: " + actionDocumentPath + " cannot be read (is korvane installed?).";
        return Outcome::LeftAlone;
    }
    const Merge merged = merge(existing.value_or(QByteArray(kEmptyFile)), *action);
    if (merged.outcome == Outcome::AlreadyThere) {
        *message = "Thunar's \"Scan with Korvane\" action is in " + user + " already.";
        return merged.outcome;
    }
    if (merged.outcome == Outcome::LeftAlone) {
        *message = user + " is left as it is (" + merged.why +
                   "): Thunar gets no \"Scan with Korvane\" action.";
        return merged.outcome;
    }
    makeDirectories(joinPath(configHome(), "Thunar"), 0700);
    QSaveFile file(QFile::decodeName(QByteArray::fromStdString(user)));
    if (!file.open(QIODevice::WriteOnly) || file.write(merged.text) != merged.text.size() || !file.commit()) {
        *message = "cannot write " + user + ": " + file.errorString().toStdString();
        return Outcome::LeftAlone;
    }
    *message = "Thunar's \"Scan with Korvane\" action is added to " + user + ".";
    return Outcome::Added;
}

} // namespace kv
