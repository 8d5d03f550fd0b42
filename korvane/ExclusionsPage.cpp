#include "korvane/ExclusionsPage.h"
#include "korvane/PlainText.h"

#include "korvane/PageContext.h"
#include "korvane/PreferenceStore.h"
#include "platform/Preferences.h"

#include <QHBoxLayout>
#include <QHeaderView>
#include <QJsonObject>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QStyledItemDelegate>
#include <QTableWidget>
#include <QTimer>
#include <QVBoxLayout>

#include <regex.h>

namespace kv {
namespace {

const QString kKey = QStringLiteral("ExcludePatterns");
const QString kPattern = QStringLiteral("excludePattern");
const QString kRegularExpression = QStringLiteral("excludeRegEx");
const QString kEnabled = QStringLiteral("excludeEnabled");
enum Column { kEnabledColumn, kPatternColumn, kRegExColumn };
const QString kBadStyle = QStringLiteral("background: #ffd7d7; color: #5c0011");

// The pattern's editor goes red while what is typed does not compile.
class PatternDelegate : public QStyledItemDelegate {
public:
    PatternDelegate(QTableWidget* table, std::function<void(const QString&)> typed)
        : QStyledItemDelegate(table), table_(table), typed_(std::move(typed)) {}

    QWidget* createEditor(QWidget* parent, const QStyleOptionViewItem& option, const QModelIndex& index) const override
    {
        auto* editor = new QLineEdit(parent);
        editor->setObjectName("patternEditor");
        const bool regularExpression = table_->item(index.row(), kRegExColumn)->checkState() == Qt::Checked;
        QObject::connect(editor, &QLineEdit::textEdited, editor, [this, editor, regularExpression](const QString& text) {
            const std::optional<QString> problem = ExclusionsPage::patternProblem(text, regularExpression);
            editor->setStyleSheet(problem ? kBadStyle : QString());
            editor->setToolTip(plainToolTip(problem.value_or(QString())));
            typed_(problem.value_or(QString()));
        });
        return editor;
    }

    // An edit given up with Escape leaves the table's own problems shown.
    void destroyEditor(QWidget* editor, const QModelIndex& index) const override
    {
        QStyledItemDelegate::destroyEditor(editor, index);
        finished_();
    }

