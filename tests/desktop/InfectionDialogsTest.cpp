// The infection dialogs with real clicks: Alt and Control change what the
// warning dialogs' buttons do, the delete button moves the file into a real
// freedesktop Trash, and quarantine dialogs answer for their owner's newest.

#include "tests/desktop/DesktopTestSupport.h"

#include "ui/InfectionDialogs.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDialog>
#include <QLabel>
#include <QPushButton>
#include <QTest>

namespace {

using kvtest::exists;

// Three warning dialogs are open, one file each; one click on one of them.
TEST(WarningDialogs, ModifiersDecideWhatAClickDoesToTheFileAndTheDialogs)
{
    struct Case {
        const char* name;
        int dialog;
        const char* button;
        Qt::KeyboardModifiers modifiers;
        bool fileVanished; // before the click
        int dialogsLeft;
        bool trashed;
        bool revealed;
        int beeps;
    };
    // Leave It and Delete, with Control, Alt or nothing; the file was gone
    // before the click or not; dialogs left open, and what became of the file.
    const Case cases[] = {
        {"Control on Leave It closes all and touches no file", 1, "ignoreButton", Qt::ControlModifier, false, 0,
         false, false, 0},
        {"Control on Delete trashes that file and closes all", 0, "deleteButton", Qt::ControlModifier, false, 0,
         true, false, 0},
        {"Alt on Leave It reveals the file and closes its dialog", 2, "ignoreButton", Qt::AltModifier, false, 2,
         false, true, 0},
        {"Delete on a file gone beeps and closes its dialog", 1, "deleteButton", Qt::NoModifier, true, 2, false,
         false, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        kvtest::TempDir data;
        kvtest::ScopedEnv home("HOME", data.path());
        kvtest::ScopedEnv dataHome("XDG_DATA_HOME", data / "share");
        kvtest::DesktopAgent agent;
        kv::InfectionDialogs dialogs(kvtest::resourcesFolder(), agent.workspace);
        dialogs.setKorvaneVelgarController(agent.controller);
        std::vector<std::string> files;
        std::vector<QPointer<QDialog>> windows;
        // The last one's name holds a colon: the path ends at the line's last.
        for (const char* name : {"invoice.pdf.exe", "setup.com", "notes:2024.doc"}) {
            files.push_back(data / ("Downloads/" + std::string(name)));
            kvtest::writeFile(files.back(), kvtest::eicar());
            const std::string line = files.back() + ": Eicar-Signature FOUND";
            ASSERT_TRUE(dialogs.showWarningDialog("firstPatientScanner", line, files.back()));
            windows.push_back(dialogs.outletsOf("firstPatientScanner").theDialog);
            EXPECT_EQ(windows.back()->findChild<QLabel*>("theMessage")->text().toStdString(), line);
        }
        if (c.fileVanished)
            ::unlink(files[c.dialog].c_str());

        QTest::mouseClick(windows[c.dialog]->findChild<QPushButton*>(c.button), Qt::LeftButton, c.modifiers);
        // Deleting a closed dialog waits for the event loop.
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        EXPECT_TRUE(windows[c.dialog].isNull());
        EXPECT_EQ(std::count_if(windows.begin(), windows.end(), [](const QPointer<QDialog>& w) { return w && w->isVisible(); }),
                  c.dialogsLeft);
        EXPECT_EQ(agent.controller->dialogList().size(), size_t(c.dialogsLeft));
        for (size_t i = 0; i < files.size(); ++i)
            EXPECT_EQ(exists(files[i]), !(int(i) == c.dialog && (c.trashed || c.fileVanished))) << files[i];
        if (c.trashed) {
            const std::string trash = data / "share/Trash/";
            EXPECT_TRUE(exists(trash + "files/invoice.pdf.exe"));
            const std::string info = kvtest::readFile(trash + "info/invoice.pdf.exe.trashinfo");
            EXPECT_TRUE(info.starts_with("[Trash Info]\n") && info.find("\nPath=" + files[0] + "\n") != std::string::npos)
                << info;
        }
        EXPECT_EQ(agent.workspace.revealed, c.revealed ? std::vector{files[c.dialog]} : std::vector<std::string>{});
        EXPECT_EQ(agent.workspace.beeps, c.beeps);
        // Their FileRemovers leave the controller's list before it goes.
        for (const QPointer<QDialog>& window : windows)
            delete window.data();
    }
}

// Quarantine dialogs are not listed; the control of an older one hides the
// owner's newest (without closing it) and opens the quarantine folder. The
// engine-unreachable dialog's button quits. Without its interface file a
// dialog cannot be shown, and the scanner is told so.
TEST(InfectionDialogs, QuarantineAndEngineUnreachableDialogs)
{
    kvtest::DesktopAgent agent;
    kv::InfectionDialogs dialogs(kvtest::resourcesFolder(), agent.workspace);
    dialogs.setKorvaneVelgarController(agent.controller);
    const std::string quarantine = agent.home / "Quarantine";
    ASSERT_TRUE(dialogs.showQuarantinedDialog("secondPatientScanner", quarantine));
    QPointer<QDialog> older = dialogs.outletsOf("secondPatientScanner").theDialog;
    ASSERT_TRUE(dialogs.showQuarantinedDialog("secondPatientScanner", quarantine));
    QPointer<QDialog> newer = dialogs.outletsOf("secondPatientScanner").theDialog;
    ASSERT_NE(older, newer);
    QTest::mouseClick(older->findChild<QPushButton*>("openQuarantineButton"), Qt::LeftButton);
    EXPECT_TRUE(older->isVisible());
    ASSERT_FALSE(newer.isNull()) << "hidden, not closed";
    EXPECT_FALSE(newer->isVisible());
    EXPECT_EQ(agent.workspace.opened, std::vector<std::string>{quarantine});
    EXPECT_TRUE(agent.controller->dialogList().empty());
    delete older.data();
    delete newer.data();

    ASSERT_TRUE(dialogs.showEngineUnreachableDialog("firstPatientScanner", "The engine is gone.", "Quit Now"));
    const kv::InfectionDialogs::Outlets outlets = dialogs.outletsOf("firstPatientScanner");
    EXPECT_EQ(outlets.theMessage->text(), "The engine is gone.");
    EXPECT_EQ(outlets.deleteButton->text(), "Quit Now");
    QTest::mouseClick(outlets.deleteButton, Qt::LeftButton);
    EXPECT_EQ(agent.exitStatuses, std::vector<int>{0});
    delete outlets.theDialog.data();

    kvtest::TempDir empty;
    kv::InfectionDialogs missing(empty.path(), agent.workspace);
    missing.setKorvaneVelgarController(agent.controller);
    EXPECT_FALSE(missing.showWarningDialog("firstPatientScanner", "/tmp/x.com: Eicar FOUND", "/tmp/x.com"));
    EXPECT_FALSE(missing.showQuarantinedDialog("firstPatientScanner", quarantine));
}

} // namespace
