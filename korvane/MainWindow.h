#pragma once

#include "korvane/PageContext.h"
#include "korvane/Pages.h"

#include <QMainWindow>
#include <QStringList>

#include <map>

class QLabel;
class QListWidget;
class QStackedWidget;

namespace kv {

class AdvancedPage;
class DefinitionsPage;
class ExclusionsPage;
class HistoryPage;
class ProtectionPage;
class ScanPage;
class QuarantinePage;
class WatchedFoldersPage;
class WhenFoundPage;

// The Korvane application's window: a side bar of pages and, above them, a
// bar for what the last action did or why it could not.
class MainWindow : public QMainWindow {
    Q_OBJECT
public:
    explicit MainWindow(PageContext& context, QWidget* parent = nullptr);

    // Files and folders dropped on the window go to the Scan page.

    void showPage(Page page);
    // A page by its name ("diagnostics" shows the History page's agent
    // lines); false for a name no page has.
    bool showPageNamed(const QString& name);
    Page currentPage() const;
    void tell(const QString& text, bool problem);
    QString message() const;

    ProtectionPage* protection() const { return protection_; }
    ScanPage* scan() const { return scan_; }
    WatchedFoldersPage* watchedFolders() const { return folders_; }
    WhenFoundPage* whenFound() const { return found_; }
    ExclusionsPage* exclusions() const { return exclusions_; }
    DefinitionsPage* definitions() const { return definitions_; }
    QuarantinePage* quarantine() const { return quarantine_; }
    HistoryPage* history() const { return history_; }
    AdvancedPage* advanced() const { return advanced_; }

protected:
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    PageContext& context_;
    QListWidget* sideBar_;
    QStackedWidget* stack_;
    QLabel* messageBar_;
    QStringList preferenceProblems_;  // as last told
    ProtectionPage* protection_;
    ScanPage* scan_;
    WatchedFoldersPage* folders_;
    WhenFoundPage* found_;
    ExclusionsPage* exclusions_;
    DefinitionsPage* definitions_;
    QuarantinePage* quarantine_;
    HistoryPage* history_;
    AdvancedPage* advanced_;
};

} // namespace kv
