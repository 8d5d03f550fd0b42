#include "ui/InfectionDialogs.h"

#include "platform/Log.h"
#include "platform/Workspace.h"
#include "ui/FileRemover.h"
#include "ui/FindingsSummary.h"
#include "ui/InterfaceLoader.h"

#include <QDialog>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QThread>
#include <QVBoxLayout>

#include <future>
#include <memory>

namespace kv {
namespace {

// Loads a dialog file whose top-level widget is the dialog itself.
QDialog* loadDialogFile(const std::string& folder, const char* fileName)
{
    InterfaceLoader loader;
    std::string error;
    std::unique_ptr<QWidget> root = loader.loadFile(folder, fileName, &error);
    auto* dialog = qobject_cast<QDialog*>(root.get());
    if (!dialog) {
        nsLogf("The dialog file %s did not load: %s", fileName, error.empty() ? "it holds no dialog" : error.c_str());
        return nullptr;
    }
    root.release();
    // Each finding has its own dialog; it is deleted once closed.
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    return dialog;
}

} // namespace

InfectionDialogs::InfectionDialogs(std::string resourcesFolder, Workspace& workspace, QObject* parent)
    : QObject(parent), resourcesFolder_(std::move(resourcesFolder)), workspace_(workspace)
{
}

template <typename Call>
bool InfectionDialogs::onMainThread(Call call)
{
    if (QThread::currentThread() == thread())
        return call();
    // The answer comes back through a promise, not a blocking queued call:
    // the main thread then never touches this thread's stack, and the
    // hand-over is one the thread sanitizer can see. A call that never runs
    // (the application is ending) breaks the promise: no dialog.
    auto answer = std::make_shared<std::promise<bool>>();
    std::future<bool> shown = answer->get_future();
    auto run = [call = std::move(call), answer]() mutable {
        try {
            answer->set_value(call());
        } catch (...) {
            answer->set_exception(std::current_exception());
        }
    };
    if (!QMetaObject::invokeMethod(this, std::move(run), Qt::QueuedConnection))
        return false;
    try {
        return shown.get();
    } catch (const std::exception& error) {
        nsLogf("A dialog could not be shown: %s", error.what());
        return false;
    }
}

void InfectionDialogs::orderFrontRegardless(QDialog* dialog)
{
    // Up and above the other windows, without taking the keyboard from what
    // the user is typing into.
    dialog->setAttribute(Qt::WA_ShowWithoutActivating);
    dialog->show();
    dialog->raise();
}

QDialog* InfectionDialogs::loadQuarantinedDialog(const std::string& ownerName)
{
    if (!quit_)
        return nullptr;
    QDialog* dialog = loadDialogFile(resourcesFolder_, "QuarantinedDialog.ui");
    if (!dialog)
        return nullptr;
    Owner& owner = owners_[ownerName];
    owner.outlets.theDialog = dialog;
    owner.outlets.theMessage = dialog->findChild<QLabel*>("theMessage");
    owner.outlets.deleteButton = dialog->findChild<QPushButton*>("deleteButton");
    if (auto* control = dialog->findChild<QPushButton*>("openQuarantineButton"))
        connect(control, &QPushButton::clicked, this, [this, ownerName] { openQuarantineFolder(ownerName); });
    return dialog;
}

bool InfectionDialogs::showQuarantinedDialog(const std::string& ownerName, const std::string& quarantineFolder)
{
    return onMainThread([this, ownerName, quarantineFolder] {
        QDialog* dialog = loadQuarantinedDialog(ownerName);
        if (!dialog)
            return false;
        owners_[ownerName].quarantineLocation = quarantineFolder;
        if (QPushButton* done = owners_[ownerName].outlets.deleteButton)
            connect(done, &QPushButton::clicked, dialog, &QDialog::close);
        orderFrontRegardless(dialog);
        return true;
    });
}

bool InfectionDialogs::showEngineUnreachableDialog(const std::string& /*ownerName*/, const std::string& message,
                                                   const std::string& quitTitle)
{
    return onMainThread([this, message, quitTitle] {
        if (!quit_)
            return false;
        auto* dialog = new QDialog;
        dialog->setObjectName("engineUnreachableDialog");
        dialog->setAttribute(Qt::WA_DeleteOnClose);
        const QString heading = tr("Korvane Velgar cannot reach its scanning engine");
        dialog->setWindowTitle(heading);
        dialog->setMinimumWidth(460);

        auto* headline = new QLabel(dialog);
        headline->setTextFormat(Qt::PlainText);
        headline->setText(heading);
        QFont bold = headline->font();
        bold.setBold(true);
        headline->setFont(bold);
        auto* theMessage = new QLabel(QString::fromStdString(message), dialog);
        theMessage->setObjectName("theMessage");
        theMessage->setTextFormat(Qt::PlainText);
        theMessage->setWordWrap(true);
        auto* advice = new QLabel(
            tr("Files cannot be scanned while the engine does not answer. It may still be starting, or it may have "
               "stopped. Run \"velgarctl setup\" to set it up again, check the engine settings in the Korvane "
               "application, and look in the update log for errors. This is shown once; you are told again only if "
               "the engine stops answering after it has come back."),
            dialog);
        advice->setObjectName("advice");
        advice->setTextFormat(Qt::PlainText);
        advice->setWordWrap(true);

        auto* close = new QPushButton(tr("Close"), dialog);
        close->setObjectName("closeButton");
        close->setDefault(true);
        auto* quit = new QPushButton(QString::fromStdString(quitTitle), dialog);
        quit->setObjectName("quitButton");
        quit->setAutoDefault(false);
        connect(close, &QPushButton::clicked, dialog, &QDialog::close);
        // Without its engine the agent cannot protect anything: quitting is
        // offered.
        connect(quit, &QPushButton::clicked, this, [this] { quit_(); });

        auto* buttons = new QHBoxLayout;
        buttons->addWidget(quit);
        buttons->addStretch();
        buttons->addWidget(close);
        auto* layout = new QVBoxLayout(dialog);
        layout->addWidget(headline);
        layout->addWidget(theMessage);
        layout->addWidget(advice);
        layout->addLayout(buttons);
        orderFrontRegardless(dialog);
        return true;
    });
}

bool InfectionDialogs::showWarningDialog(const std::string& ownerName, const std::string& outputLine,
                                         const std::string& foundPath)
{
    return onMainThread([this, ownerName, outputLine, foundPath] {
        if (!quit_)
            return false;
        std::erase_if(warningDialogs_, [](const QPointer<QDialog>& dialog) { return !dialog || !dialog->isVisible(); });
        // Past the cap (or while the summary is open, so findings keep their
        // order), a finding is one more line in the summary window.
        if (summary_ || int(warningDialogs_.size()) >= kMostWarningDialogs) {
            if (!summary_) {
                summary_ = new FindingsSummary(workspace_);
                orderFrontRegardless(summary_);
            }
            summary_->addFinding(outputLine, foundPath);
            return true;
        }
        QDialog* dialog = loadDialogFile(resourcesFolder_, "WarningDialog.ui");
        if (!dialog)
            return false;
        auto* message = dialog->findChild<QLabel*>("theMessage");
        if (message) {
            // A file name is no markup: "<img src=...>" stays text.
            message->setTextFormat(Qt::PlainText);
            message->setText(QString::fromStdString(outputLine));
        }
        Owner& owner = owners_[ownerName];
        owner.outlets.theDialog = dialog;
        owner.outlets.theMessage = message;
        new FileRemover(dialog, foundPath, dialog->findChild<QPushButton*>("deleteButton"),
                        dialog->findChild<QPushButton*>("ignoreButton"),
                        dialog->findChild<QPushButton*>("revealButton"), *this, workspace_);
        warningDialogs_.push_back(dialog);
        orderFrontRegardless(dialog);
        return true;
    });
}

void InfectionDialogs::ignoreAllWarnings()
{
    const std::vector<QPointer<QDialog>> open = std::exchange(warningDialogs_, {});
    for (const QPointer<QDialog>& dialog : open) {
        if (FileRemover* remover = dialog ? dialog->findChild<FileRemover*>() : nullptr)
            remover->ignoreWarning();
    }
}

void InfectionDialogs::openQuarantineFolder(const std::string& ownerName)
{
    Owner& owner = owners_[ownerName];
    if (owner.outlets.theDialog)
        owner.outlets.theDialog->hide();
    if (!owner.quarantineLocation.empty())
        workspace_.openPath(owner.quarantineLocation);
}

InfectionDialogs::Outlets InfectionDialogs::outletsOf(const std::string& ownerName) const
{
    const auto found = owners_.find(ownerName);
    return found == owners_.end() ? Outlets{} : found->second.outlets;
}

} // namespace kv
