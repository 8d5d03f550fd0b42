#pragma once

#include "scan/ScanAlerts.h"
#include "ui/FindingsSummary.h"

#include <QObject>
#include <QPointer>

#include <functional>
#include <map>
#include <string>
#include <vector>

class QDialog;
class QLabel;
class QPushButton;

namespace kv {

class Workspace;

// The scanners' infection dialogs, loaded afresh from WarningDialog.ui and
// QuarantinedDialog.ui for every finding, so several can be open at once.
// A warning dialog gets a FileRemover and is kept among the open warning
// dialogs until it closes; a quarantine dialog stays until the user closes it
// or its control opens the quarantine folder.
//
// A flood of findings in warn mode opens at most kMostWarningDialogs warning
// dialogs at once; every finding past those is listed in one FindingsSummary
// window (one at a time, reused while it is open), so ten thousand findings
// cost a list of lines, not ten thousand windows.
//
// The engine-unreachable dialog is built here in code, not loaded: it must
// show even when the resources folder is damaged.
//
// Each owner (a scanner, by name) has outlets that point at the dialog it
// loaded last, as a dialog file's owner has. Dialogs live on the main
// thread: calls from a scanner's thread are carried out there and return
// once the dialog is up, never waiting for the user.
//
// Created before the controller (which takes it among its parts) and given
// the agent's quit before any scanner runs; until then nothing is shown.
class InfectionDialogs : public QObject, public ScanAlerts {
    Q_OBJECT
public:
    // Warning dialogs open at once before findings go to the summary window.
    static constexpr int kMostWarningDialogs = 3;

    InfectionDialogs(std::string resourcesFolder, Workspace& workspace, QObject* parent = nullptr);

    // Ends the agent (the engine-unreachable dialog offers it). Main thread;
    // an empty one shows nothing from then on.
    void setQuitAction(std::function<void()> quit) { quit_ = std::move(quit); }

    // Closes every open warning dialog as ignored, in the order they
    // opened. Main thread.
    void ignoreAllWarnings();

    bool showQuarantinedDialog(const std::string& ownerName, const std::string& quarantineFolder) override;
    bool showWarningDialog(const std::string& ownerName, const std::string& outputLine,
                           const std::string& foundPath) override;
    bool showEngineUnreachableDialog(const std::string& ownerName, const std::string& message,
                                     const std::string& quitTitle) override;

    // The quarantine dialogs' control: hides the owner's newest quarantine
    // dialog (without closing it), then opens the owner's quarantine folder,
    // if it has one. Main thread.
    void openQuarantineFolder(const std::string& ownerName);

    // The owner's outlets: the dialog it loaded last. Main thread.
    struct Outlets {
        QPointer<QDialog> theDialog;
        QPointer<QLabel> theMessage;
        QPointer<QPushButton> deleteButton;
    };
    Outlets outletsOf(const std::string& ownerName) const;

    // The window listing the findings past the open warning dialogs; null
    // while none is open. Main thread.
    FindingsSummary* findingsSummary() const { return summary_; }

private:
    struct Owner {
        Outlets outlets;
        std::string quarantineLocation;
    };

    template <typename Call>
    bool onMainThread(Call call);
    QDialog* loadQuarantinedDialog(const std::string& ownerName);
    static void orderFrontRegardless(QDialog* dialog);

    std::string resourcesFolder_;
    std::function<void()> quit_;
    Workspace& workspace_;
    std::map<std::string, Owner> owners_; // main thread only
    // The open warning dialogs (main thread only); closed ones turn null.
    std::vector<QPointer<QDialog>> warningDialogs_;
    QPointer<FindingsSummary> summary_;  // main thread only
};

} // namespace kv
