#include "korvane/HistoryPage.h"
#include "korvane/PlainText.h"

#include "korvane/PageContext.h"
#include "korvane/ScanHistory.h"

#include <QComboBox>
#include <QFontMetrics>
#include <QDir>
#include <QFileInfo>
#include <QFileSystemWatcher>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QLocale>
#include <QPushButton>
#include <QSortFilterProxyModel>
#include <QStandardItemModel>
#include <QTableView>
#include <QTimer>
#include <QVBoxLayout>

#include <algorithm>

namespace kv {
namespace {

constexpr int kKindRole = Qt::UserRole + 1;

// Rows of the chosen kinds whose text holds the search.
class HistoryFilter : public QSortFilterProxyModel {
public:
    using QSortFilterProxyModel::QSortFilterProxyModel;

    void setShow(HistoryPage::Show show)
    {
        show_ = show;
        invalidateFilter();
    }

protected:
    bool filterAcceptsRow(int row, const QModelIndex& parent) const override
    {
        const auto kind = static_cast<HistoryEntry::Kind>(sourceModel()->index(row, 0, parent).data(kKindRole).toInt());
        if (show_ == HistoryPage::Show::Findings && kind != HistoryEntry::Kind::Finding &&
            kind != HistoryEntry::Kind::Moved)
            return false;
        if (show_ == HistoryPage::Show::Diagnostics && kind != HistoryEntry::Kind::Diagnostic &&
            kind != HistoryEntry::Kind::Other)
            return false;
        return QSortFilterProxyModel::filterAcceptsRow(row, parent);
    }

private:
    HistoryPage::Show show_ = HistoryPage::Show::Everything;
};

} // namespace

HistoryPage::HistoryPage(PageContext& context, QWidget* parent) : QWidget(parent), context_(context)
{
    auto* layout = new QVBoxLayout(this);
    auto* bar = new QHBoxLayout;
    searchEdit_ = new QLineEdit(this);
    searchEdit_->setObjectName("historySearch");
    searchEdit_->setPlaceholderText(tr("Search the scan log"));
    searchEdit_->setClearButtonEnabled(true);
    showBox_ = new QComboBox(this);
    showBox_->setObjectName("historyShow");
    showBox_->addItems({tr("Everything"), tr("Infected files"), tr("Agent diagnostics")});
    auto* reload = new QPushButton(tr("Reload"), this);
    bar->addWidget(searchEdit_, 1);
    bar->addWidget(showBox_);
    bar->addWidget(reload);

    model_ = new QStandardItemModel(0, 4, this);
    model_->setHorizontalHeaderLabels({tr("Result"), tr("Time"), tr("File or message"), tr("Detail")});
    filter_ = new HistoryFilter(this);
    filter_->setSourceModel(model_);
    filter_->setFilterKeyColumn(-1);
    filter_->setFilterCaseSensitivity(Qt::CaseInsensitive);
    view_ = new QTableView(this);
    view_->setObjectName("historyTable");
    view_->setModel(filter_);
    view_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    view_->setSelectionBehavior(QAbstractItemView::SelectRows);
    view_->verticalHeader()->hide();
    view_->horizontalHeader()->setSectionResizeMode(2, QHeaderView::Stretch);
    view_->setWordWrap(false);
    // A long path loses its middle, so the file's name stays in sight; the
    // detail holds a virus's name or where the file went.
    view_->setTextElideMode(Qt::ElideMiddle);
    view_->horizontalHeader()->resizeSection(3, 220);
    // The result column fits its longest word in bold, measured once: fitting
    // it to a log's thousands of rows would take the window a while.
    QFont bold = view_->font();
    bold.setBold(true);
    int widest = 0;
    for (const HistoryEntry::Kind kind : {HistoryEntry::Kind::Finding, HistoryEntry::Kind::Moved, HistoryEntry::Kind::Clean,
                                          HistoryEntry::Kind::Diagnostic, HistoryEntry::Kind::Other})
        widest = std::max(widest, QFontMetrics(bold).horizontalAdvance(kindText(kind)));
    view_->horizontalHeader()->resizeSection(0, widest + 24);
    summary_ = plainLabel(this);
    summary_->setObjectName("historySummary");

    layout->addLayout(bar);
    layout->addWidget(view_, 1);
    layout->addWidget(summary_);

    connect(searchEdit_, &QLineEdit::textChanged, this, [this](const QString& text) { search(text); });
    connect(showBox_, &QComboBox::currentIndexChanged, this, [this](int index) { showOnly(static_cast<Show>(index)); });
    connect(reload, &QPushButton::clicked, this, &HistoryPage::refresh);
    // The agent appends to its log all the time: a change is read at most
    // once a second or so, and only while the page is on screen (else when it
    // comes on screen). The log's folder is watched too, for a log made or
    // replaced by a rotation.
    again_ = new QTimer(this);
    again_->setSingleShot(true);
    again_->setInterval(1000);
    connect(again_, &QTimer::timeout, this, [this] {
        if (isVisible())
            refresh();
        else
            stale_ = true;
    });
    auto* watcher = new QFileSystemWatcher(this);
    const QFileInfo log(QString::fromStdString(context_.scanLogPath));
    auto watch = [watcher, log] {
        if (log.exists() && !watcher->files().contains(log.absoluteFilePath()))
            watcher->addPath(log.absoluteFilePath());
        if (log.dir().exists() && !watcher->directories().contains(log.absolutePath()))
            watcher->addPath(log.absolutePath());
    };
    watch();
    auto changed = [this, watch] {
        watch();
        if (!again_->isActive())
            again_->start();
    };
    connect(watcher, &QFileSystemWatcher::fileChanged, this, changed);
    connect(watcher, &QFileSystemWatcher::directoryChanged, this, changed);
    refresh();
}

void HistoryPage::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    if (stale_)
        refresh();
}

