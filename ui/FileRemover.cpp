#include "ui/FileRemover.h"

#include "app/KorvaneVelgar.h"
#include "platform/Workspace.h"

#include <QDialog>
#include <QGuiApplication>
#include <QPushButton>

namespace kv {

FileRemover::FileRemover(QDialog* dialog, std::string foundPath, QPushButton* delete_, QPushButton* ignore,
                         QPushButton* reveal, KorvaneVelgar& controller, Workspace& workspace)
    : QObject(dialog), theDialog(dialog), foundPath_(std::move(foundPath)), deleteButton(delete_),
      controller_(controller), workspace_(workspace)
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
    controller_.addToDialogList(this);
    listed_ = true;
}

FileRemover::~FileRemover()
{
    if (listed_)
        controller_.removeFromDialogList(this);
}

void FileRemover::moveToTrash(const QObject* sender, Qt::KeyboardModifiers modifiers)
{
    if (!listed_)
        return;
    const std::string& path = foundPath_;
    if (sender && sender == deleteButton.data()) {
        if (!workspace_.recycleFile(path))
            workspace_.beep();
    } else if (modifiers & Qt::AltModifier) {
        workspace_.revealFile(path);
    }
    controller_.removeFromDialogList(this);
    listed_ = false;
    // This one is off the list already, so it is not closed twice.
    if (modifiers & Qt::ControlModifier)
        controller_.removeAllFromDialogList();
    closeDialog();
}

void FileRemover::ignoreWarning()
{
    // The controller empties its list itself.
    listed_ = false;
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
    // Closing reports a rejection, which finds this entry off the list and
    // does nothing more.
    theDialog->close();
}

} // namespace kv
