#include "korvane/AdvancedPage.h"

#include "korvane/PageContext.h"
#include "korvane/PreferenceStore.h"
#include "platform/Paths.h"

#include <QCheckBox>
#include <QDir>
#include <QFileInfo>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>

namespace kv {
namespace {

constexpr int kDefaultRotationKilobytes = 5120;

QString expanded(const QString& path)
{
    return QDir::cleanPath(QString::fromStdString(expandTilde(path.trimmed().toStdString())));
}

} // namespace

AdvancedPage::AdvancedPage(PageContext& context, QWidget* parent) : QWidget(parent), context_(context)
{
    auto* layout = new QFormLayout(this);
    auto withChooser = [this](QLineEdit* edit, const char* name, const QString& title) {
        auto* row = new QHBoxLayout;
        auto* button = new QPushButton(tr("Choose…"), this);
        button->setObjectName(name);
        row->addWidget(edit);
        row->addWidget(button);
        connect(button, &QPushButton::clicked, this, [this, edit, title] {
            const QString chosen = context_.chooseFolder(title, edit->text());
            if (!chosen.isEmpty()) {
                edit->setText(chosen);
                edit->setModified(true);
                Q_EMIT edit->editingFinished();
            }
        });
        return row;
    };
    prefixEdit_ = new QLineEdit(this);
    prefixEdit_->setObjectName("enginePrefixEdit");
    updateLogEdit_ = new QLineEdit(this);
    updateLogEdit_->setObjectName("updateLogEdit");
    multiscanBox_ = new QCheckBox(tr("Scan several files at once, with every processor core"), this);
    multiscanBox_->setObjectName("multiscanBox");
    updateAtLaunchBox_ = new QCheckBox(tr("Update the definitions whenever protection starts"), this);
    updateAtLaunchBox_->setObjectName("updateAtLaunchBox");
    rotationSpin_ = new QSpinBox(this);
    rotationSpin_->setObjectName("rotationSpin");
    rotationSpin_->setRange(64, 1024 * 1024);
    rotationSpin_->setSuffix(tr(" kB"));

    layout->addRow(tr("Engine installation:"), withChooser(prefixEdit_, "choosePrefixButton", tr("Choose the Engine")));
    auto* prefixNote = new QLabel(tr("The folder “velgarctl setup” built: bin/clamdscan, sbin/clamd, bin/freshclam and "
                                     "etc/clamd.conf."),
                                  this);
    prefixNote->setWordWrap(true);
    layout->addRow(QString(), prefixNote);
    layout->addRow(QString(), multiscanBox_);
    layout->addRow(tr("Start a new scan log at:"), rotationSpin_);
    layout->addRow(tr("Update log:"), withChooser(updateLogEdit_, "chooseUpdateLogButton", tr("Choose the Update Log")));
    layout->addRow(QString(), updateAtLaunchBox_);

    connect(prefixEdit_, &QLineEdit::editingFinished, this, [this] {
        if (!filling_ && prefixEdit_->isModified())
            setEnginePrefix(prefixEdit_->text());
    });
    connect(updateLogEdit_, &QLineEdit::editingFinished, this, [this] {
        if (!filling_ && updateLogEdit_->isModified())
            setUpdateLog(updateLogEdit_->text());
    });
    connect(multiscanBox_, &QCheckBox::toggled, this, [this](bool on) {
        // The agent turns it on for the exact text "yes" only.
        if (!filling_ && !context_.change(QStringLiteral("multiscan"), on ? QStringLiteral("yes") : QStringLiteral("no")))
            refresh();
    });
    connect(updateAtLaunchBox_, &QCheckBox::toggled, this, [this](bool on) {
        if (!filling_ && !context_.change(QStringLiteral("UpdateDefsOnLaunch"), on))
            refresh();
    });
    connect(rotationSpin_, &QSpinBox::editingFinished, this, [this] {
        if (!filling_ && !context_.change(QStringLiteral("rotateScanlogWhenSizeReaches"), rotationSpin_->value()))
            refresh();
    });
    connect(&context_.prefs, &PreferenceStore::changed, this, &AdvancedPage::refresh);
    refresh();
}

void AdvancedPage::refresh()
{
    filling_ = true;
    const PreferenceStore& prefs = context_.prefs;
    prefixEdit_->setText(prefs.string(QStringLiteral("PathToClamav")));
    updateLogEdit_->setText(prefs.string(QStringLiteral("PathToUpdateLog")));
    multiscanBox_->setChecked(prefs.string(QStringLiteral("multiscan")) == QLatin1String("yes"));
    updateAtLaunchBox_->setChecked(prefs.boolean(QStringLiteral("UpdateDefsOnLaunch")));
    const QJsonValue size = prefs.value(QStringLiteral("rotateScanlogWhenSizeReaches"));
    rotationSpin_->setValue(size.isDouble() && size.toInt() > 0 ? size.toInt() : kDefaultRotationKilobytes);
    filling_ = false;
}

bool AdvancedPage::setEnginePrefix(const QString& text)
{
    const QString prefix = expanded(text);
    if (!QFileInfo(prefix + QStringLiteral("/bin/clamdscan")).isExecutable() ||
        !QFileInfo::exists(prefix + QStringLiteral("/etc/clamd.conf"))) {
        context_.tell(tr("%1 holds no engine (bin/clamdscan and etc/clamd.conf); the engine stays %2. "
                         "“velgarctl setup --prefix %1” builds one there.")
                          .arg(prefix, context_.prefs.string(QStringLiteral("PathToClamav"))),
                      true);
        refresh();
        return false;
    }
    const bool done = context_.change(QStringLiteral("PathToClamav"), prefix);
    refresh();
    return done;
}

bool AdvancedPage::setUpdateLog(const QString& text)
{
    const QString path = expanded(text);
    const QFileInfo file(path);
    if (!path.startsWith(QLatin1Char('/')) || file.isDir() || !file.dir().exists()) {
        context_.tell(tr("The update log must be a file in a folder that exists; %1 is not. The update log stays %2.")
                          .arg(path, context_.prefs.string(QStringLiteral("PathToUpdateLog"))),
                      true);
        refresh();
        return false;
    }
    const bool done = context_.change(QStringLiteral("PathToUpdateLog"), path);
    refresh();
    return done;
}

} // namespace kv
