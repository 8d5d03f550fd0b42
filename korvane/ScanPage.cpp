#include "korvane/ScanPage.h"
#include "korvane/PlainText.h"

#include "korvane/PageContext.h"
#include "korvane/PreferenceStore.h"
#include "platform/Log.h"
#include "platform/PathText.h"
#include "platform/Paths.h"
#include "platform/Preferences.h"
#include "platform/QuarantineRecords.h"
#include "platform/ScanLogFile.h"
#include "platform/ScheduledScanUnits.h"
#include "platform/Settings.h"
#include "platform/UniqueFd.h"
#include "platform/UserControlled.h"
#include "scan/OnDemandEngine.h"
#include "scan/Relocation.h"
#include "scan/ScanResult.h"

#include <QCheckBox>
#include <QComboBox>
#include <QCoreApplication>
#include <QFile>
#include <QFileDialog>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QListWidget>
#include <QProgressBar>
#include <QPushButton>
#include <QTableWidget>
#include <QTimeEdit>
#include <QTimer>
#include <QUrl>
#include <QVBoxLayout>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <mutex>

namespace kv {
namespace {

constexpr int kDrainEveryMs = 100;

QString shown(const std::string& bytes) { return QString::fromStdString(displayText(bytes)); }

// "1:05" or "1:02:05".
QString clockText(qint64 seconds)
{
    const qint64 hours = seconds / 3600, minutes = seconds / 60 % 60;
    const QString rest = QStringLiteral("%1:%2").arg(minutes, hours ? 2 : 1, 10, QLatin1Char('0')).arg(seconds % 60, 2, 10, QLatin1Char('0'));
    return hours ? QStringLiteral("%1:%2").arg(hours).arg(rest) : rest;
}

} // namespace

// What the scanning thread hands the page. The thread fills it; the page
// empties it in drain(), called through one queued call at a time.
struct ScanPage::Mailbox {
    std::mutex mutex;
    std::vector<OnDemandItem> items;           // guarded by mutex
    std::optional<OnDemandProgress> progress;  // guarded by mutex: the latest
    std::optional<OnDemandSummary> summary;    // guarded by mutex: set once the scan has ended
    std::optional<std::string> problem;        // guarded by mutex: why no scan could start
    bool posted = false;                       // guarded by mutex: a call to drain() is on its way
    bool stopped = false;                      // guarded by mutex
    OnDemandScan* scan = nullptr;              // guarded by mutex: the scan while it runs

