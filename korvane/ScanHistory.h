#pragma once

#include <QDateTime>
#include <QString>

#include <string>
#include <vector>

namespace kv {

// One line of the agent's scan log, as the History page shows it.
struct HistoryEntry {
    enum class Kind {
        Finding,     // "PATH: SIGNATURE FOUND"
        Moved,       // "PATH: moved to 'DESTINATION'"
        Clean,       // "PATH: OK"
        Diagnostic,  // the agent's own lines: "... korvane-velgar[pid:tid] text"
        Other,       // anything else the engine or the updater said
    };
    Kind kind = Kind::Other;
    QDateTime time;
    QString path;    // Finding, Moved, Clean: the file as the log shows it
    QString detail;  // the signature, the destination, or the whole text
};

// Reads the scan log (the newest part, at most maxBytes of it: a table of
// more would take the window seconds to fill): findings first, then
// everything else, each group newest first. Lines that are not
// UTF-8 are shown with replacement characters; a missing log is empty.
std::vector<HistoryEntry> readScanHistory(const std::string& logPath, qint64 maxBytes = 2 << 20);

// One line, parsed; exposed for tests.
HistoryEntry parseHistoryLine(const QString& line);

QString kindText(HistoryEntry::Kind kind);

} // namespace kv
