#pragma once

#include <QJsonArray>
#include <QWidget>

#include <optional>

class QLabel;
class QTableWidget;
class QTimer;

namespace kv {

struct PageContext;

// The files the agent never scans ("ExcludePatterns"): a table of plain
// texts or regular expressions, each with an enabled box. A regular
// expression is checked as it is typed, the way the agent compiles it
// (POSIX extended); one that does not compile is shown as such, since the
// agent would never match it.
class ExclusionsPage : public QWidget {
    Q_OBJECT
public:
    explicit ExclusionsPage(PageContext& context, QWidget* parent = nullptr);

    void refresh();
    // Why a pattern would never match, or nothing when it compiles. Plain
    // texts always do.
    static std::optional<QString> patternProblem(const QString& pattern, bool regularExpression);

    void addPattern(const QString& pattern, bool regularExpression);
    void removeRow(int row);

private:
    void showProblems();
    void storeSoon();
    QJsonArray tableRecords() const;

    PageContext& context_;
    QTableWidget* table_;
    QLabel* problems_;
    QTimer* storeTimer_;
    bool filling_ = false;
};

} // namespace kv
