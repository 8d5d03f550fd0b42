#include "korvane/DefinitionsPage.h"
#include "korvane/PlainText.h"

#include "korvane/PageContext.h"
#include "korvane/PreferenceStore.h"
#include "platform/Paths.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLocale>
#include <QPlainTextEdit>
#include <QProcess>
#include <QProgressBar>
#include <QPushButton>
#include <QRegularExpression>
#include <QTextCursor>
#include <QVBoxLayout>

namespace kv {
namespace {

// The newest signature file of the folder, by its time of change.
QDateTime newestDefinitions(const std::string& folder)
{
    QDateTime newest;
    const QDir dir(QString::fromStdString(folder));
    const QStringList kinds{QStringLiteral("*.cvd"), QStringLiteral("*.cld"), QStringLiteral("*.cud"),
                            QStringLiteral("*.ndb"), QStringLiteral("*.hdb"), QStringLiteral("*.ldb")};
    for (const QFileInfo& file : dir.entryInfoList(kinds, QDir::Files))
        if (!newest.isValid() || file.lastModified() > newest)
            newest = file.lastModified();
    return newest;
}

QString lastLines(const QString& path, int count)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    constexpr qint64 kTail = 64 * 1024;
    if (file.size() > kTail)
        file.seek(file.size() - kTail);
    QStringList lines = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'));
    if (lines.size() > count)
        lines = lines.mid(lines.size() - count);
    return lines.join(QLatin1Char('\n'));
}

} // namespace

DefinitionsPage::DefinitionsPage(PageContext& context, QWidget* parent) : QWidget(parent), context_(context)
{
    auto* layout = new QVBoxLayout(this);
    auto* facts = new QFormLayout;
    lastUpdated_ = plainLabel(this);
    lastUpdated_->setObjectName("lastUpdated");
    version_ = plainLabel(this);
    version_->setObjectName("definitionsVersion");
    version_->setWordWrap(true);
    facts->addRow(tr("Last updated:"), lastUpdated_);
    facts->addRow(tr("Version:"), version_);
    warning_ = plainLabel(this);
    warning_->setObjectName("definitionsWarning");
    warning_->setWordWrap(true);
    warning_->setStyleSheet(QStringLiteral("color: #b00020"));
    facts->addRow(warning_);

    auto* row = new QHBoxLayout;
    updateButton_ = new QPushButton(tr("Update Now"), this);
    updateButton_->setObjectName("updateNowButton");
    progress_ = new QProgressBar(this);
    progress_->setRange(0, 0);
    progress_->setVisible(false);
    row->addWidget(updateButton_);
    row->addWidget(progress_, 1);
    row->addStretch();
    outcome_ = plainLabel(this);
    outcome_->setObjectName("updateOutcome");
    outcome_->setWordWrap(true);
    outcome_->setTextInteractionFlags(Qt::TextSelectableByMouse);

    log_ = new QPlainTextEdit(this);
    log_->setObjectName("updateLog");
    log_->setReadOnly(true);
    log_->setLineWrapMode(QPlainTextEdit::NoWrap);
    log_->setMaximumBlockCount(400);

    layout->addLayout(facts);
    layout->addLayout(row);
    layout->addWidget(outcome_);
    layout->addWidget(new QLabel(tr("Update log:"), this));
    layout->addWidget(log_, 1);

    connect(updateButton_, &QPushButton::clicked, this, [this] { updateNow(); });
    connect(&context_.prefs, &PreferenceStore::changed, this, &DefinitionsPage::refresh);
    refresh();
}

DefinitionsPage::~DefinitionsPage()
{
    if (updater_ && updater_->state() != QProcess::NotRunning) {
        updater_->kill();
        updater_->waitForFinished(2000);
    }
}

bool DefinitionsPage::updating() const { return updater_ && updater_->state() != QProcess::NotRunning; }

void DefinitionsPage::refresh()
{
    engine_ = EngineDescription::of(expandTilde(context_.prefs.string(QStringLiteral("PathToClamav")).toStdString()));
    const QDateTime newest = engine_.databaseFolder.empty() ? QDateTime() : newestDefinitions(engine_.databaseFolder);
    warning_->setText(engine_.definitionsProblem());
    warning_->setVisible(!warning_->text().isEmpty());
    lastUpdated_->setText(newest.isValid() ? QLocale().toString(newest, QLocale::LongFormat)
                                           : tr("No definitions found"));
    updateButton_->setEnabled(!updating() && engine_.kind != EngineDescription::Kind::NotSetUp);
    version_->setText(tr("Asking the engine…"));
    versionQuestion_.ask(this, engine_, [this](const EngineAnswer& answer) {
        if (const std::optional<DefinitionsVersion> version = parseVersion(answer.version))
            version_->setText(
                tr("%1 (definitions of %2), engine %3").arg(version->version, version->date, version->engine));
        else if (answer.answers)
            // A database of local signature files only carries no version.
            version_->setText(tr("%1, with no versioned definitions").arg(answer.version));
        else
            version_->setText(tr("Unknown: the engine does not answer (%1)").arg(answer.problem));
    });
    showLog();
}