    std::function<void()> finished_;

private:
    QTableWidget* table_;
    std::function<void(const QString&)> typed_;
};

} // namespace

std::optional<QString> ExclusionsPage::patternProblem(const QString& pattern, bool regularExpression)
{
    if (!regularExpression)
        return std::nullopt;
    const QByteArray bytes = pattern.toUtf8();
    regex_t expression;
    const int status = ::regcomp(&expression, bytes.constData(), REG_EXTENDED | REG_NOSUB);
    if (status == 0) {
        ::regfree(&expression);
        return std::nullopt;
    }
    char message[256];
    ::regerror(status, &expression, message, sizeof message);
    return tr("does not compile (%1), so it never matches").arg(QString::fromLocal8Bit(message));
}

ExclusionsPage::ExclusionsPage(PageContext& context, QWidget* parent)
    : QWidget(parent), context_(context), storeTimer_(new QTimer(this))
{
    auto* layout = new QVBoxLayout(this);
    auto* intro = new QLabel(tr("Files whose path or name matches an enabled pattern are never scanned. A plain "
                                "pattern matches its text anywhere in the path; “~” stands for your home folder."),
                             this);
    intro->setWordWrap(true);
    table_ = new QTableWidget(0, 3, this);
    table_->setObjectName("exclusionTable");
    table_->setHorizontalHeaderLabels({tr("On"), tr("Pattern"), tr("Regular expression")});
    table_->horizontalHeader()->setSectionResizeMode(kPatternColumn, QHeaderView::Stretch);
    table_->horizontalHeader()->setSectionResizeMode(kEnabledColumn, QHeaderView::ResizeToContents);
    table_->horizontalHeader()->setSectionResizeMode(kRegExColumn, QHeaderView::ResizeToContents);
    table_->verticalHeader()->hide();
    table_->setSelectionBehavior(QAbstractItemView::SelectRows);
    auto* delegate = new PatternDelegate(table_, [this](const QString& problem) {
        problems_->setText(problem.isEmpty() ? QString() : tr("This pattern %1.").arg(problem));
        problems_->setVisible(!problem.isEmpty());
    });
    delegate->finished_ = [this] { showProblems(); };
    table_->setItemDelegateForColumn(kPatternColumn, delegate);

    auto* buttons = new QHBoxLayout;
    auto* addButton = new QPushButton(tr("Add Pattern"), this);
    addButton->setObjectName("addPatternButton");
    auto* removeButton = new QPushButton(tr("Remove"), this);
    removeButton->setObjectName("removePatternButton");
    buttons->addWidget(addButton);
    buttons->addWidget(removeButton);
    buttons->addStretch();
    problems_ = plainLabel(this);
    problems_->setObjectName("patternProblems");
    problems_->setWordWrap(true);
    problems_->setStyleSheet(QStringLiteral("color: #b00020"));

    layout->addWidget(intro);
    layout->addWidget(table_);
    layout->addLayout(buttons);
    layout->addWidget(problems_);

    storeTimer_->setSingleShot(true);
    storeTimer_->setInterval(300);
    connect(storeTimer_, &QTimer::timeout, this, [this] {
        if (!context_.change(kKey, tableRecords()))
            refresh();
    });
    connect(addButton, &QPushButton::clicked, this, [this] {
        addPattern(QString(), false);
        table_->setCurrentCell(table_->rowCount() - 1, kPatternColumn);
        table_->editItem(table_->item(table_->rowCount() - 1, kPatternColumn));
    });
    connect(removeButton, &QPushButton::clicked, this, [this] { removeRow(table_->currentRow()); });
    connect(table_, &QTableWidget::itemChanged, this, [this] {
        if (filling_)
            return;
        showProblems();
        storeSoon();
    });
    connect(&context_.prefs, &PreferenceStore::changed, this, [this] {
        // A write of this page's own comes back here: the table already
        // shows it, and an editor open in it stays.
        if (!storeTimer_->isActive() && tableRecords() != context_.prefs.array(kKey))
            refresh();
    });
    refresh();
}

void ExclusionsPage::refresh()
{
    filling_ = true;
    table_->setRowCount(0);
    for (const QJsonValue& value : context_.prefs.array(kKey)) {
        const QJsonObject record = value.toObject();
        const int row = table_->rowCount();
        table_->insertRow(row);
        auto* enabled = new QTableWidgetItem;
        enabled->setFlags(Qt::ItemIsEnabled | Qt::ItemIsUserCheckable | Qt::ItemIsSelectable);
        enabled->setCheckState(objectBoolValue(record.value(kEnabled)) ? Qt::Checked : Qt::Unchecked);
        auto* regularExpression = new QTableWidgetItem;
        regularExpression->setFlags(enabled->flags());
        regularExpression->setCheckState(objectBoolValue(record.value(kRegularExpression)) ? Qt::Checked
                                                                                            : Qt::Unchecked);
        table_->setItem(row, kEnabledColumn, enabled);
        table_->setItem(row, kPatternColumn, new QTableWidgetItem(record.value(kPattern).toString()));
        table_->setItem(row, kRegExColumn, regularExpression);
    }
    filling_ = false;
    showProblems();
}

QJsonArray ExclusionsPage::tableRecords() const
{
    QJsonArray records;
    for (int row = 0; row < table_->rowCount(); ++row) {
        // A row left empty is no pattern: the agent would pass it over.
        if (table_->item(row, kPatternColumn)->text().isEmpty())
            continue;
        records.append(QJsonObject{
            {kPattern, table_->item(row, kPatternColumn)->text()},
            {kRegularExpression, table_->item(row, kRegExColumn)->checkState() == Qt::Checked},
            {kEnabled, table_->item(row, kEnabledColumn)->checkState() == Qt::Checked},
        });
    }
    return records;
}

void ExclusionsPage::showProblems()
{
    const bool wasFilling = filling_;
    filling_ = true;
    QStringList problems;
    for (int row = 0; row < table_->rowCount(); ++row) {
        QTableWidgetItem* pattern = table_->item(row, kPatternColumn);
        const std::optional<QString> problem =
            patternProblem(pattern->text(), table_->item(row, kRegExColumn)->checkState() == Qt::Checked);
        pattern->setBackground(problem ? QColor(0xff, 0xd7, 0xd7) : QBrush());
        pattern->setToolTip(plainToolTip(problem.value_or(QString())));
        if (problem)
            problems << tr("“%1” %2.").arg(pattern->text(), *problem);
    }
    problems_->setText(problems.join(QLatin1Char('\n')));
    problems_->setVisible(!problems.isEmpty());
    filling_ = wasFilling;
}

void ExclusionsPage::storeSoon() { storeTimer_->start(); }

void ExclusionsPage::addPattern(const QString& pattern, bool regularExpression)
{
    const bool wasFilling = filling_;
    filling_ = true;
    const int row = table_->rowCount();
    table_->insertRow(row);
    auto* enabled = new QTableWidgetItem;
    enabled->setFlags(Qt::ItemIsEnabled | Qt::ItemIsUserCheckable | Qt::ItemIsSelectable);
    enabled->setCheckState(Qt::Checked);
    auto* kind = new QTableWidgetItem;
    kind->setFlags(enabled->flags());
    kind->setCheckState(regularExpression ? Qt::Checked : Qt::Unchecked);
    table_->setItem(row, kEnabledColumn, enabled);
    table_->setItem(row, kPatternColumn, new QTableWidgetItem(pattern));
    table_->setItem(row, kRegExColumn, kind);
    filling_ = wasFilling;
    showProblems();
    if (!pattern.isEmpty())
        storeSoon();
}

void ExclusionsPage::removeRow(int row)
{
    if (row < 0 || row >= table_->rowCount())
        return;
    table_->removeRow(row);
    showProblems();
    storeSoon();
}

} // namespace kv
