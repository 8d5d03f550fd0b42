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

#include <thread>

namespace {

using kvtest::exists;

class WarningDialogs : public ::testing::Test {
protected:
    WarningDialogs()
        : home_("HOME", data_.path()), dataHome_("XDG_DATA_HOME", data_ / "share"),
          dialogs_(kvtest::resourcesFolder(), agent_.workspace)
    {
    }

    void SetUp() override
    {
        dialogs_.setKorvaneVelgarController(agent_.controller);
        // The last one's name holds a colon: the path ends at the line's last.
        for (const char* name : {"invoice.pdf.exe", "setup.com", "notes:2024.doc"}) {
            files_.push_back(data_ / ("Downloads/" + std::string(name)));
            kvtest::writeFile(files_.back(), kvtest::eicar());
            ASSERT_TRUE(dialogs_.showWarningDialog("firstPatientScanner", files_.back() + ": Eicar-Signature FOUND", files_.back()));
            windows_.push_back(dialogs_.outletsOf("firstPatientScanner").theDialog);
        }
    }

    ~WarningDialogs() override
    {
        // Their FileRemovers leave the controller's list before it goes.
        for (const QPointer<QDialog>& window : windows_)
            delete window.data();
    }

    QPushButton* button(int dialog, const char* name) { return windows_[dialog]->findChild<QPushButton*>(name); }

    // Deleting a closed dialog waits for the event loop.
    static void settle() { QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete); }

    int openDialogs() const
    {
        return std::count_if(windows_.begin(), windows_.end(),
                             [](const QPointer<QDialog>& window) { return window && window->isVisible(); });
    }

    kvtest::TempDir data_;
    kvtest::ScopedEnv home_;
    kvtest::ScopedEnv dataHome_;
    kvtest::DesktopAgent agent_;
    kv::InfectionDialogs dialogs_;
    std::vector<std::string> files_;
    std::vector<QPointer<QDialog>> windows_;
};

TEST_F(WarningDialogs, ControlClickOnLeaveItClosesAllAndTouchesNoFile)
{
    ASSERT_EQ(agent_.controller->dialogList().size(), 3u);
    QTest::mouseClick(button(1, "ignoreButton"), Qt::LeftButton, Qt::ControlModifier);
    settle();
    for (const QPointer<QDialog>& window : windows_)
        EXPECT_TRUE(window.isNull());
    EXPECT_TRUE(agent_.controller->dialogList().empty());
    for (const std::string& file : files_)
        EXPECT_TRUE(exists(file)) << file;
    EXPECT_TRUE(agent_.workspace.revealed.empty());
}

TEST_F(WarningDialogs, ControlClickOnDeleteTrashesThatFileAndClosesAll)
{
    QTest::mouseClick(button(0, "deleteButton"), Qt::LeftButton, Qt::ControlModifier);
    settle();
    EXPECT_EQ(openDialogs(), 0);
    EXPECT_TRUE(agent_.controller->dialogList().empty());

    const std::string trash = data_ / "share/Trash";
    EXPECT_FALSE(exists(files_[0]));
    EXPECT_TRUE(exists(trash + "/files/invoice.pdf.exe"));
    const std::string info = kvtest::readFile(trash + "/info/invoice.pdf.exe.trashinfo");
    EXPECT_NE(info.find("[Trash Info]"), std::string::npos) << info;
    EXPECT_NE(info.find("Path=" + files_[0]), std::string::npos) << info;
    EXPECT_TRUE(exists(files_[1]));
    EXPECT_TRUE(exists(files_[2]));
    EXPECT_EQ(agent_.workspace.beeps, 0);
}

TEST_F(WarningDialogs, AltClickOnLeaveItRevealsTheFileAndClosesOnlyItsDialog)
{
    QTest::mouseClick(button(2, "ignoreButton"), Qt::LeftButton, Qt::AltModifier);
    settle();
    EXPECT_EQ(agent_.workspace.revealed, std::vector<std::string>{files_[2]});
    EXPECT_TRUE(windows_[2].isNull());
    EXPECT_EQ(openDialogs(), 2);
    EXPECT_EQ(agent_.controller->dialogList().size(), 2u);
    EXPECT_TRUE(exists(files_[2]));
}

TEST_F(WarningDialogs, VanishedFileBeepsAndItsDialogCloses)
{
    ::unlink(files_[1].c_str());
    QTest::mouseClick(button(1, "deleteButton"), Qt::LeftButton);
    settle();
    EXPECT_EQ(agent_.workspace.beeps, 1);
    EXPECT_TRUE(windows_[1].isNull());
    EXPECT_EQ(openDialogs(), 2);
}

TEST(QuarantineDialogs, OlderDialogsControlHidesTheOwnersNewestAndOpensTheFolder)
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
    EXPECT_TRUE(agent.controller->dialogList().empty()) << "quarantine dialogs are not listed";
    delete older.data();
    delete newer.data();
}

TEST(QuarantineDialogs, EngineUnreachableDialogSaysSoAndItsButtonQuits)
{
    kvtest::DesktopAgent agent;
    kv::InfectionDialogs dialogs(kvtest::resourcesFolder(), agent.workspace);
    dialogs.setKorvaneVelgarController(agent.controller);
    ASSERT_TRUE(dialogs.showEngineUnreachableDialog("firstPatientScanner", "The engine is gone.", "Quit Now"));
    const kv::InfectionDialogs::Outlets outlets = dialogs.outletsOf("firstPatientScanner");
    EXPECT_EQ(outlets.theMessage->text(), "The engine is gone.");
    EXPECT_EQ(outlets.deleteButton->text(), "Quit Now");
    QTest::mouseClick(outlets.deleteButton, Qt::LeftButton);
    EXPECT_EQ(agent.exitStatuses, std::vector<int>{0});
    delete outlets.theDialog.data();
}

TEST(InfectionDialogs, ScannerThreadGetsItsDialogOrFalseWhenTheFileIsMissing)
{
    kvtest::DesktopAgent agent;
    kvtest::TempDir empty;
    kv::InfectionDialogs dialogs(kvtest::resourcesFolder(), agent.workspace);
    dialogs.setKorvaneVelgarController(agent.controller);
    kv::InfectionDialogs missing(empty.path(), agent.workspace);
    missing.setKorvaneVelgarController(agent.controller);

    // The dialogs are made on the main thread, which keeps its event loop
    // running while the scanner waits.
    std::atomic<int> results{-1};
    std::thread scanner([&] {
        const bool shown = dialogs.showWarningDialog("firstPatientScanner", "/tmp/x.com: Eicar FOUND", "/tmp/x.com");
        const bool notShown = missing.showWarningDialog("firstPatientScanner", "/tmp/x.com: Eicar FOUND", "/tmp/x.com");
        results = (shown ? 1 : 0) + (notShown ? 2 : 0);
    });
    EXPECT_TRUE(QTest::qWaitFor([&] { return results >= 0; }, 10000));
    scanner.join();
    EXPECT_EQ(results, 1);
    QPointer<QDialog> dialog = dialogs.outletsOf("firstPatientScanner").theDialog;
    ASSERT_FALSE(dialog.isNull());
    EXPECT_TRUE(dialog->isVisible());
    EXPECT_EQ(dialog->findChild<QLabel*>("theMessage")->text(), "/tmp/x.com: Eicar FOUND");
    EXPECT_EQ(agent.controller->dialogList().size(), 1u);
    delete dialog.data();
    EXPECT_TRUE(agent.controller->dialogList().empty());
}

} // namespace