void DefinitionsPage::showLog()
{
    const QString path = context_.prefs.string(QStringLiteral("PathToUpdateLog"));
    const QString file = QString::fromStdString(expandTilde(path.toStdString()));
    const QString text = path.isEmpty() ? QString() : lastLines(file, 200);
    if (path.isEmpty())
        log_->setPlainText(tr("No update log is set; choose one on the Advanced page."));
    else if (text.trimmed().isEmpty())
        log_->setPlainText(tr("Nothing has been written to the update log %1 yet.").arg(file));
    else
        log_->setPlainText(text);
    log_->moveCursor(QTextCursor::End);
}

bool DefinitionsPage::updateNow()
{
    if (updating())
        return false;
    const QString program = QString::fromStdString(engine_.freshclam());
    if (engine_.kind == EngineDescription::Kind::NotSetUp || !QFileInfo(program).isExecutable()) {
        outcome_->setText(tr("There is no updater to run: %1").arg(engine_.kind == EngineDescription::Kind::NotSetUp
                                                                      ? engine_.problem
                                                                      : tr("%1 cannot be run.").arg(program)));
        return false;
    }
    QStringList arguments;
    const QString log = context_.prefs.string(QStringLiteral("PathToUpdateLog"));
    if (!log.isEmpty())
        arguments << QStringLiteral("--log=") + QString::fromStdString(expandTilde(log.toStdString()));
    updater_ = new QProcess(this);
    updater_->setProcessChannelMode(QProcess::MergedChannels);
    updaterOutput_.clear();
    connect(updater_, &QProcess::readyRead, this, [this] {
        const QString chunk = QString::fromUtf8(updater_->readAll());
        updaterOutput_ += chunk;
        const QStringList lines = updaterOutput_.trimmed().split(QLatin1Char('\n'));
        outcome_->setText(lines.last().trimmed());
    });
    connect(updater_, &QProcess::finished, this, [this](int exitCode, QProcess::ExitStatus status) {
        finishUpdate(exitCode, status == QProcess::CrashExit);
    });
    connect(updater_, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart)
            finishUpdate(-1, true);
    });
    updateButton_->setEnabled(false);
    progress_->setVisible(true);
    outcome_->setText(tr("Updating the definitions…"));
    updater_->start(program, arguments);
    return true;
}

void DefinitionsPage::finishUpdate(int exitCode, bool crashed)
{
    progress_->setVisible(false);
    const QString lastLine = updaterOutput_.trimmed().split(QLatin1Char('\n')).last().trimmed();
    bool succeeded = !crashed && exitCode == 0;
    if (succeeded && updaterOutput_.contains(QLatin1String("is up-to-date")) &&
        !updaterOutput_.contains(QLatin1String("updated (version")))
        outcome_->setText(tr("The definitions were already up to date."));
    else if (succeeded)
        outcome_->setText(tr("The definitions were updated."));
    else if (crashed)
        outcome_->setText(tr("The updater could not run to its end. %1").arg(lastLine));
    else if (const QRegularExpression unreachable(
                 QStringLiteral("Can't query|Couldn't resolve|Can't connect|Could not connect|Can't download|"
                                "Connection refused|timed out|Network is unreachable"),
                 QRegularExpression::CaseInsensitiveOption);
             unreachable.match(updaterOutput_).hasMatch())
        outcome_->setText(tr("The update failed: the definitions server could not be reached. Check the internet "
                             "connection, then try again. (The updater said: %1)")
                              .arg(lastLine));
    else
        outcome_->setText(tr("The update failed (the updater ended with status %1): %2")
                              .arg(exitCode)
                              .arg(lastLine.isEmpty() ? tr("it said nothing") : lastLine));
    updater_->deleteLater();
    updater_ = nullptr;
    refresh();
    Q_EMIT updateFinished(succeeded);
}

} // namespace kv
