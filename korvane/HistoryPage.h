#pragma once

#include <QWidget>

class QComboBox;
class QLabel;
class QLineEdit;
class QSortFilterProxyModel;
class QStandardItemModel;
class QTableView;
class QTimer;

namespace kv {

struct PageContext;

// The scan log as a table: findings first, newest first, searchable, with
// a choice of what to show (everything, findings, the agent's diagnostics).
class HistoryPage : public QWidget {
    Q_OBJECT
public:
    enum class Show { Everything, Findings, Diagnostics };

    explicit HistoryPage(PageContext& context, QWidget* parent = nullptr);

    void refresh();
    void showOnly(Show what);
    void search(const QString& text);
    // The rows on screen now, for tests: the row's kind and path or text.
    int rowsShown() const;
    QString shownText(int row, int column) const;

protected:
    void showEvent(QShowEvent* event) override;

private:
    PageContext& context_;
    QTimer* again_;
    bool stale_ = false;  // the log changed while the page was hidden
    QLineEdit* searchEdit_;
    QComboBox* showBox_;
    QLabel* summary_;
    QStandardItemModel* model_;
    QSortFilterProxyModel* filter_;
    QTableView* view_;
};

} // namespace kv
