#include "korvane/ScanHistory.h"

#include <QCoreApplication>
#include <QFile>
#include <QRegularExpression>

#include <algorithm>

namespace kv {

HistoryEntry parseHistoryLine(const QString& line)
{
    // "YYYY-MM-DD HH:MM:SS[.mmm] rest": the scan results carry seconds, the
    // agent's diagnostics milliseconds and its name and ids.
    static const QRegularExpression stamped(
        QStringLiteral(R"(^(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)(\.\d{3})? (.*)$)"));
    static const QRegularExpression diagnostic(QStringLiteral(R"(^korvane-velgar\[\d+:\d+\] (.*)$)"));
    static const QRegularExpression moved(QStringLiteral(R"(^(.*): moved to '(.*)'$)"));
    static const QRegularExpression found(QStringLiteral(R"(^(.*): (\S+) FOUND$)"));

    HistoryEntry entry;
    const QRegularExpressionMatch match = stamped.match(line);
    if (!match.hasMatch()) {
        entry.detail = line;
        return entry;
    }
    entry.time = QDateTime::fromString(match.captured(1), QStringLiteral("yyyy-MM-dd HH:mm:ss"));
    const QString rest = match.captured(3);
    if (const QRegularExpressionMatch m = diagnostic.match(rest); m.hasMatch()) {
        entry.kind = HistoryEntry::Kind::Diagnostic;
        entry.detail = m.captured(1);
    } else if (const QRegularExpressionMatch m = found.match(rest); m.hasMatch()) {
        entry.kind = HistoryEntry::Kind::Finding;
        entry.path = m.captured(1);
        entry.detail = m.captured(2);
    } else if (const QRegularExpressionMatch m = moved.match(rest); m.hasMatch()) {
        entry.kind = HistoryEntry::Kind::Moved;
        entry.path = m.captured(1);
        entry.detail = m.captured(2);
    } else if (rest.endsWith(QLatin1String(": OK"))) {
        entry.kind = HistoryEntry::Kind::Clean;
        entry.path = rest.chopped(4);
    } else {
        entry.detail = rest;
    }
    return entry;
}

std::vector<HistoryEntry> readScanHistory(const std::string& logPath, qint64 maxBytes)
{
    std::vector<HistoryEntry> entries;
    QFile log(QString::fromStdString(logPath));
    if (!log.open(QIODevice::ReadOnly))
        return entries;
    if (log.size() > maxBytes) {
        log.seek(log.size() - maxBytes);
        log.readLine();  // the first line read there is only the end of one
    }
    while (!log.atEnd()) {
        QString line = QString::fromUtf8(log.readLine());
        while (line.endsWith(QLatin1Char('\n')) || line.endsWith(QLatin1Char('\r')))
            line.chop(1);
        if (!line.isEmpty())
            entries.push_back(parseHistoryLine(line));
    }
    // Newest first within each group; a line without a time keeps its place.
    std::reverse(entries.begin(), entries.end());
    std::stable_partition(entries.begin(), entries.end(),
                          [](const HistoryEntry& entry) { return entry.kind == HistoryEntry::Kind::Finding; });
    return entries;
}

QString kindText(HistoryEntry::Kind kind)
{
    switch (kind) {
    case HistoryEntry::Kind::Finding: return QCoreApplication::translate("History", "Infected");
    case HistoryEntry::Kind::Moved: return QCoreApplication::translate("History", "Moved");
    case HistoryEntry::Kind::Clean: return QCoreApplication::translate("History", "Clean");
    case HistoryEntry::Kind::Diagnostic: return QCoreApplication::translate("History", "Agent");
    case HistoryEntry::Kind::Other: return QCoreApplication::translate("History", "Engine");
    }
    return {};
}

} // namespace kv