    // Asks the page to take what is here, unless it is asked already.
    void postLocked(ScanPage* page)
    {
        if (posted)
            return;
        posted = true;
        QMetaObject::invokeMethod(page, [page] { page->drain(); }, Qt::QueuedConnection);
    }
};

ScanPage::ScanPage(PageContext& context, QWidget* parent) : QWidget(parent), context_(context)
{
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(new QLabel(tr("Scan files and folders now. Add them below, or drop them on this window."), this));
    auto* pickRow = new QHBoxLayout;
    pathList_ = new QListWidget(this);
    pathList_->setObjectName("scanPathList");
    pathList_->setMaximumHeight(90);
    auto* pickButtons = new QVBoxLayout;
    auto* addFilesButton = new QPushButton(tr("Add Files…"), this);
    auto* addFolderButton = new QPushButton(tr("Add Folder…"), this);
    auto* clearButton = new QPushButton(tr("Clear"), this);
    clearButton->setObjectName("scanClearButton");
    for (QPushButton* button : {addFilesButton, addFolderButton, clearButton})
        pickButtons->addWidget(button);
    pickButtons->addStretch();
    pickRow->addWidget(pathList_, 1);
    pickRow->addLayout(pickButtons);
    layout->addLayout(pickRow);

    subfoldersBox_ = new QCheckBox(tr("Include subfolders"), this);
    subfoldersBox_->setObjectName("scanSubfoldersBox");
    subfoldersBox_->setChecked(true);
    handlingLabel_ = plainLabel(this);
    handlingLabel_->setObjectName("scanHandling");
    handlingLabel_->setWordWrap(true);
    layout->addWidget(subfoldersBox_);
    layout->addWidget(handlingLabel_);

    auto* runRow = new QHBoxLayout;
    startButton_ = new QPushButton(tr("Start"), this);
    startButton_->setObjectName("scanStartButton");
    stopButton_ = new QPushButton(tr("Stop"), this);
    stopButton_->setObjectName("scanStopButton");
    progressBar_ = new QProgressBar(this);
    progressBar_->setObjectName("scanProgress");
    progressBar_->setFormat(tr("%v of %m files"));
    progressBar_->setValue(0);
    timeLabel_ = plainLabel(this);
    timeLabel_->setObjectName("scanTime");
    runRow->addWidget(startButton_);
    runRow->addWidget(stopButton_);
    runRow->addWidget(progressBar_, 1);
    runRow->addWidget(timeLabel_);
    layout->addLayout(runRow);
    currentLabel_ = plainLabel(this);
    currentLabel_->setObjectName("scanCurrentFile");
    // A long path must not widen the window: it is cut in its middle.
    currentLabel_->setMinimumWidth(100);
    currentLabel_->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    summaryLabel_ = plainLabel(this);
    summaryLabel_->setObjectName("scanSummary");
    summaryLabel_->setWordWrap(true);
    layout->addWidget(currentLabel_);
    layout->addWidget(summaryLabel_);

    table_ = new QTableWidget(0, 3, this);
    table_->setObjectName("scanResults");
    table_->setHorizontalHeaderLabels({tr("File"), tr("Found"), tr("What was done")});
    // The path and what was done share the width; a long one is cut in its
    // middle (its tool tip has it whole).
    table_->horizontalHeader()->setSectionResizeMode(QHeaderView::Stretch);
    table_->horizontalHeader()->setSectionResizeMode(1, QHeaderView::ResizeToContents);
    table_->setTextElideMode(Qt::ElideMiddle);
    table_->setWordWrap(false);
    table_->verticalHeader()->hide();
    table_->setSelectionBehavior(QAbstractItemView::SelectRows);
    table_->setSelectionMode(QAbstractItemView::SingleSelection);
    table_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    layout->addWidget(table_, 1);

    auto* actions = new QHBoxLayout;
    quarantineButton_ = new QPushButton(tr("Quarantine"), this);
    quarantineButton_->setObjectName("scanQuarantineButton");
    trashButton_ = new QPushButton(tr("Move to Trash"), this);
    trashButton_->setObjectName("scanTrashButton");
    revealButton_ = new QPushButton(tr("Show in Folder"), this);
    revealButton_->setObjectName("scanRevealButton");
    quarantineAllButton_ = new QPushButton(tr("Quarantine All"), this);
    quarantineAllButton_->setObjectName("scanQuarantineAllButton");
    trashAllButton_ = new QPushButton(tr("Move All to Trash"), this);
    trashAllButton_->setObjectName("scanTrashAllButton");
    revealAllButton_ = new QPushButton(tr("Show All in Folder"), this);
    revealAllButton_->setObjectName("scanRevealAllButton");
    for (QPushButton* button : {quarantineButton_, trashButton_, revealButton_})
        actions->addWidget(button);
    actions->addStretch();
    for (QPushButton* button : {quarantineAllButton_, trashAllButton_, revealAllButton_})
        actions->addWidget(button);
    layout->addLayout(actions);

    auto* scheduleGroup = new QGroupBox(tr("Scheduled scan of the watched folders"), this);
    auto* scheduleRow = new QHBoxLayout(scheduleGroup);
    scheduleBox_ = new QComboBox(scheduleGroup);
    scheduleBox_->setObjectName("scheduleBox");
    scheduleBox_->addItems({tr("Off"), tr("Every day"), tr("Every Monday")});
    scheduleTime_ = new QTimeEdit(scheduleGroup);
    scheduleTime_->setObjectName("scheduleTime");
    scheduleTime_->setDisplayFormat(QStringLiteral("HH:mm"));
    auto* scheduleButton = new QPushButton(tr("Save Schedule"), scheduleGroup);
    scheduleButton->setObjectName("scheduleButton");
    scheduleRow->addWidget(scheduleBox_);
    scheduleRow->addWidget(new QLabel(tr("at"), scheduleGroup));
    scheduleRow->addWidget(scheduleTime_);
    scheduleRow->addWidget(scheduleButton);
    scheduleRow->addStretch();
    layout->addWidget(scheduleGroup);

    drainTimer_ = new QTimer(this);
    drainTimer_->setSingleShot(true);
    connect(drainTimer_, &QTimer::timeout, this, &ScanPage::takeMail);
    clock_ = new QTimer(this);
    clock_->setInterval(1000);
    connect(clock_, &QTimer::timeout, this, [this] {
        if (progress_)
            showProgress(*progress_);
    });

    connect(addFilesButton, &QPushButton::clicked, this, [this] {
        std::vector<std::string> chosen;
        for (const QString& file : QFileDialog::getOpenFileNames(this, tr("Files to Scan")))
            chosen.push_back(QFile::encodeName(file).toStdString());
        addPaths(chosen);
    });
    connect(addFolderButton, &QPushButton::clicked, this, [this] {
        const QString folder = context_.chooseFolder(tr("Folder to Scan"), QString::fromStdString(context_.homeDirectory));
        if (!folder.isEmpty())
            addPaths({QFile::encodeName(folder).toStdString()});
    });
    connect(clearButton, &QPushButton::clicked, this, [this] {
        paths_.clear();
        pathList_->clear();
        refreshButtons();
    });
    connect(startButton_, &QPushButton::clicked, this, &ScanPage::start);
    connect(stopButton_, &QPushButton::clicked, this, &ScanPage::stop);
    connect(table_, &QTableWidget::currentCellChanged, this, &ScanPage::refreshButtons);
    connect(quarantineButton_, &QPushButton::clicked, this, [this] { quarantineRow(table_->currentRow()); });
    connect(trashButton_, &QPushButton::clicked, this, [this] { trashRow(table_->currentRow()); });
    connect(revealButton_, &QPushButton::clicked, this, [this] { revealRow(table_->currentRow()); });
    connect(quarantineAllButton_, &QPushButton::clicked, this, [this] {
        for (const int row : foundRowsInPlace())
            quarantineRow(row);
    });
    connect(trashAllButton_, &QPushButton::clicked, this, [this] {
        for (const int row : foundRowsInPlace())
            trashRow(row);
    });
    connect(revealAllButton_, &QPushButton::clicked, this, [this] {
        std::vector<std::string> paths;
        for (const Row& row : rows_)
            if (row.item.kind == OnDemandItem::Kind::Infected)
                paths.push_back(row.now.value_or(row.item.path));
        files_.revealFiles(paths);
    });
    connect(scheduleButton, &QPushButton::clicked, this, &ScanPage::applySchedule);
    connect(&context_.prefs, &PreferenceStore::changed, this, &ScanPage::refreshHandling);
    refreshHandling();
    refreshSchedule();
    refreshButtons();
}

ScanPage::~ScanPage()
{
    stop();
    if (worker_.joinable())
        worker_.join();
}

void ScanPage::addPaths(const std::vector<std::string>& paths)
{
    for (const std::string& path : paths) {
        if (path.empty() || std::find(paths_.begin(), paths_.end(), path) != paths_.end())
            continue;
        paths_.push_back(path);
        pathList_->addItem(shown(path));
    }
    refreshButtons();
}

bool ScanPage::start()
{
    if (scanning() || paths_.empty())
        return false;
    rows_.clear();
    table_->setRowCount(0);
    progress_.reset();
    progressBar_->setRange(0, 0);
    summaryLabel_->clear();
    currentLabel_->setText(tr("Starting the scanning engine…"));
    timeLabel_->clear();
    started_.start();
    clock_->start();
    context_.tell(QString(), false);

    mailbox_ = std::make_shared<Mailbox>();
    const std::string preferencesFolder = context_.prefs.pathOfDomain(kAgentDomain);
    OnDemandScan::Request request{paths_, subfoldersBox_->isChecked(), false, nullptr};
    // The engine is started here too, off the main thread: a clamd that is
    // launched takes a while to load its definitions.
    worker_ = std::thread([this, box = mailbox_, request = std::move(request),
                           folder = preferencesFolder.substr(0, preferencesFolder.rfind('/'))]() mutable {
        JsonPreferences preferences(kAgentDomain, folder);
        std::string problem;
        const std::unique_ptr<OnDemandEngine> engine = OnDemandEngine::start(preferences, &problem);
        if (!engine) {
            std::lock_guard<std::mutex> guard(box->mutex);
            box->problem = problem;
            box->postLocked(this);
            return;
        }
        OnDemandScan scan(engine->parts());
        {
            std::lock_guard<std::mutex> guard(box->mutex);
            box->scan = &scan;
            if (box->stopped)
                scan.stop();
        }
        request.settings = engine->settings();
        const OnDemandScan::Observer observer{
            [this, &box](const OnDemandItem& item) {
                std::lock_guard<std::mutex> guard(box->mutex);
                box->items.push_back(item);
                box->postLocked(this);
            },
            [this, &box](const OnDemandProgress& progress) {
                std::lock_guard<std::mutex> guard(box->mutex);
                box->progress = progress;
                box->postLocked(this);
            },
        };
        const OnDemandSummary summary = scan.run(request, observer);
        std::lock_guard<std::mutex> guard(box->mutex);
        box->scan = nullptr;
        box->summary = summary;
        box->postLocked(this);
    });
    refreshButtons();
    return true;
}

void ScanPage::stop()
{
    if (!mailbox_)
        return;
    std::lock_guard<std::mutex> guard(mailbox_->mutex);
    mailbox_->stopped = true;
    if (mailbox_->scan)
        mailbox_->scan->stop();
}

void ScanPage::drain()
{
    // At most kDrainEveryMs apart, however fast the scan reports.
    if (lastDrain_.isValid() && lastDrain_.elapsed() < kDrainEveryMs) {
        if (!drainTimer_->isActive())
            drainTimer_->start(kDrainEveryMs - static_cast<int>(lastDrain_.elapsed()));
        return;
    }
    takeMail();
}

void ScanPage::takeMail()
{
    if (!mailbox_)
        return;
    lastDrain_.start();
    std::vector<OnDemandItem> items;
    std::optional<OnDemandProgress> progress;
    std::optional<OnDemandSummary> summary;
    std::optional<std::string> problem;
    {
        std::lock_guard<std::mutex> guard(mailbox_->mutex);
        items.swap(mailbox_->items);
        progress.swap(mailbox_->progress);
        summary = mailbox_->summary;
        problem = mailbox_->problem;
        mailbox_->posted = false;
    }
    for (const OnDemandItem& item : items)
        addRow(item);
    if (progress)
        showProgress(*progress);
    if (!summary && !problem)
        return;
    worker_.join();
    mailbox_.reset();
    if (problem) {
        end(tr("The scan could not start: %1").arg(QString::fromStdString(*problem)), true);
        return;
    }
    QString text = QString::fromStdString(summary->describe()) + QLatin1Char('.');
    if (summary->failure)
        end(tr("The scan ended early: %1. %2").arg(shown(*summary->failure), text), true);
    else if (summary->stopped)
        end(tr("Stopped: %1").arg(text), false);
    else if (summary->infected > 0)
        end(tr("Viruses found: %1").arg(text), true);
    else
        end(tr("No viruses found: %1").arg(text), false);
}

void ScanPage::showProgress(const OnDemandProgress& progress)
{
    progress_ = progress;
    progressBar_->setRange(0, static_cast<int>(std::min<std::uint64_t>(progress.total, INT_MAX)));
    progressBar_->setValue(static_cast<int>(std::min<std::uint64_t>(progress.done, INT_MAX)));
    progressBar_->setFormat(progress.walking ? tr("%v of %m+ files") : tr("%v of %m files"));
    if (!progress.file.empty()) {
        const QString file = shown(progress.file);
        currentLabel_->setText(currentLabel_->fontMetrics().elidedText(file, Qt::ElideMiddle, currentLabel_->width()));
        currentLabel_->setToolTip(plainToolTip(file));
    }
    const qint64 elapsed = started_.elapsed() / 1000;
    QString time = tr("%1 elapsed").arg(clockText(elapsed));
    // Time left is known once every file is counted.
    if (!progress.walking && progress.done > 0 && progress.total > progress.done) {
        const double perFile = static_cast<double>(started_.elapsed()) / 1000 / static_cast<double>(progress.done);
        time += tr(", about %1 left").arg(clockText(static_cast<qint64>(perFile * static_cast<double>(progress.total - progress.done)) + 1));
    }
    timeLabel_->setText(time);
}

void ScanPage::addRow(const OnDemandItem& item)
{
    rows_.push_back(Row{item, item.movedTo});
    table_->insertRow(table_->rowCount());
    refreshRow(table_->rowCount() - 1);
}

void ScanPage::refreshRow(int row)
{
    const Row& result = rows_[static_cast<size_t>(row)];
    const OnDemandItem& item = result.item;
    QString found;
    QString done;
    switch (item.kind) {
    case OnDemandItem::Kind::Infected:
        found = shown(item.detail);
        done = result.now               ? tr("Moved to %1").arg(shown(*result.now))
               : !item.notMoved.empty() ? tr("Not moved: %1").arg(shown(item.notMoved))
                                        : tr("Left where it is");
        break;
    case OnDemandItem::Kind::Unreadable:
        found = tr("Could not be read");
        done = shown(item.detail);
        break;
    case OnDemandItem::Kind::Skipped:
        found = tr("Skipped");
        done = shown(item.detail);
        break;
    }
    const QString texts[] = {shown(item.path), found, done};
    for (int column = 0; column < 3; ++column) {
        auto* cell = new QTableWidgetItem(texts[column]);
        cell->setToolTip(plainToolTip(texts[column]));
        if (item.kind == OnDemandItem::Kind::Infected)
            cell->setForeground(QColor(0xa8, 0x07, 0x1a));
        table_->setItem(row, column, cell);
    }
    refreshButtons();
}

std::vector<int> ScanPage::foundRowsInPlace() const
{
    std::vector<int> found;
    for (size_t row = 0; row < rows_.size(); ++row)
        if (rows_[row].item.kind == OnDemandItem::Kind::Infected && !rows_[row].now)
            found.push_back(static_cast<int>(row));
    return found;
}

void ScanPage::refreshButtons()
{
    const bool running = scanning();
    startButton_->setEnabled(!running && !paths_.empty());
    stopButton_->setEnabled(running);
    const int row = table_->currentRow();
    const bool valid = row >= 0 && row < static_cast<int>(rows_.size());
    const bool foundInPlace = valid && rows_[static_cast<size_t>(row)].item.kind == OnDemandItem::Kind::Infected &&
                              !rows_[static_cast<size_t>(row)].now;
    quarantineButton_->setEnabled(foundInPlace && !quarantineFolder_.empty());
    trashButton_->setEnabled(foundInPlace);
    revealButton_->setEnabled(valid);
    const bool anyInPlace = !foundRowsInPlace().empty();
    quarantineAllButton_->setEnabled(anyInPlace && !quarantineFolder_.empty());
    trashAllButton_->setEnabled(anyInPlace);
    revealAllButton_->setEnabled(std::any_of(rows_.begin(), rows_.end(), [](const Row& result) {
        return result.item.kind == OnDemandItem::Kind::Infected;
    }));
    const QString noFolder = tr("No quarantine folder can be used: choose one on the When a Virus Is Found page.");
    quarantineButton_->setToolTip(quarantineFolder_.empty() ? noFolder : QString());
    quarantineAllButton_->setToolTip(quarantineFolder_.empty() ? noFolder : QString());
}

void ScanPage::refreshHandling()
{
    const std::string file = context_.prefs.pathOfDomain(kAgentDomain);
    JsonPreferences preferences(kAgentDomain, file.substr(0, file.rfind('/')));
    preferences.addSuite(kMainAppDomain);
    preferences.synchronize();
    const std::shared_ptr<const Settings> settings = Settings::load(preferences);
    const std::string& folder = settings->quarantineFolder;
    quarantineFolder_ = !folder.empty() && whyQuarantineFolderRefused(folder).empty() ? folder : std::string();
    QString text;
    if (settings->quarantines())
        text = tr("Infected files are moved to the quarantine folder %1.").arg(shown(folder));
    else if (settings->trashes())
        text = tr("Infected files are moved to the Trash.");
    else
        text = tr("Infected files are left where they are (warn only); you can move them below.");
    handlingLabel_->setText(text + QLatin1Char(' ') + tr("The When a Virus Is Found page changes this."));
    refreshButtons();
}

bool ScanPage::quarantineRow(int row)
{
    if (row < 0 || row >= static_cast<int>(rows_.size()) || quarantineFolder_.empty())
        return false;
    Row& result = rows_[static_cast<size_t>(row)];
    if (result.item.kind != OnDemandItem::Kind::Infected || result.now)
        return false;
    const std::string& path = result.item.path;
    // Only the file the scan found is moved: reached through folders none
    // of which is a link now (someone may have swapped one since), opened
    // without following a link or waiting, and still the same file.
    std::string why;
    std::optional<std::string> moved;
    const std::optional<WalkedFile> at = walkToFile(path, &why);
    const int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const UniqueFd file(at ? ::openat(at->folder.get(), at->name.c_str(), flags) : -1);
    struct stat info{};
    if (!at) {
        // why says which folder on the way is gone or a link.
    } else if (!file || ::fstat(file.get(), &info) != 0) {
        why = std::strerror(errno);
    } else if (!S_ISREG(info.st_mode)) {
        why = "it is no longer a regular file";
    } else if (std::pair(info.st_dev, info.st_ino) != result.item.found) {
        why = "it is no longer the file the scan found";
    } else if (!makeDirectories(quarantineFolder_, 0700)) {
        why = quarantineFolder_ + ": " + std::strerror(errno);
    } else {
        moved = moveScannedFile(at->folder.get(), at->name, file.get(), quarantineFolder_, &why);
    }
    if (!moved) {
        context_.tell(tr("%1 was not moved to the quarantine folder: %2").arg(shown(path), shown(why)), true);
        return false;
    }
    std::string error;
    if (!recordMove(path, *moved, result.item.detail, false, &error))
        nsLogf("Can't record the move of %s in the quarantine index: %s", displayText(path).c_str(), error.c_str());
    ScanLogFile(context_.scanLogPath)
        .append(ScanResult{path, ScanResult::Verdict::Infected, result.item.detail, moved}.movedLogLine());
    result.now = moved;
    refreshRow(row);
    context_.tell(tr("%1 is in the quarantine folder now.").arg(shown(path)), false);
    return true;
}

bool ScanPage::trashRow(int row)
{
    if (row < 0 || row >= static_cast<int>(rows_.size()))
        return false;
    Row& result = rows_[static_cast<size_t>(row)];
    if (result.item.kind != OnDemandItem::Kind::Infected || result.now)
        return false;
    std::string why;
    const std::optional<std::string> moved = files_.recycleFile(result.item.path, result.item.found, &why);
    if (!moved) {
        context_.tell(tr("%1 was not moved to the Trash: %2").arg(shown(result.item.path), shown(why)), true);
        return false;
    }
    result.now = moved;
    refreshRow(row);
    context_.tell(tr("%1 is in the Trash now.").arg(shown(result.item.path)), false);
    return true;
}

void ScanPage::revealRow(int row)
{
    if (row >= 0 && row < static_cast<int>(rows_.size()))
        files_.revealFiles({rows_[static_cast<size_t>(row)].now.value_or(rows_[static_cast<size_t>(row)].item.path)});
}

void ScanPage::end(const QString& text, bool problem)
{
    clock_->stop();
    if (progress_)
        showProgress(*progress_);
    progressBar_->setRange(0, std::max(progressBar_->maximum(), 1));
    currentLabel_->clear();
    summaryLabel_->setText(text);
    summaryLabel_->setStyleSheet(problem ? QStringLiteral("color: #a8071a; font-weight: bold") : QString());
    refreshButtons();
    Q_EMIT finished();
}

void ScanPage::refreshSchedule()
{
    const std::optional<ScanSchedule> schedule = ScheduledScanUnits().current();
    scheduleBox_->setCurrentIndex(!schedule ? 0 : schedule->every == ScanSchedule::Every::Day ? 1 : 2);
    scheduleTime_->setTime(schedule ? QTime(schedule->hour, schedule->minute) : QTime(12, 30));
}

void ScanPage::applySchedule()
{
    if (!ScheduledScanUnits::userManagerRuns()) {
        context_.tell(tr("No systemd instance of yours answers here (systemctl --user), so nothing can be scheduled; "
                         "nothing was changed."),
                      true);
        refreshSchedule();
        return;
    }
    const ScheduledScanUnits units;
    std::string error;
    if (scheduleBox_->currentIndex() == 0) {
        bool removed = false;
        if (units.turnOff(&removed, &error))
            context_.tell(removed ? tr("The scheduled scan is off.") : tr("No scan was scheduled."), false);
        else
            context_.tell(QString::fromStdString(error), true);
        refreshSchedule();
        return;
    }
    const std::string file = context_.prefs.pathOfDomain(kAgentDomain);
    JsonPreferences preferences(kAgentDomain, file.substr(0, file.rfind('/')));
    preferences.addSuite(kMainAppDomain);
    preferences.synchronize();
    ScanSchedule schedule;
    schedule.every = scheduleBox_->currentIndex() == 1 ? ScanSchedule::Every::Day : ScanSchedule::Every::Week;
    schedule.hour = scheduleTime_->time().hour();
    schedule.minute = scheduleTime_->time().minute();
    schedule.folders = ScheduledScanUnits::defaultFolders(*Settings::load(preferences));
    // The velgarctl installed beside this program runs the scheduled scan.
    const std::string velgarctl = QFile::encodeName(QCoreApplication::applicationDirPath()).toStdString() + "/velgarctl";
    if (!units.turnOn(schedule, velgarctl, &error)) {
        context_.tell(QString::fromStdString(error), true);
        refreshSchedule();
        return;
    }
    QString folders;
    for (const std::string& folder : schedule.folders)
        folders += (folders.isEmpty() ? QString() : QStringLiteral(", ")) + shown(folder);
    context_.tell(tr("Scheduled: %1 at %2, scanning %3.")
                      .arg(schedule.every == ScanSchedule::Every::Day ? tr("every day") : tr("every Monday"),
                           scheduleTime_->time().toString(QStringLiteral("HH:mm")), folders),
                  false);
}

std::optional<std::string> ScanPage::localPath(const QUrl& url)
{
    if (!url.isLocalFile() || !url.host().isEmpty())
        return std::nullopt;
    // The encoded form keeps each byte that is not UTF-8 as %XX, which
    // toLocalFile() would turn into a replacement character.
    const QByteArray bytes = QByteArray::fromPercentEncoding(url.path(QUrl::FullyEncoded).toLatin1());
    if (bytes.isEmpty() || bytes.contains('\0'))
        return std::nullopt;
    return bytes.toStdString();
}

std::vector<std::string> ScanPage::pathsFromArguments(const QStringList& positional,
                                                      const std::vector<std::string>& rawArguments)
{
    std::vector<std::string> paths;
    size_t next = 0;
    std::string here;
    for (const QString& argument : positional) {
        // The raw argument Qt decoded to this text, the next one in order:
        // two raw arguments decode alike only when both are the same valid
        // text, or both hold bytes that are not UTF-8, which only paths do.
        std::string bytes = QFile::encodeName(argument).toStdString();
        for (size_t at = next; at < rawArguments.size(); ++at) {
            if (QFile::decodeName(QByteArray::fromStdString(rawArguments[at])) == argument) {
                bytes = rawArguments[at];
                next = at + 1;
                break;
            }
        }
        if (bytes.starts_with("file:")) {
            if (const std::optional<std::string> local = localPath(QUrl::fromEncoded(QByteArray::fromStdString(bytes))))
                paths.push_back(*local);
            continue;
        }
        if (bytes.empty())
            continue;
        if (!bytes.starts_with('/')) {
            if (here.empty()) {
                char buffer[PATH_MAX];
                here = ::getcwd(buffer, sizeof buffer) ? buffer : "/";
            }
            bytes = joinPath(here, bytes);
        }
        paths.push_back(bytes);
    }
    return paths;
}

} // namespace kv
