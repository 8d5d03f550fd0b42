#include "korvane/WhenFoundPage.h"

#include "korvane/PageContext.h"
#include "korvane/PreferenceStore.h"
#include "platform/Paths.h"
#include "platform/UserControlled.h"

#include <QButtonGroup>
#include <QCheckBox>
#include <QDir>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QJsonObject>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QVBoxLayout>

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace kv {
namespace {

// Makes the folder and any missing parents; the last one private to the
// user, like the agent makes it. Empty when the agent will use it, else why
// not: the agent's own check (whyQuarantineFolderRefused()), made before
// anything is made, so nothing is made where others could reach it, and
// again on what is there afterwards.
QString makeQuarantineFolder(const std::string& folder)
{
    if (folder.empty() || folder.front() != '/')
        return QObject::tr("a quarantine folder must be a full path");
    if (const std::string why = whyQuarantineFolderRefused(folder); !why.empty())
        return QString::fromStdString(why);
    struct stat status {};
    if (::lstat(folder.c_str(), &status) != 0) {
        const size_t slash = folder.rfind('/');
        if (slash > 0 && !makeDirectories(folder.substr(0, slash), 0755))
            return QObject::tr("its parent folder cannot be created: %1").arg(QString::fromLocal8Bit(std::strerror(errno)));
        if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST)
            return QString::fromLocal8Bit(std::strerror(errno));
    }
    return QString::fromStdString(whyQuarantineFolderRefused(folder));
}

} // namespace

WhenFoundPage::WhenFoundPage(PageContext& context, QWidget* parent) : QWidget(parent), context_(context)
{
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(new QLabel(tr("When a new file holds a virus:"), this));
    warnButton_ = new QRadioButton(tr("Leave it where it is, and warn me"), this);
    warnButton_->setObjectName("warnButton");
    trashButton_ = new QRadioButton(tr("Move it to the Trash"), this);
    trashButton_->setObjectName("trashButton");
    quarantineButton_ = new QRadioButton(tr("Move it to a quarantine folder:"), this);
    quarantineButton_->setObjectName("quarantineButton");
    auto* group = new QButtonGroup(this);
    for (QRadioButton* button : {warnButton_, trashButton_, quarantineButton_})
        group->addButton(button);

    auto* folderRow = new QHBoxLayout;
    folderEdit_ = new QLineEdit(this);
    folderEdit_->setObjectName("quarantineFolderEdit");
    auto* chooseButton = new QPushButton(tr("Choose…"), this);
    chooseButton->setObjectName("chooseQuarantineButton");
    folderRow->addSpacing(24);
    folderRow->addWidget(folderEdit_);
    folderRow->addWidget(chooseButton);

    auto* note = new QLabel(tr("Files the agent moves to the Trash or the quarantine folder are listed on the Quarantine "
                               "page, where you can put them back or delete them for good."),
                            this);
    note->setWordWrap(true);
    dialogsBox_ = new QCheckBox(tr("Show a window for each infected file"), this);
    dialogsBox_->setObjectName("dialogsBox");

    layout->addWidget(warnButton_);
    layout->addWidget(trashButton_);
    layout->addWidget(quarantineButton_);
    layout->addLayout(folderRow);
    layout->addSpacing(12);
    layout->addWidget(note);
    layout->addWidget(dialogsBox_);
    layout->addStretch();

    connect(warnButton_, &QRadioButton::clicked, this, [this] { choose(Choice::Warn); });
    connect(trashButton_, &QRadioButton::clicked, this, [this] { choose(Choice::Trash); });
    connect(quarantineButton_, &QRadioButton::clicked, this, [this] { choose(Choice::Quarantine, folderEdit_->text()); });
    connect(folderEdit_, &QLineEdit::editingFinished, this, [this] {
        if (!filling_ && quarantineButton_->isChecked() && folderEdit_->isModified())
            choose(Choice::Quarantine, folderEdit_->text());
    });
    connect(chooseButton, &QPushButton::clicked, this, [this] {
        const QString chosen = context_.chooseFolder(tr("Choose the Quarantine Folder"), folderEdit_->text());
        if (!chosen.isEmpty())
            choose(Choice::Quarantine, chosen);
    });
    connect(dialogsBox_, &QCheckBox::toggled, this, [this](bool on) {
        if (!filling_ && !context_.change(QStringLiteral("SuppressInfoDialogs"), !on))
            refresh();
    });
    connect(&context_.prefs, &PreferenceStore::changed, this, &WhenFoundPage::refresh);
    refresh();
}

QString WhenFoundPage::defaultQuarantineFolder() const
{
    return QString::fromStdString(joinPath(context_.homeDirectory, "Quarantine"));
}

void WhenFoundPage::refresh()
{
    filling_ = true;
    const PreferenceStore& prefs = context_.prefs;
    if (prefs.boolean(QStringLiteral("VelgarQuarantineFiles")))
        quarantineButton_->setChecked(true);
    else if (prefs.boolean(QStringLiteral("VelgarTrashFiles")))
        trashButton_->setChecked(true);
    else
        warnButton_->setChecked(true);
    QJsonValue folder = prefs.value(QStringLiteral("QuarantineFolder"));
    if (folder.isObject())
        folder = folder.toObject().value(QStringLiteral("path"));
    folderEdit_->setText(folder.isString() && !folder.toString().isEmpty() ? folder.toString()
                                                                            : defaultQuarantineFolder());
    dialogsBox_->setChecked(!prefs.boolean(QStringLiteral("SuppressInfoDialogs")));
    filling_ = false;
}

bool WhenFoundPage::choose(Choice choice, const QString& quarantineFolder)
{
    if (choice == Choice::Quarantine) {
        const QString folder = QDir::cleanPath(QString::fromStdString(expandTilde(quarantineFolder.trimmed().toStdString())));
        if (const QString why = makeQuarantineFolder(folder.toStdString()); !why.isEmpty()) {
            context_.tell(tr("The quarantine folder %1 cannot be used: %2. Nothing was changed.").arg(folder, why), true);
            refresh();
            return false;
        }
        if (!context_.change(QStringLiteral("QuarantineFolder"), folder)) {
            refresh();
            return false;
        }
    }
    const bool done = context_.change(QStringLiteral("VelgarQuarantineFiles"), choice == Choice::Quarantine) &&
                      context_.change(QStringLiteral("VelgarTrashFiles"), choice == Choice::Trash);
    refresh();
    return done;
}

} // namespace kv
