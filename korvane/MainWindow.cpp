#include "korvane/MainWindow.h"
#include "korvane/PlainText.h"

#include "korvane/AdvancedPage.h"
#include "korvane/DefinitionsPage.h"
#include "korvane/ExclusionsPage.h"
#include "korvane/HistoryPage.h"
#include "korvane/PreferenceStore.h"
#include "korvane/ProtectionPage.h"
#include "korvane/ScanPage.h"
#include "korvane/QuarantinePage.h"
#include "korvane/WatchedFoldersPage.h"
#include "korvane/WhenFoundPage.h"

#include <QDragEnterEvent>
#include <QDropEvent>
#include <QHBoxLayout>
#include <QIcon>
#include <QLabel>
#include <QListWidget>
#include <QMimeData>
#include <QScrollArea>
#include <QStackedWidget>
#include <QStyle>
#include <QTimer>
#include <QVBoxLayout>

#include <algorithm>

namespace kv {
namespace {

struct PageLook {
    Page page;
    const char* title;
    const char* themeIcon;
    QStyle::StandardPixmap fallback;
};

const PageLook kLooks[] = {
    {Page::Protection, QT_TRANSLATE_NOOP("MainWindow", "Protection"), "security-high", QStyle::SP_ComputerIcon},
    {Page::Scan, QT_TRANSLATE_NOOP("MainWindow", "Scan"), "system-search", QStyle::SP_FileDialogContentsView},
    {Page::WatchedFolders, QT_TRANSLATE_NOOP("MainWindow", "Watched Folders"), "folder", QStyle::SP_DirIcon},
    {Page::WhenFound, QT_TRANSLATE_NOOP("MainWindow", "When a Virus Is Found"), "dialog-warning",
     QStyle::SP_MessageBoxWarning},
    {Page::Exclusions, QT_TRANSLATE_NOOP("MainWindow", "Exclusions"), "list-remove", QStyle::SP_DialogNoButton},
    {Page::Definitions, QT_TRANSLATE_NOOP("MainWindow", "Definitions"), "view-refresh", QStyle::SP_BrowserReload},
    {Page::Quarantine, QT_TRANSLATE_NOOP("MainWindow", "Quarantine"), "user-trash", QStyle::SP_TrashIcon},
    {Page::History, QT_TRANSLATE_NOOP("MainWindow", "History"), "document-open-recent",
     QStyle::SP_FileDialogDetailedView},
    {Page::Advanced, QT_TRANSLATE_NOOP("MainWindow", "Advanced"), "preferences-system", QStyle::SP_FileDialogInfoView},
};

} // namespace

MainWindow::MainWindow(PageContext& context, QWidget* parent) : QMainWindow(parent), context_(context)
{
    setWindowTitle(tr("Korvane"));
    setObjectName("korvaneWindow");
    auto* central = new QWidget(this);
    auto* layout = new QHBoxLayout(central);
    sideBar_ = new QListWidget(central);
    sideBar_->setObjectName("pageList");
    sideBar_->setIconSize(QSize(22, 22));
    sideBar_->setFixedWidth(210);
    stack_ = new QStackedWidget(central);
    messageBar_ = plainLabel(central);
    messageBar_->setObjectName("messageBar");
    messageBar_->setWordWrap(true);
    messageBar_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    messageBar_->setVisible(false);
    auto* right = new QVBoxLayout;
    // Below the pages, so that a message never moves what the user is about
    // to click.
    right->addWidget(stack_, 1);
    right->addWidget(messageBar_);
    layout->addWidget(sideBar_);
    layout->addLayout(right, 1);
    setCentralWidget(central);

    // Pages may tell the user something while they are being made.
    context_.tell = [this](const QString& text, bool problem) { tell(text, problem); };
    protection_ = new ProtectionPage(context_);
    scan_ = new ScanPage(context_);
    folders_ = new WatchedFoldersPage(context_);
    found_ = new WhenFoundPage(context_);
    exclusions_ = new ExclusionsPage(context_);
    definitions_ = new DefinitionsPage(context_);
    quarantine_ = new QuarantinePage(context_);
    history_ = new HistoryPage(context_);
    advanced_ = new AdvancedPage(context_);
    const std::map<Page, QWidget*> pages{
        {Page::Protection, protection_}, {Page::Scan, scan_}, {Page::WatchedFolders, folders_}, {Page::WhenFound, found_},
        {Page::Exclusions, exclusions_}, {Page::Definitions, definitions_}, {Page::Quarantine, quarantine_},
        {Page::History, history_},       {Page::Advanced, advanced_},
    };
    for (const PageLook& look : kLooks) {
        const QIcon icon = QIcon::fromTheme(QLatin1String(look.themeIcon), style()->standardIcon(look.fallback));
        auto* item = new QListWidgetItem(icon, tr(look.title), sideBar_);
        item->setData(Qt::UserRole, pageName(look.page));
        QWidget* page = pages.at(look.page);
        page->setObjectName(pageName(look.page) + QStringLiteral("Page"));
        stack_->addWidget(page);
    }
    connect(sideBar_, &QListWidget::currentRowChanged, this, [this](int row) {
        stack_->setCurrentIndex(row);
        messageBar_->setVisible(false);
        // What the page shows may have changed while it was hidden.
        if (stack_->currentWidget() == quarantine_)
            quarantine_->refresh();
    });
    sideBar_->setCurrentRow(0);
    // A preferences file that cannot be read is said at once, whichever page
    // is on screen, and again whenever that changes.
    auto showProblems = [this] {
        const QStringList problems = context_.prefs.problems();
        if (problems == preferenceProblems_)
            return;
        preferenceProblems_ = problems;
        if (!problems.isEmpty())
            tell(problems.join(QLatin1Char('\n')), true);
    };
    connect(&context_.prefs, &PreferenceStore::changed, this, showProblems);
    showProblems();
    setAcceptDrops(true);
    resize(1020, 640);
}

void MainWindow::dragEnterEvent(QDragEnterEvent* event)
{
    const QList<QUrl> urls = event->mimeData()->urls();
    if (std::any_of(urls.begin(), urls.end(), [](const QUrl& url) { return ScanPage::localPath(url).has_value(); }))
        event->acceptProposedAction();
}

void MainWindow::dropEvent(QDropEvent* event)
{
    std::vector<std::string> paths;
    for (const QUrl& url : event->mimeData()->urls())
        if (const std::optional<std::string> path = ScanPage::localPath(url))
            paths.push_back(*path);
    if (paths.empty())
        return;
    event->acceptProposedAction();
    scan_->addPaths(paths);
    showPage(Page::Scan);
}

void MainWindow::showPage(Page page)
{
    for (int row = 0; row < sideBar_->count(); ++row)
        if (sideBar_->item(row)->data(Qt::UserRole).toString() == pageName(page))
            sideBar_->setCurrentRow(row);
}

bool MainWindow::showPageNamed(const QString& name)
{
    const std::optional<Page> page = pageNamed(name);
    if (!page)
        return false;
    showPage(*page);
    if (*page == Page::History)
        history_->showOnly(name == QLatin1String("diagnostics") ? HistoryPage::Show::Diagnostics
                                                                : HistoryPage::Show::Everything);
    return true;
}

Page MainWindow::currentPage() const
{
    return pageNamed(sideBar_->currentItem()->data(Qt::UserRole).toString()).value_or(Page::Protection);
}

void MainWindow::tell(const QString& text, bool problem)
{
    messageBar_->setText(text);
    messageBar_->setStyleSheet(problem ? QStringLiteral("background: #fde7e9; color: #5c0011; padding: 6px; "
                                                        "border: 1px solid #e8a0a8; border-radius: 4px")
                                       : QStringLiteral("background: #e6f4ea; color: #0b3d1b; padding: 6px; "
                                                        "border: 1px solid #a8d5b5; border-radius: 4px"));
    messageBar_->setProperty("problem", problem);
    messageBar_->setVisible(!text.isEmpty());
    // News goes after a while; a problem stays until the next change.
    if (!problem && !text.isEmpty()) {
        QTimer::singleShot(8000, messageBar_, [this, text] {
            if (messageBar_->text() == text && !messageBar_->property("problem").toBool())
                messageBar_->setVisible(false);
        });
    }
}

QString MainWindow::message() const { return messageBar_->isHidden() ? QString() : messageBar_->text(); }

} // namespace kv
