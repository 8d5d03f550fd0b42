#include "ui/InfectionDialogs.h"

#include "app/KorvaneVelgar.h"
#include "platform/Log.h"
#include "platform/Workspace.h"
#include "ui/FileRemover.h"
#include "ui/InterfaceLoader.h"

#include <QDialog>
#include <QLabel>
#include <QPushButton>
#include <QThread>

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
    if (!controller_)
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

bool InfectionDialogs::showEngineUnreachableDialog(const std::string& ownerName, const std::string& message,
                                                   const std::string& quitTitle)
{
    return onMainThread([this, ownerName, message, quitTitle] {
        QDialog* dialog = loadQuarantinedDialog(ownerName);
        if (!dialog)
            return false;
        const Outlets& outlets = owners_[ownerName].outlets;
        if (outlets.theMessage)
            outlets.theMessage->setText(QString::fromStdString(message));
        // Without its engine the agent cannot protect anything: the dialog's
        // button quits it.
        if (outlets.deleteButton) {
            outlets.deleteButton->setText(QString::fromStdString(quitTitle));
            connect(outlets.deleteButton, &QPushButton::clicked, this, [this] { controller_->quit(); });
        }
        orderFrontRegardless(dialog);
        return true;
    });
}

bool InfectionDialogs::showWarningDialog(const std::string& ownerName, const std::string& outputLine,
                                         const std::string& foundPath)
{
    return onMainThread([this, ownerName, outputLine, foundPath] {
        if (!controller_)
            return false;
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
                        dialog->findChild<QPushButton*>("ignoreButton"), *controller_, workspace_);
        orderFrontRegardless(dialog);
        return true;
    });
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
