#include "korvane/WatchedFoldersPage.h"
#include "korvane/PlainText.h"

#include "korvane/PageContext.h"
#include "korvane/PreferenceStore.h"
#include "platform/Paths.h"
#include "platform/Preferences.h"

#include <QCheckBox>
#include <QDir>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QJsonObject>
#include <QLabel>
#include <QPushButton>
#include <QStyle>
#include <QTableWidget>
#include <QVBoxLayout>

namespace kv {
namespace {

const QString kKey = QStringLiteral("VelgarFolderArray");
const QString kPath = QStringLiteral("pathName");
const QString kSubfolders = QStringLiteral("WatchSubdirs");

QString expanded(const QString& path) { return QString::fromStdString(expandTilde(path.toStdString())); }

} // namespace

WatchedFoldersPage::WatchedFoldersPage(PageContext& context, QWidget* parent) : QWidget(parent), context_(context)
{
    auto* layout = new QVBoxLayout(this);
    auto* intro = new QLabel(tr("New files in these folders are scanned as soon as they stop growing."), this);
    intro->setWordWrap(true);
    table_ = new QTableWidget(0, 2, this);
    table_->setObjectName("folderTable");
    table_->setHorizontalHeaderLabels({tr("Folder"), tr("With subfolders")});
    table_->horizontalHeader()->setSectionResizeMode(0, QHeaderView::Stretch);
    table_->horizontalHeader()->setSectionResizeMode(1, QHeaderView::ResizeToContents);
    table_->verticalHeader()->hide();
    table_->setSelectionBehavior(QAbstractItemView::SelectRows);
    table_->setSelectionMode(QAbstractItemView::SingleSelection);
    table_->setEditTriggers(QAbstractItemView::NoEditTriggers);

    auto* buttons = new QHBoxLayout;
    auto* addButton = new QPushButton(tr("Add Folder…"), this);
    addButton->setObjectName("addFolderButton");
    removeButton_ = new QPushButton(tr("Remove"), this);
    removeButton_->setObjectName("removeFolderButton");
    upButton_ = new QPushButton(tr("Move Up"), this);
    upButton_->setObjectName("moveUpButton");
    downButton_ = new QPushButton(tr("Move Down"), this);
    downButton_->setObjectName("moveDownButton");
    for (QPushButton* button : {addButton, removeButton_, upButton_, downButton_})
        buttons->addWidget(button);
    buttons->addStretch();

    missing_ = plainLabel(this);
    missing_->setObjectName("missingFolders");
    missing_->setWordWrap(true);
    missing_->setStyleSheet(QStringLiteral("color: #b00020"));
    volumesBox_ = new QCheckBox(tr("Scan volumes when they are mounted (USB sticks, disks, network shares)"), this);
    volumesBox_->setObjectName("scanVolumesBox");

    layout->addWidget(intro);
    layout->addWidget(table_);
    layout->addLayout(buttons);
    layout->addWidget(missing_);
    layout->addWidget(volumesBox_);

    connect(addButton, &QPushButton::clicked, this, [this] {
        const QString chosen = context_.chooseFolder(tr("Choose a Folder to Watch"), QDir::homePath());
        if (!chosen.isEmpty())
            addFolder(chosen);
    });
    auto selectedRow = [this] { return table_->currentRow(); };
    connect(removeButton_, &QPushButton::clicked, this, [this, selectedRow] { removeRow(selectedRow()); });
    connect(upButton_, &QPushButton::clicked, this, [this, selectedRow] { moveRow(selectedRow(), -1); });
    connect(downButton_, &QPushButton::clicked, this, [this, selectedRow] { moveRow(selectedRow(), +1); });
    connect(table_, &QTableWidget::itemChanged, this, [this](QTableWidgetItem* item) {
        if (!filling_ && item->column() == 1)
            setSubfolders(item->row(), item->checkState() == Qt::Checked);
    });
    connect(table_, &QTableWidget::currentCellChanged, this, [this](int row) {
        removeButton_->setEnabled(row >= 0);
        upButton_->setEnabled(row > 0);
        downButton_->setEnabled(row >= 0 && row + 1 < table_->rowCount());
    });
    connect(volumesBox_, &QCheckBox::toggled, this, [this](bool on) {
        if (!filling_ && !context_.change(QStringLiteral("VelgarScanVolumes"), on))
            refresh();
    });
    connect(&context_.prefs, &PreferenceStore::changed, this, &WatchedFoldersPage::refresh);
    refresh();
}

void WatchedFoldersPage::refresh()
{
    filling_ = true;
    const int selected = table_->currentRow();
    records_ = context_.prefs.array(kKey);
    table_->setRowCount(0);
    QStringList missing;
    for (const QJsonValue& value : records_) {
        const QJsonObject record = value.toObject();
        const QString path = record.value(kPath).toString();
        const int row = table_->rowCount();
        table_->insertRow(row);
        auto* folder = new QTableWidgetItem(path);
        if (!QFileInfo(expanded(path)).isDir()) {
            missing << path;
            folder->setIcon(style()->standardIcon(QStyle::SP_MessageBoxWarning));
            folder->setToolTip(tr("This folder does not exist. The agent skips it until it does."));
        } else {
            folder->setIcon(style()->standardIcon(QStyle::SP_DirIcon));
        }
        auto* subfolders = new QTableWidgetItem;
        subfolders->setFlags(Qt::ItemIsEnabled | Qt::ItemIsUserCheckable | Qt::ItemIsSelectable);
        subfolders->setCheckState(objectBoolValue(record.value(kSubfolders)) ? Qt::Checked : Qt::Unchecked);
        table_->setItem(row, 0, folder);
        table_->setItem(row, 1, subfolders);
    }
    missing_->setText(missing.isEmpty() ? QString()
                                        : tr("Not there, so not watched: %1").arg(missing.join(QStringLiteral(", "))));
    missing_->setVisible(!missing.isEmpty());
    volumesBox_->setChecked(context_.prefs.boolean(QStringLiteral("VelgarScanVolumes")));
    table_->setCurrentCell(std::min(selected, table_->rowCount() - 1), 0);
    removeButton_->setEnabled(table_->currentRow() >= 0);
    upButton_->setEnabled(table_->currentRow() > 0);
    downButton_->setEnabled(table_->currentRow() >= 0 && table_->currentRow() + 1 < table_->rowCount());
    filling_ = false;
}

bool WatchedFoldersPage::store(const QJsonArray& records)
{
    if (context_.change(kKey, records))
        return true;
    refresh();
    return false;
}

void WatchedFoldersPage::addFolder(const QString& chosen)
{
    const QString path = QDir::cleanPath(expanded(chosen));
    if (!QFileInfo(path).isDir()) {
        context_.tell(tr("%1 is not a folder that exists; nothing was added.").arg(path), true);
        return;
    }
    for (const QJsonValue& value : records_) {
        if (QDir::cleanPath(expanded(value.toObject().value(kPath).toString())) == path) {
            context_.tell(tr("%1 is watched already.").arg(path), false);
            return;
        }
    }
    QJsonArray records = records_;
    records.append(QJsonObject{{kPath, path}, {kSubfolders, true}});
    if (store(records))
        context_.tell(tr("%1 is now watched, with its subfolders.").arg(path), false);
    table_->setCurrentCell(table_->rowCount() - 1, 0);
}

void WatchedFoldersPage::removeRow(int row)
{
    if (row < 0 || row >= records_.size())
        return;
    QJsonArray records = records_;
    records.removeAt(row);
    store(records);
}

void WatchedFoldersPage::moveRow(int row, int by)
{
    const int target = row + by;
    if (row < 0 || row >= records_.size() || target < 0 || target >= records_.size())
        return;
    QJsonArray records = records_;
    const QJsonValue moved = records.takeAt(row);
    records.insert(target, moved);
    if (store(records))
        table_->setCurrentCell(target, 0);
}

void WatchedFoldersPage::setSubfolders(int row, bool on)
{
    if (row < 0 || row >= records_.size())
        return;
    QJsonArray records = records_;
    QJsonObject record = records.at(row).toObject();
    record.insert(kSubfolders, on);
    records.replace(row, record);
    store(records);
}

} // namespace kv
