#pragma once

#include "app/DialogListEntry.h"

#include <QObject>
#include <QPointer>

#include <string>

class QDialog;
class QLabel;
class QPushButton;

namespace kv {

class KorvaneVelgar;
class Workspace;

// Carries out the user's choice in one warning dialog: the delete button
// moves the found file into the Trash; the other button leaves it, and with
// Alt held shows it in the file viewer. Control held with either button also
// closes every other open warning dialog as ignored.
//
// Created with its dialog (as the dialog's child, so the two end together)
// and listed in the controller's dialog list until its dialog closes. Main
// thread only.
class FileRemover : public QObject, public DialogListEntry {
    Q_OBJECT
public:
    // Connects the dialog's buttons and joins the controller's dialog list.
    FileRemover(QDialog* theDialog, QLabel* theMessage, QPushButton* deleteButton, QPushButton* ignoreButton,
                KorvaneVelgar& controller, Workspace& workspace);
    ~FileRemover() override;

    // The user's choice; sender is the button pressed, modifiers the keys
    // held when it was pressed.
    void moveToTrash(const QObject* sender, Qt::KeyboardModifiers modifiers);

    void ignoreWarning() override;

    // Index of the last ":" in the text, or -1 when there is none.
    static int getLastColon(const std::string& text);

    // The found file: the message up to its last colon.
    std::string foundPath() const;

private:
    void closeDialog();

    QPointer<QDialog> theDialog;
    QPointer<QLabel> theMessage;
    QPointer<QPushButton> deleteButton;
    KorvaneVelgar& controller_;
    Workspace& workspace_;
    bool listed_ = false;
};

} // namespace kv
