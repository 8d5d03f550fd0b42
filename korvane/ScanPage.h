#pragma once

#include "platform/DesktopFiles.h"
#include "scan/OnDemandScan.h"

#include <QElapsedTimer>
#include <QStringList>
#include <QWidget>

#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

class QCheckBox;
class QComboBox;
class QLabel;
class QListWidget;
class QProgressBar;
class QPushButton;
class QTableWidget;
class QTimeEdit;
class QTimer;
class QUrl;

namespace kv {

struct PageContext;

// Scans chosen files and folders now, as `velgarctl scan` does: the
// engine of the user's preferences (OnDemandEngine), found files handled
// as the preferences say (quarantine, Trash or left with a warning, which
// the page says above Start), every result in the scan log. Files and
// folders come from the choosers, from drops on the window and from
// `korvane --scan`, always as the bytes of their names.
//
// The engine is started and the scan run on a thread of the page's own
// (one at a time); its results and progress are collected under a lock and
// reach the page through one queued call at a time, at most ten times a
// second. Stop, and the page's end (closing the window), end a scan at
// once; one still starting its engine ends when the engine has answered.
//
// Below the results, Quarantine, Move to Trash and Show in Folder act on
// the selected found file or on every found file still where it was; a
// file is moved only while its name, reached through no link, still leads
// to the very file the scan found (its device and inode). The
// schedule box writes the scheduled scan of the watched folders through
// ScheduledScanUnits, as `velgarctl schedule` does.
//
// Main thread only, but for the scanning thread it owns.
class ScanPage : public QWidget {
    Q_OBJECT
public:
    explicit ScanPage(PageContext& context, QWidget* parent = nullptr);
    ~ScanPage() override;

    // Adds files and folders to scan (full paths, as bytes); ones listed
    // already are left.
    void addPaths(const std::vector<std::string>& paths);
    // Scans what is listed. False when a scan runs or nothing is listed.
    bool start();
    void stop();
    bool scanning() const { return worker_.joinable(); }

    // A result row: what the scan said, and where the file is now.
    struct Row {
        OnDemandItem item;
        std::optional<std::string> now;  // where a found file went (by the scan or from this page)
    };
    const std::vector<Row>& rows() const { return rows_; }
    // What the row's file became: false, with the reason told, when it stays.
    bool quarantineRow(int row);
    bool trashRow(int row);
    void revealRow(int row);

    // The paths a `korvane --scan` names: each positional argument as the
    // bytes it came in (rawArguments: the program's arguments as they were
    // given, in order, which Qt decodes to text that may not come back to
    // the same bytes), a file:// URI decoded byte for byte, a relative path
    // joined to the current folder.
    static std::vector<std::string> pathsFromArguments(const QStringList& positional,
                                                       const std::vector<std::string>& rawArguments);
    // The local file a URL names, as bytes; nothing for other URLs.
    static std::optional<std::string> localPath(const QUrl& url);

Q_SIGNALS:
    // A scan ended: finished, stopped, or ended early.
    void finished();

private:
    struct Mailbox;

    void drain();
    void takeMail();
    void showProgress(const OnDemandProgress& progress);
    void addRow(const OnDemandItem& item);
    void refreshRow(int row);
    void refreshButtons();
    void refreshHandling();
    void refreshSchedule();
    void applySchedule();
    void end(const QString& text, bool problem);
    std::vector<int> foundRowsInPlace() const;

    PageContext& context_;
    DesktopFiles files_;
    std::shared_ptr<Mailbox> mailbox_;  // the running scan's, shared with its thread
    std::thread worker_;                // the running scan's thread, joined when it has ended
    std::vector<Row> rows_;
    std::vector<std::string> paths_;
    QElapsedTimer started_;
    QElapsedTimer lastDrain_;
    std::optional<OnDemandProgress> progress_;
    std::string quarantineFolder_;  // where Quarantine moves files; "" when it cannot

    QListWidget* pathList_;
    QCheckBox* subfoldersBox_;
    QLabel* handlingLabel_;
    QPushButton* startButton_;
    QPushButton* stopButton_;
    QProgressBar* progressBar_;
    QLabel* currentLabel_;
    QLabel* timeLabel_;
    QLabel* summaryLabel_;
    QTableWidget* table_;
    QPushButton* quarantineButton_;
    QPushButton* trashButton_;
    QPushButton* revealButton_;
    QPushButton* quarantineAllButton_;
    QPushButton* trashAllButton_;
    QPushButton* revealAllButton_;
    QComboBox* scheduleBox_;
    QTimeEdit* scheduleTime_;
    QTimer* drainTimer_;
    QTimer* clock_;
};

} // namespace kv
