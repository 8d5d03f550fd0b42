#include "ui/FindingsSummary.h"

#include "platform/Workspace.h"

#include <sys/stat.h>

#include <QHBoxLayout>
#include <QLabel>
#include <QListView>
#include <QPushButton>
#include <QStringListModel>
#include <QVBoxLayout>

#include <unordered_set>

namespace kv {

FindingsSummary::FindingsSummary(Workspace& workspace, QWidget* parent)
    : QDialog(parent), workspace_(workspace), headline_(new QLabel(this)), more_(new QLabel(this)),
      problem_(new QLabel(this)),
      list_(new QListView(this)), lines_(new QStringListModel(this))
{
    setObjectName("findingsSummary");
    setWindowTitle(tr("Korvane Velgar: more viruses found"));
    setAttribute(Qt::WA_DeleteOnClose);
    setMinimumSize(560, 320);

    headline_->setObjectName("headline");
    headline_->setTextFormat(Qt::PlainText);
    QFont bold = headline_->font();
    bold.setBold(true);
    headline_->setFont(bold);
    auto* explanation = new QLabel(tr("These files are still where they were found. As long as you do not open them, "
                                      "they cannot harm this computer. Move them to the Trash unless you know that "
                                      "they are safe: you can still restore them from there."),
                                   this);
    explanation->setWordWrap(true);
    more_->setObjectName("unlisted");
    more_->setWordWrap(true);
    more_->hide();
    problem_->setObjectName("problem");
    problem_->setTextFormat(Qt::PlainText);
    problem_->setWordWrap(true);
    problem_->hide();

    list_->setObjectName("findings");
    list_->setModel(lines_);
    // Every row is one line of text: the view need not measure each.
    list_->setUniformItemSizes(true);
    list_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    list_->setSelectionMode(QAbstractItemView::NoSelection);

    auto* dismiss = new QPushButton(tr("Dismiss All"), this);
    dismiss->setObjectName("dismissAllButton");
    dismiss->setAutoDefault(false);
    auto* trash = new QPushButton(tr("Move All to Trash"), this);
    trash->setObjectName("moveAllToTrashButton");
    trash->setDefault(true);
    connect(dismiss, &QPushButton::clicked, this, &FindingsSummary::dismissAll);
    connect(trash, &QPushButton::clicked, this, &FindingsSummary::moveAllToTrash);

    auto* buttons = new QHBoxLayout;
    buttons->addStretch();
    buttons->addWidget(dismiss);
    buttons->addWidget(trash);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(headline_);
    layout->addWidget(explanation);
    layout->addWidget(list_, 1);
    layout->addWidget(more_);
    layout->addWidget(problem_);
    layout->addLayout(buttons);
}

void FindingsSummary::addFinding(const std::string& shownLine, const std::string& foundPath)
{
    if (count() >= kMostListedFindings) {
        ++unlisted_;
        updateHeadline();
        return;
    }
    const int row = lines_->rowCount();
    lines_->insertRows(row, 1);
    lines_->setData(lines_->index(row), QString::fromStdString(shownLine));
    foundPaths_.push_back(foundPath);
    updateHeadline();
}

void FindingsSummary::updateHeadline()
{
    const int found = count() + unlisted_;
    headline_->setText(found == 1 ? tr("1 more infected file found") : tr("%1 more infected files found").arg(found));
    more_->setVisible(unlisted_ > 0);
    more_->setText(tr("and %1 more, not listed here: the scan log names each of them. Move All to Trash moves only "
                      "the listed files.")
                       .arg(unlisted_));
}

void FindingsSummary::moveAllToTrash()
{
    QStringList keptLines;
    std::vector<std::string> keptPaths;
    std::unordered_set<std::string> moved;
    const QStringList lines = lines_->stringList();
    for (size_t row = 0; row < foundPaths_.size(); ++row) {
        const std::string& path = foundPaths_[row];
        // The same file found twice is moved once.
        if (moved.contains(path))
            continue;
        // Only a file: a name that now leads to a folder, a link or a device
        // is not what was found, and stays where it is.
        struct stat info{};
        if (::lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && workspace_.recycleFile(path)) {
            moved.insert(path);
            continue;
        }
        keptLines.push_back(lines.value(int(row)));
        keptPaths.push_back(path);
    }
    lines_->setStringList(keptLines);
    foundPaths_ = std::move(keptPaths);
    if (foundPaths_.empty() && unlisted_ == 0) {
        close();
        return;
    }
    updateHeadline();
    QString problem;
    if (count() > 0)
        problem = tr("%1 of these could not be moved to the Trash: each is gone, or no longer a plain file. "
                     "They are still listed above.")
                      .arg(count());
    // The findings past the list are where they were found: the window
    // stays to say so rather than close as if nothing were left.
    if (unlisted_ > 0)
        problem += (problem.isEmpty() ? QString() : QStringLiteral(" ")) +
                   tr("The %1 not listed were not moved: they are still where they were found.").arg(unlisted_);
    problem_->setText(problem);
    problem_->show();
    if (count() > 0)
        workspace_.beep();
}

void FindingsSummary::dismissAll()
{
    foundPaths_.clear();
    unlisted_ = 0;
    close();
}

} // namespace kv
