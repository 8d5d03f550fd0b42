#pragma once

#include <QJsonArray>
#include <QWidget>

class QCheckBox;
class QLabel;
class QPushButton;
class QTableWidget;

namespace kv {

struct PageContext;

// The folders the agent watches ("VelgarFolderArray": add, remove, reorder,
// with or without subfolders) and whether it scans newly mounted volumes
// ("VelgarScanVolumes"). A folder that does not exist is shown as such: the
// agent skips it until it does.
class WatchedFoldersPage : public QWidget {
    Q_OBJECT
public:
    explicit WatchedFoldersPage(PageContext& context, QWidget* parent = nullptr);

    void refresh();
    // The user's actions, also for tests.
    void addFolder(const QString& path);
    void removeRow(int row);
    void moveRow(int row, int by);
    void setSubfolders(int row, bool on);

private:
    bool store(const QJsonArray& records);

    PageContext& context_;
    QJsonArray records_;  // as stored, so keys this page does not know are kept
    QTableWidget* table_;
    QLabel* missing_;
    QCheckBox* volumesBox_;
    QPushButton* removeButton_;
    QPushButton* upButton_;
    QPushButton* downButton_;
    bool filling_ = false;
};

} // namespace kv
