#pragma once

#include <QDialog>

#include <string>
#include <vector>

class QLabel;
class QListView;
class QPushButton;
class QStringListModel;

namespace kv {

class Workspace;

// The one window that lists the findings of a flood past the warning
// dialogs InfectionDialogs keeps open: one line per finding in a list view
// over a string model (no widget per finding), and two choices for all of
// them at once. "Move All to Trash" moves every listed file that still is a
// regular file to the Trash and keeps listing the ones it could not move;
// "Dismiss All" leaves every file where it is. Either closes the window once
// nothing is left to list (Move All to Trash keeps it open to say that the
// findings past the list stayed); the window is then deleted.
//
// A finding costs its escaped line (as the warning dialogs show it) and its
// real path, nothing more, and at most kMostListedFindings are kept: a flood
// that goes on past them is counted ("and N more") and the scan log names
// each of those. The two choices act on the listed findings only, and the
// window says so. Main thread only.
class FindingsSummary : public QDialog {
    Q_OBJECT
public:
    // Findings listed at most; past them the window only counts.
    static constexpr int kMostListedFindings = 2000;

    explicit FindingsSummary(Workspace& workspace, QWidget* parent = nullptr);

    // Lists one more finding: shownLine is its output line with odd bytes
    // escaped; foundPath the file's name as it is on disk.
    void addFinding(const std::string& shownLine, const std::string& foundPath);

    // The findings listed, and those counted past the list.
    int count() const { return int(foundPaths_.size()); }
    int unlisted() const { return unlisted_; }
    const std::vector<std::string>& foundPaths() const { return foundPaths_; }

    void moveAllToTrash();
    void dismissAll();

private:
    void updateHeadline();

    Workspace& workspace_;
    QLabel* headline_;
    QLabel* more_;
    QLabel* problem_;
    QListView* list_;
    QStringListModel* lines_;
    std::vector<std::string> foundPaths_;  // row by row with lines_
    int unlisted_ = 0;
};

} // namespace kv
