#pragma once

#include "platform/QuarantineRecords.h"

#include <QWidget>

#include <vector>

class QLabel;
class QPushButton;
class QTableWidget;

namespace kv {

struct PageContext;

// Every file the agent moved to the quarantine folder or the Trash that is
// still there: its original path, the signature, the date. Restore puts a
// file back where it was (never over a file that is there now); Delete
// removes it for good. Both check first that the stored file is still the
// one the agent put there.
class QuarantinePage : public QWidget {
    Q_OBJECT
public:
    explicit QuarantinePage(PageContext& context, QWidget* parent = nullptr);

    void refresh();
    const std::vector<QuarantineRecord>& records() const { return records_; }
    bool restoreRow(int row);
    // confirm: ask the user first (the button does; tests need not).
    bool deleteRow(int row, bool confirm);

private:
    // Whether the agent watches the folder the path lies in.
    bool watchedFolderOf(const std::string& path) const;

    PageContext& context_;
    QuarantineRecords index_;
    std::vector<QuarantineRecord> records_;
    QTableWidget* table_;
    QLabel* summary_;
    QPushButton* restoreButton_;
    QPushButton* deleteButton_;
};

} // namespace kv
