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
// nothing is left to list; the window is then deleted.
//
// A finding costs its escaped line (as the warning dialogs show it) and its
// real path, nothing more. Main thread only.
class FindingsSummary : public QDialog {
    Q_OBJECT
public:
    explicit FindingsSummary(Workspace& workspace, QWidget* parent = nullptr);

    // Lists one more finding: shownLine is its output line with odd bytes
    // escaped; foundPath the file's name as it is on disk.
    void addFinding(const std::string& shownLine, const std::string& foundPath);

    int count() const { return int(foundPaths_.size()); }
    const std::vector<std::string>& foundPaths() const { return foundPaths_; }

    void moveAllToTrash();
    void dismissAll();

private:
    void updateHeadline();

    Workspace& workspace_;
    QLabel* headline_;
    QLabel* problem_;
    QListView* list_;
    QStringListModel* lines_;
    std::vector<std::string> foundPaths_;  // row by row with lines_
};

} // namespace kv