void HistoryPage::refresh()
{
    stale_ = false;
    const std::vector<HistoryEntry> entries = readScanHistory(context_.scanLogPath);
    model_->removeRows(0, model_->rowCount());
    int findings = 0;
    for (const HistoryEntry& entry : entries) {
        auto* kind = new QStandardItem(kindText(entry.kind));
        kind->setData(static_cast<int>(entry.kind), kKindRole);
        if (entry.kind == HistoryEntry::Kind::Finding) {
            ++findings;
            kind->setForeground(QColor(0xb0, 0x00, 0x20));
            QFont bold = kind->font();
            bold.setBold(true);
            kind->setFont(bold);
        }
        const QString text = entry.path.isEmpty() ? entry.detail : entry.path;
        auto* what = new QStandardItem(text);
        what->setToolTip(plainToolTip(text));
        model_->appendRow({kind,
                           new QStandardItem(entry.time.isValid() ? QLocale().toString(entry.time, QLocale::ShortFormat)
                                                                  : QString()),
                           what, new QStandardItem(entry.path.isEmpty() ? QString() : entry.detail)});
    }
    summary_->setText(entries.empty() ? tr("The scan log is empty.")
                      : findings == 1
                          ? tr("1 infected file found; %1 lines in all.").arg(entries.size())
                          : tr("%1 infected files found; %2 lines in all.").arg(findings).arg(entries.size()));
    view_->resizeColumnToContents(1);
}

void HistoryPage::showOnly(Show what)
{
    if (showBox_->currentIndex() != static_cast<int>(what))
        showBox_->setCurrentIndex(static_cast<int>(what));
    static_cast<HistoryFilter*>(filter_)->setShow(what);
}

void HistoryPage::search(const QString& text)
{
    if (searchEdit_->text() != text)
        searchEdit_->setText(text);
    filter_->setFilterFixedString(text);
}

int HistoryPage::rowsShown() const { return filter_->rowCount(); }

QString HistoryPage::shownText(int row, int column) const { return filter_->index(row, column).data().toString(); }

} // namespace kv
