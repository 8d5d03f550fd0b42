#include "ui/FileRemover.h"

#include "ui/InfectionDialogs.h"
#include "platform/Workspace.h"

#include <QDialog>
#include <QGuiApplication>
#include <QPushButton>

#include <utility>

namespace kv {

FileRemover::FileRemover(QDialog* dialog, std::string foundPath, QPushButton* delete_, QPushButton* ignore,
                         QPushButton* reveal, InfectionDialogs& dialogs, Workspace& workspace)
    : QObject(dialog), theDialog(dialog), foundPath_(std::move(foundPath)), deleteButton(delete_), dialogs_(dialogs),
      workspace_(workspace)
{
    for (QPushButton* button : {delete_, ignore}) {
        if (button)
            connect(button, &QPushButton::clicked, this,
                    [this, button] { moveToTrash(button, QGuiApplication::keyboardModifiers()); });
    }
    if (reveal)
        connect(reveal, &QPushButton::clicked, this, [this] { workspace_.revealFile(foundPath_); });
    // Closing the window or pressing Escape is a choice too: the file stays.
    if (dialog)
        connect(dialog, &QDialog::rejected, this, [this] { moveToTrash(nullptr, Qt::NoModifier); });
}

void FileRemover::moveToTrash(const QObject* sender, Qt::KeyboardModifiers modifiers)
{
    if (!open_)
        return;
    const std::string& path = foundPath_;
    if (sender && sender == deleteButton.data()) {
        if (!workspace_.recycleFile(path))
            workspace_.beep();
    } else if (modifiers & Qt::AltModifier) {
        workspace_.revealFile(path);
    }
    open_ = false;
    // This one has chosen already, so it is not closed twice.
    if (modifiers & Qt::ControlModifier)
        dialogs_.ignoreAllWarnings();
    closeDialog();
}

void FileRemover::ignoreWarning()
{
    if (!std::exchange(open_, false))
        return;
    closeDialog();
}

void FileRemover::closeDialog()
{
    // The dialog is deleted once the current event has been handled, and
    // this object with it.
    if (!theDialog) {
        deleteLater();
        return;
    }
    theDialog->setAttribute(Qt::WA_DeleteOnClose);
    // Closing reports a rejection, which finds the choice made and does
    // nothing more.
    theDialog->close();
}

} // namespace kv
