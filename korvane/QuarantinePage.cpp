#include "korvane/QuarantinePage.h"
#include "korvane/PlainText.h"

#include "korvane/PageContext.h"
#include "korvane/PreferenceStore.h"
#include "platform/PathText.h"
#include "platform/Paths.h"
#include "platform/Preferences.h"

#include <QDateTime>
#include <QFileInfo>
#include <QDir>
#include <QFileSystemWatcher>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QJsonArray>
#include <QJsonObject>
#include <QLabel>
#include <QLocale>
#include <QMessageBox>
#include <QPushButton>
#include <QTableWidget>
#include <QTimer>
#include <QVBoxLayout>

namespace kv {
namespace {

// A path as the user reads it: odd bytes escaped the way the log shows them.
QString shown(const std::string& path) { return QString::fromStdString(displayText(path)); }

// A file moved from one of the agent's warning windows carries no signature.
// A signature is the engine's text, shown escaped the way a name is.
QString signatureText(const QuarantineRecord& record)
{
    return record.signature.empty() ? QObject::tr("moved from a warning") : shown(record.signature);
}

} // namespace

QuarantinePage::QuarantinePage(PageContext& context, QWidget* parent)
    : QWidget(parent), context_(context), index_(context.quarantineIndexPath)
{
    auto* layout = new QVBoxLayout(this);
    summary_ = plainLabel(this);
    summary_->setObjectName("quarantineSummary");
    summary_->setWordWrap(true);
    table_ = new QTableWidget(0, 5, this);
    table_->setObjectName("quarantineTable");
    table_->setHorizontalHeaderLabels({tr("File"), tr("Came from"), tr("Virus"), tr("Moved"), tr("Now in")});
    // The path takes what the name, virus and place leave, on as many lines
    // as it needs; the time breaks after its date.
    table_->horizontalHeader()->setSectionResizeMode(QHeaderView::ResizeToContents);
    table_->horizontalHeader()->setSectionResizeMode(1, QHeaderView::Stretch);
    table_->horizontalHeader()->setSectionResizeMode(3, QHeaderView::Interactive);
    table_->verticalHeader()->setSectionResizeMode(QHeaderView::ResizeToContents);
    table_->verticalHeader()->hide();
    table_->setSelectionBehavior(QAbstractItemView::SelectRows);
    table_->setSelectionMode(QAbstractItemView::SingleSelection);
    table_->setEditTriggers(QAbstractItemView::NoEditTriggers);

    auto* buttons = new QHBoxLayout;
    restoreButton_ = new QPushButton(tr("Restore"), this);
    restoreButton_->setObjectName("restoreButton");
    restoreButton_->setToolTip(tr("Put the file back where it came from. If the folder is watched, the agent will "
                                  "find it again."));
    deleteButton_ = new QPushButton(tr("Delete for Good…"), this);
    deleteButton_->setObjectName("deleteButton");
    auto* refreshButton = new QPushButton(tr("Refresh"), this);
    buttons->addWidget(restoreButton_);
    buttons->addWidget(deleteButton_);
    buttons->addStretch();
    buttons->addWidget(refreshButton);

    layout->addWidget(summary_);
    layout->addWidget(table_);
    layout->addLayout(buttons);

    connect(restoreButton_, &QPushButton::clicked, this, [this] { restoreRow(table_->currentRow()); });
    connect(deleteButton_, &QPushButton::clicked, this, [this] { deleteRow(table_->currentRow(), true); });
    connect(refreshButton, &QPushButton::clicked, this, &QuarantinePage::refresh);
    connect(table_, &QTableWidget::currentCellChanged, this, [this](int row) {
        restoreButton_->setEnabled(row >= 0);
        deleteButton_->setEnabled(row >= 0);
    });
    // The agent appends to the index while the page is open.
    auto* watcher = new QFileSystemWatcher(this);
    const QFileInfo indexFile(QString::fromStdString(index_.indexPath()));
    if (indexFile.dir().exists())
        watcher->addPath(indexFile.absolutePath());
    if (indexFile.exists())
        watcher->addPath(indexFile.absoluteFilePath());
    // A flood appends many lines a second: the list is read again once they
    // pause, not once per line.
    auto* again = new QTimer(this);
    again->setSingleShot(true);
    again->setInterval(300);
    connect(again, &QTimer::timeout, this, &QuarantinePage::refresh);
    auto changed = [watcher, indexFile, again] {
        if (!watcher->files().contains(indexFile.absoluteFilePath()) && indexFile.exists())
            watcher->addPath(indexFile.absoluteFilePath());
        again->start();
    };
    connect(watcher, &QFileSystemWatcher::fileChanged, this, changed);
    connect(watcher, &QFileSystemWatcher::directoryChanged, this, changed);
    refresh();
}

void QuarantinePage::refresh()
{
    std::string error;
    int skipped = 0;
    records_ = index_.current(&error, &skipped);
    table_->setRowCount(0);
    for (const QuarantineRecord& record : records_) {
        const int row = table_->rowCount();
        table_->insertRow(row);
        const size_t slash = record.originalPath.rfind('/');
        auto* name = new QTableWidgetItem(shown(record.originalPath.substr(slash == std::string::npos ? 0 : slash + 1)));
        name->setToolTip(plainToolTip(shown(record.storedPath)));
        table_->setItem(row, 0, name);
        table_->setItem(row, 1, new QTableWidgetItem(shown(record.originalPath)));
        table_->setItem(row, 2, new QTableWidgetItem(signatureText(record)));
        table_->setItem(row, 3, new QTableWidgetItem(QLocale().toString(
                                    QDateTime::fromSecsSinceEpoch(record.movedAt), QLocale::ShortFormat)));
        table_->setItem(row, 4, new QTableWidgetItem(record.place == QuarantineRecord::Place::Trash ? tr("Trash")
                                                                                                    : tr("Quarantine")));
    }
    QString summary = records_.empty()     ? tr("Nothing is in quarantine.")
                      : records_.size() == 1 ? tr("1 file the agent moved away because it holds a virus.")
                                             : tr("%1 files the agent moved away because they hold a virus.")
                                                   .arg(records_.size());
    if (!error.empty())
        summary += QLatin1Char(' ') + tr("The quarantine index cannot be read: %1").arg(QString::fromStdString(error));
    if (skipped)
        summary += QLatin1Char(' ') + (skipped == 1 ? tr("1 damaged line of the index was passed over.")
                                                    : tr("%1 damaged lines of the index were passed over.").arg(skipped));
    summary_->setText(summary);
    restoreButton_->setEnabled(table_->currentRow() >= 0);
    deleteButton_->setEnabled(table_->currentRow() >= 0);
}

bool QuarantinePage::watchedFolderOf(const std::string& path) const
{
    const size_t slash = path.rfind('/');
    const std::string parent = slash == std::string::npos ? std::string() : path.substr(0, slash);
    for (const QJsonValue& value : context_.prefs.array(QStringLiteral("VelgarFolderArray"))) {
        const QJsonObject folder = value.toObject();
        std::string watched = expandTilde(folder.value(QStringLiteral("pathName")).toString().toStdString());
        while (watched.size() > 1 && watched.back() == '/')
            watched.pop_back();
        if (parent == watched ||
            (objectBoolValue(folder.value(QStringLiteral("WatchSubdirs"))) && parent.starts_with(watched + "/")))
            return true;
    }
    return false;
}

bool QuarantinePage::restoreRow(int row)
{
    if (row < 0 || row >= static_cast<int>(records_.size()))
        return false;
    const QuarantineRecord record = records_[row];
    std::string error;
    const bool done = index_.restore(record, &error);
    if (done)
        context_.tell(watchedFolderOf(record.originalPath)
                          ? tr("%1 is back where it came from. That folder is watched, so the agent scans it again: "
                               "to keep it, add it to the Exclusions first.")
                                .arg(shown(record.originalPath))
                          : tr("%1 is back where it came from.").arg(shown(record.originalPath)),
                      false);
    else
        context_.tell(tr("%1 was not restored: %2").arg(shown(record.originalPath), QString::fromStdString(error)), true);
    refresh();
    return done;
}

bool QuarantinePage::deleteRow(int row, bool confirm)
{
    if (row < 0 || row >= static_cast<int>(records_.size()))
        return false;
    const QuarantineRecord record = records_[row];
    if (confirm) {
        const std::string& original = record.originalPath;
        const std::string name = original.substr(original.rfind('/') + 1);
        QMessageBox question(QMessageBox::Question, tr("Delete for Good"),
                             tr("Delete the quarantined copy of %1 (%2) for good? It cannot be restored afterwards. "
                                "Whatever is at %3 now is not touched.")
                                 .arg(shown(name), signatureText(record), shown(original)),
                             QMessageBox::Cancel, this);
        question.setTextFormat(Qt::PlainText);
        QPushButton* remove = question.addButton(tr("Delete"), QMessageBox::DestructiveRole);
        question.setDefaultButton(QMessageBox::Cancel);
        question.exec();
        if (question.clickedButton() != remove)
            return false;
    }
    std::string error;
    const bool done = index_.remove(record, &error);
    if (done)
        context_.tell(tr("The quarantined copy of %1 is deleted.").arg(shown(record.originalPath)), false);
    else
        context_.tell(tr("%1 was not deleted: %2").arg(shown(record.originalPath), QString::fromStdString(error)), true);
    refresh();
    return done;
}

} // namespace kv
