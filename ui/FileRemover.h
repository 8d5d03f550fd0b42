#pragma once

#include <QObject>
#include <QPointer>

#include <string>

class QDialog;
class QPushButton;

namespace kv {

class InfectionDialogs;
class Workspace;

// Carries out the user's choice in one warning dialog: the delete button
// moves the found file into the Trash; the other button leaves it, and with
// Alt held shows it in the file viewer. Control held with either button also
// closes every other open warning dialog as ignored. The reveal button shows
// the file in the file viewer and leaves the dialog open (Alt-click is often
// taken by the window manager).
//
// Created with its dialog (as the dialog's child, so the two end together)
// by InfectionDialogs, which keeps the open warning dialogs. Main thread
// only.
class FileRemover : public QObject {
    Q_OBJECT
public:
    // Connects the dialog's buttons. foundPath is the file's name as it is
    // on disk; the dialog's message shows it escaped, so it is never read
    // back from there.
    FileRemover(QDialog* theDialog, std::string foundPath, QPushButton* deleteButton, QPushButton* ignoreButton,
                QPushButton* revealButton, InfectionDialogs& dialogs, Workspace& workspace);

    // The user's choice; sender is the button pressed, modifiers the keys
    // held when it was pressed.
    void moveToTrash(const QObject* sender, Qt::KeyboardModifiers modifiers);

    // Closes the dialog without touching its file; this object goes with it
    // once the current event has been handled.
    void ignoreWarning();

    const std::string& foundPath() const { return foundPath_; }

private:
    void closeDialog();

    QPointer<QDialog> theDialog;
    std::string foundPath_;
    QPointer<QPushButton> deleteButton;
    InfectionDialogs& dialogs_;
    Workspace& workspace_;
    bool open_ = true;  // false once the user chose, or the warning was ignored
};

} // namespace kv
