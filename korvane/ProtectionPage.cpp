#include "korvane/ProtectionPage.h"
#include "korvane/PlainText.h"

#include "korvane/AgentLink.h"
#include "korvane/PageContext.h"
#include "korvane/PreferenceStore.h"
#include "platform/AutostartEntry.h"
#include "platform/BusContract.h"
#include "platform/Paths.h"
#include "platform/Preferences.h"
#include "platform/Settings.h"

#include <QCheckBox>
#include <QCoreApplication>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QJsonObject>
#include <QLabel>
#include <QPushButton>
#include <QTimer>
#include <QVBoxLayout>

namespace kv {
namespace {

// The preferences as the agent's load reads them, so the page shows what
// the agent will make of them.
class StoreAsPreferences : public Preferences {
public:
    explicit StoreAsPreferences(const PreferenceStore& store) : store_(store) {}
    void addSuite(const std::string&) override {}
    void synchronize() override {}
    std::optional<QJsonValue> object(const std::string& key) const override
    {
        const QJsonValue value = store_.value(QString::fromStdString(key));
        return value.isUndefined() || value.isNull() ? std::nullopt : std::optional<QJsonValue>(value);
    }

private:
    const PreferenceStore& store_;
};

} // namespace

ProtectionPage::ProtectionPage(PageContext& context, QWidget* parent) : QWidget(parent), context_(context)
{
    auto* layout = new QVBoxLayout(this);

    auto* agentBox = new QGroupBox(tr("Protection"), this);
    auto* agentLayout = new QVBoxLayout(agentBox);
    agentState_ = plainLabel(agentBox);
    agentState_->setObjectName("agentState");
    QFont big = agentState_->font();
    big.setPointSizeF(big.pointSizeF() * 1.3);
    big.setBold(true);
    agentState_->setFont(big);
    foldersState_ = plainLabel(agentBox);
    foldersState_->setWordWrap(true);
    auto* buttons = new QHBoxLayout;
    startButton_ = new QPushButton(tr("Start Protection"), agentBox);
    startButton_->setObjectName("startButton");
    stopButton_ = new QPushButton(tr("Stop Protection"), agentBox);
    stopButton_->setObjectName("stopButton");
    restartButton_ = new QPushButton(tr("Restart Watching"), agentBox);
    restartButton_->setObjectName("restartButton");
    buttons->addWidget(startButton_);
    buttons->addWidget(stopButton_);
    buttons->addWidget(restartButton_);
    buttons->addStretch();
    loginBox_ = new QCheckBox(tr("Start protection when I log in"), agentBox);
    loginBox_->setObjectName("loginBox");
    agentLayout->addWidget(agentState_);
    agentLayout->addWidget(foldersState_);
    agentLayout->addLayout(buttons);
    agentLayout->addWidget(loginBox_);
    holdBox_ = new QCheckBox(tr("Keep new files closed until they are scanned"), agentBox);
    holdBox_->setObjectName("holdBox");
    holdBox_->setToolTip(tr("A program that opens or runs a new file in a folder of yours waits for its verdict, "
                            "a few seconds at most: an infected file cannot be opened at all."));
    preventionState_ = plainLabel(agentBox);
    preventionState_->setObjectName("preventionState");
    preventionState_->setWordWrap(true);
    agentLayout->addWidget(holdBox_);
    agentLayout->addWidget(preventionState_);

    auto* engineBox = new QGroupBox(tr("Scanning engine"), this);
    auto* engineLayout = new QFormLayout(engineBox);
    engineKind_ = plainLabel(engineBox);
    engineKind_->setObjectName("engineKind");
    engineKind_->setWordWrap(true);
    engineKind_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    engineAnswer_ = plainLabel(engineBox);
    engineAnswer_->setObjectName("engineAnswer");
    engineAnswer_->setWordWrap(true);
    definitionsWarning_ = plainLabel(engineBox);
    definitionsWarning_->setObjectName("definitionsWarning");
    definitionsWarning_->setWordWrap(true);
    definitionsWarning_->setStyleSheet(QStringLiteral("color: #b00020"));
    engineLayout->addRow(tr("Engine:"), engineKind_);
    engineLayout->addRow(tr("Answers:"), engineAnswer_);
    engineLayout->addRow(definitionsWarning_);

    problems_ = plainLabel(this);
    problems_->setObjectName("preferenceProblems");
    problems_->setWordWrap(true);
    problems_->setStyleSheet(QStringLiteral("color: #b00020"));

    layout->addWidget(agentBox);
    layout->addWidget(engineBox);
    layout->addWidget(problems_);
    layout->addStretch();

    connect(startButton_, &QPushButton::clicked, this, [this] {
        QString error;
        if (!context_.agent.start(&error))
            context_.tell(error, true);
    });
    connect(stopButton_, &QPushButton::clicked, this, [this] { context_.agent.quit(); });
    connect(restartButton_, &QPushButton::clicked, this, [this] { context_.agent.restartWatching(); });
    connect(loginBox_, &QCheckBox::toggled, this, [this](bool on) {
        const AutostartEntry entry;
        std::string error;
        bool removed = false;
        const bool done = on ? entry.install(context_.agent.agentProgram(), &error) : entry.remove(&removed, &error);
        if (!done) {
            context_.tell(tr("Could not change %1: %2")
                              .arg(QString::fromStdString(entry.path()), QString::fromStdString(error)),
                          true);
            const QSignalBlocker quiet(loginBox_);
            loginBox_->setChecked(entry.installed());
        }
    });
    connect(holdBox_, &QCheckBox::toggled, this, [this](bool on) {
        if (!context_.change(QStringLiteral("BlockUntilScanned"), on))
            refresh();
    });
    connect(&context_.agent, &AgentLink::stateChanged, this, [this] {
        showAgentState();
        showPrevention();
        // The engine is asked again when the agent starts or ends, not at
        // every batch it scans.
        if (context_.agent.running() != agentWasRunning_) {
            agentWasRunning_ = context_.agent.running();
            checkEngine();
        }
    });
    connect(&context_.prefs, &PreferenceStore::changed, this, &ProtectionPage::refresh);
    // The engine may stop or start answering at any time: asked again now
    // and then while the page is on screen.
    auto* poll = new QTimer(this);
    poll->setInterval(10000);
    connect(poll, &QTimer::timeout, this, [this] {
        if (!isVisible())
            return;
        checkEngine();
        showPrevention();
    });
    poll->start();
    refresh();
}

void ProtectionPage::refresh()
{
    {
        const QSignalBlocker quiet(loginBox_);
        loginBox_->setChecked(AutostartEntry().installed());
        const QSignalBlocker quietToo(holdBox_);
        holdBox_->setChecked(context_.prefs.boolean(QStringLiteral("BlockUntilScanned")));
    }
    // Besides files that cannot be read, what the agent's load refuses: an
    // engine folder or a quarantine folder others could change.
    QStringList problems = context_.prefs.problems();
    const std::shared_ptr<const Settings> settings = Settings::load(StoreAsPreferences(context_.prefs));
    for (const std::string& problem : settings->problems)
        problems << QString::fromStdString(problem);
    problems_->setText(problems.join(QLatin1Char('\n')));
    problems_->setVisible(!problems.isEmpty());
    engine_ = EngineDescription::of(expandTilde(context_.prefs.string(QStringLiteral("PathToClamav")).toStdString()));
    engineKind_->setText(engine_.describe());
    definitionsWarning_->setText(engine_.definitionsProblem());
    definitionsWarning_->setVisible(!definitionsWarning_->text().isEmpty());
    showAgentState();
    showPrevention();
    checkEngine();
}

void ProtectionPage::showPrevention()
{
    context_.agent.askPrevention(this, [this](const QString& answer) {
        const QStringList words = answer.split(QLatin1Char(' '));
        QString text;
        if (words.size() == 3 && words[0] == QLatin1String("on"))
            text = tr("New files stay closed until scanned: %1 opens waited for a verdict, %2 were refused, since "
                      "watching began.")
                       .arg(words[1], words[2]);
        else if (answer == QLatin1String("off"))
            text = tr("New files can be opened before they are scanned.");
        preventionState_->setText(text);
        preventionState_->setProperty("prevention", answer);
        preventionState_->setVisible(!text.isEmpty());
    });
}

void ProtectionPage::showAgentState()
{
    const AgentLink& agent = context_.agent;
    const QString& status = agent.status();
    QString state;
    if (!agent.running())
        state = tr("Not running: new files are not scanned");
    else if (status == QLatin1String(bus::kStatusScanning))
        state = tr("Scanning new files");
    else if (status == QLatin1String(bus::kStatusWatching))
        state = tr("Watching for new files");
    else if (status == QLatin1String(bus::kStatusStopped))
        state = tr("Running, but watching is stopped");
    else
        state = tr("Starting…");
    agentState_->setText(state);
    agentState_->setProperty("status", agent.running() ? status : QStringLiteral("not running"));

    int existing = 0, missing = 0;
    for (const QJsonValue& record : context_.prefs.array(QStringLiteral("VelgarFolderArray"))) {
        const QString path = record.toObject().value(QStringLiteral("pathName")).toString();
        (pathExists(expandTilde(path.toStdString())) ? existing : missing)++;
    }
    const int chosen = existing + missing;
    QString folders = chosen == 1 ? tr("1 folder chosen for watching.")
                                  : tr("%1 folders chosen for watching.").arg(chosen);
    if (missing)
        folders += QLatin1Char(' ') + (chosen == 1    ? tr("It does not exist.")
                                       : missing == 1 ? tr("1 of them does not exist.")
                                                      : tr("%1 of them do not exist.").arg(missing));
    if (chosen == 0)
        folders = tr("No folder is chosen for watching yet: add one on the Watched Folders page.");
    foldersState_->setText(folders);

    startButton_->setEnabled(!agent.running());
    stopButton_->setEnabled(agent.running());
    restartButton_->setEnabled(agent.running());
}

void ProtectionPage::checkEngine()
{
    engineAnswer_->setText(tr("Asking…"));
    engineQuestion_.ask(this, engine_, [this](const EngineAnswer& answer) {
        engineAnswer_->setProperty("answers", answer.answers);
        engineAnswer_->setText(answer.answers ? tr("Yes: %1").arg(answer.version) : tr("No: %1").arg(answer.problem));
    });
}

} // namespace kv
