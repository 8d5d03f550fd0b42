// The infection dialogs with real clicks: Alt and Control change what the
// warning dialogs' buttons do, the delete button moves the file into a real
// freedesktop Trash, and quarantine dialogs answer for their owner's newest.

#include "tests/desktop/DesktopTestSupport.h"

#include "ui/InfectionDialogs.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <optional>

#include <gtest/gtest.h>

#include <QApplication>
#include <QCoreApplication>
#include <QDBusConnection>
#include <QListView>
#include <QStringListModel>
#include <QDialog>
#include <QLabel>
#include <QPushButton>
#include <QTest>

namespace {

using kvtest::exists;

// A file manager on the private bus, on a connection of its own, that keeps
// the items it is asked to show.
class FileManager : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.FileManager1")
public:
    FileManager() : connection_(QDBusConnection::connectToBus(QDBusConnection::SessionBus, "fileManager"))
    {
        connection_.registerObject("/org/freedesktop/FileManager1", this, QDBusConnection::ExportAllSlots);
        connection_.registerService("org.freedesktop.FileManager1");
    }
    ~FileManager() override
    {
        connection_.unregisterObject("/org/freedesktop/FileManager1");
        connection_.unregisterService("org.freedesktop.FileManager1");
        QDBusConnection::disconnectFromBus("fileManager");
    }

    QStringList shown;

public Q_SLOTS:
    void ShowItems(const QStringList& uris, const QString&) { shown += uris; }

private:
    QDBusConnection connection_;
};

// The visible top-level widget of that object name, if any.
template <typename T>
T* topLevel(const char* name)
{
    for (QWidget* widget : QApplication::topLevelWidgets()) {
        if (widget->objectName() == name && widget->isVisible())
            return qobject_cast<T*>(widget);
    }
    return nullptr;
}

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
        {"Show in Folder reveals the file and keeps every dialog open", 2, "revealButton", Qt::NoModifier, false, 3,
         false, true, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        kvtest::TempDir data;
        kvtest::ScopedEnv home("HOME", data.path());
        kvtest::ScopedEnv dataHome("XDG_DATA_HOME", data / "share");
        kvtest::DesktopAgent agent;
        kv::InfectionDialogs dialogs(kvtest::resourcesFolder(), agent.workspace);
        dialogs.setQuitAction([&agent] { agent.controller->quit(); });
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
        EXPECT_EQ(windows[c.dialog].isNull(), c.dialogsLeft < 3);
        EXPECT_EQ(std::count_if(windows.begin(), windows.end(), [](const QPointer<QDialog>& w) { return w && w->isVisible(); }),
                  c.dialogsLeft);
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
    dialogs.setQuitAction([&agent] { agent.controller->quit(); });
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
    delete older.data();
    delete newer.data();

    // Its own dialog, built without an interface file: what happened, what
    // to do, a button that quits and one that closes.
    for (const char* button : {"closeButton", "quitButton"}) {
        SCOPED_TRACE(button);
        ASSERT_TRUE(dialogs.showEngineUnreachableDialog("firstPatientScanner", "The engine is gone.", "Quit Now"));
        QDialog* unreachable = topLevel<QDialog>("engineUnreachableDialog");
        ASSERT_TRUE(unreachable);
        EXPECT_EQ(unreachable->windowTitle(), "Korvane Velgar cannot reach its scanning engine");
        EXPECT_EQ(unreachable->findChild<QLabel*>("theMessage")->text(), "The engine is gone.");
        EXPECT_TRUE(unreachable->findChild<QLabel*>("advice")->text().contains("velgarctl setup"));
        EXPECT_EQ(unreachable->findChild<QPushButton*>("quitButton")->text(), "Quit Now");
        QTest::mouseClick(unreachable->findChild<QPushButton*>(button), Qt::LeftButton);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        const bool quits = std::string(button) == "quitButton";
        EXPECT_EQ(agent.exitStatuses, quits ? std::vector<int>{0} : std::vector<int>{});
        EXPECT_EQ(topLevel<QDialog>("engineUnreachableDialog") != nullptr, quits) << "closed";
        delete topLevel<QDialog>("engineUnreachableDialog");
    }

    kvtest::TempDir empty;
    kv::InfectionDialogs missing(empty.path(), agent.workspace);
    missing.setQuitAction([&agent] { agent.controller->quit(); });
    EXPECT_FALSE(missing.showWarningDialog("firstPatientScanner", "/tmp/x.com: Eicar FOUND", "/tmp/x.com"));
    EXPECT_FALSE(missing.showQuarantinedDialog("firstPatientScanner", quarantine));
}

// Show in Folder for a file in a folder whose name is not UTF-8 (a Latin-1
// "é" where someone else could make a look-alike with the UTF-8 one): the
// file manager gets the URI of the path's bytes; without a file manager,
// xdg-open gets the folder's bytes. A path through a folder that is a link
// is shown nowhere (the file manager's first call is the real one).
TEST(ShowInFolder, HandsOnThePathsBytes)
{
    for (const bool fileManager : {true, false}) {
        SCOPED_TRACE(fileManager ? "a file manager answers" : "xdg-open");
        kvtest::TempDir root;
        const std::string folder = root / "caf\xe9 n\xc3\xa9";
        std::filesystem::create_directories(folder);
        std::filesystem::create_directory_symlink(folder, root / "link");
        kvtest::writeFile(folder + "/x.com", kvtest::eicar());
        const std::string opened = root / "bin/xdg-open.argument";
        kvtest::writeFile(root / "bin/xdg-open", "#!/bin/sh\nprintf %s \"$1\" > \"$0.new\" && mv \"$0.new\" \"$0.argument\"\n",
                          0755);
        kvtest::ScopedEnv path("PATH", root / "bin:" + std::getenv("PATH"));
        std::optional<FileManager> manager;
        if (fileManager)
            manager.emplace();
        kv::DesktopWorkspace workspace;
        workspace.revealFile(root / "link/x.com");
        workspace.revealFile(folder + "/x.com");
        if (fileManager) {
            ASSERT_TRUE(QTest::qWaitFor([&] { return !manager->shown.empty(); }, 10000));
            EXPECT_EQ(manager->shown.join(' ').toStdString(), "file://" + root.path() + "/caf%E9%20n%C3%A9/x.com");
        } else {
            ASSERT_TRUE(QTest::qWaitFor([&] { return exists(opened); }, 10000));
            EXPECT_EQ(kvtest::readFile(opened), folder);
        }
    }
}

// A flood of findings in warn mode: the first few get warning dialogs, the
// rest one summary window listing them (escaped, as the dialogs show them),
// up to its cap; past it they are counted. Dismiss All leaves every file;
// Move All to Trash moves each listed file that still is a plain file, keeps
// listing the one that is not, and leaves the unlisted ones.
TEST(WarningDialogs, FloodOpensAFewDialogsAndOneSummaryOfTheRest)
{
    struct Case {
        const char* button;
        bool trashed;
        int findings;
    };
    const int kMost = kv::FindingsSummary::kMostListedFindings;
    const Case cases[] = {
        {"dismissAllButton", false, 40},
        {"moveAllToTrashButton", true, 40},
        {"moveAllToTrashButton", true, 3 + kMost + 2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.button) + " of " + std::to_string(c.findings));
        kvtest::TempDir data;
        kvtest::ScopedEnv home("HOME", data.path());
        kvtest::ScopedEnv dataHome("XDG_DATA_HOME", data / "share");
        kvtest::DesktopAgent agent;
        kv::InfectionDialogs dialogs(kvtest::resourcesFolder(), agent.workspace);
        dialogs.setQuitAction([&agent] { agent.controller->quit(); });
        const int findings = c.findings;
        const int listed = std::min(findings - 3, kMost);
        std::vector<std::string> files;
        for (int i = 0; i < findings; ++i) {
            // One name with a line break, shown escaped.
            files.push_back(data / ("Downloads/" + std::to_string(i) + (i == 10 ? "\nnext.com" : ".com")));
            kvtest::writeFile(files.back(), kvtest::eicar());
            const std::string shown = data / ("Downloads/" + std::to_string(i) + (i == 10 ? "\\nnext.com" : ".com"));
            ASSERT_TRUE(dialogs.showWarningDialog("firstPatientScanner", shown + ": Eicar FOUND", files.back()));
        }
        int warnings = 0;
        for (QWidget* widget : QApplication::topLevelWidgets())
            warnings += widget->objectName() == "theDialog" && widget->isVisible();
        EXPECT_EQ(warnings, kv::InfectionDialogs::kMostWarningDialogs);
        QPointer<kv::FindingsSummary> summary = dialogs.findingsSummary();
        ASSERT_TRUE(summary);
        EXPECT_TRUE(summary->isVisible());
        auto* list = summary->findChild<QListView*>("findings");
        ASSERT_EQ(list->model()->rowCount(), listed);
        auto* unlisted = summary->findChild<QLabel*>("unlisted");
        EXPECT_EQ(unlisted->isVisible() && unlisted->text().startsWith("and 2 more, not listed"), listed < findings - 3);
        EXPECT_EQ(list->model()->index(7, 0).data().toString().toStdString(),
                  data / "Downloads/10\\nnext.com: Eicar FOUND");
        // One listed name now leads to a folder: not what was found.
        std::filesystem::remove(files[20]);
        std::filesystem::create_directory(files[20]);

        QTest::mouseClick(summary->findChild<QPushButton*>(c.button), Qt::LeftButton);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        for (int i = 0; i < findings; ++i) {
            const bool moved = c.trashed && i >= 3 && i < 3 + listed && i != 20;
            EXPECT_EQ(exists(files[i]), !moved) << files[i];
            const std::string name = std::filesystem::path(files[i]).filename();
            EXPECT_EQ(exists(data / ("share/Trash/files/" + name)), moved) << name;
            if (moved) {
                EXPECT_NE(kvtest::readFile(data / ("share/Trash/info/" + name + ".trashinfo")).find("\nPath="),
                          std::string::npos);
            }
        }
        std::error_code none;
        const auto trashed = std::distance(std::filesystem::directory_iterator(data / "share/Trash/files", none),
                                           std::filesystem::directory_iterator());
        EXPECT_EQ(trashed, c.trashed ? listed - 1 : 0) << "nothing else is moved";
        if (c.trashed) {
            ASSERT_TRUE(summary) << "the folder is still listed";
            EXPECT_EQ(summary->foundPaths(), std::vector<std::string>{files[20]});
            auto* problem = summary->findChild<QLabel*>("problem");
            EXPECT_TRUE(problem->isVisible());
            EXPECT_EQ(problem->text().contains("The 2 not listed were not moved"), listed < findings - 3);
            EXPECT_EQ(agent.workspace.beeps, 1);
            QTest::mouseClick(summary->findChild<QPushButton*>("dismissAllButton"), Qt::LeftButton);
            QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        }
        EXPECT_TRUE(summary.isNull()) << "closed and gone";
        EXPECT_TRUE(std::filesystem::is_directory(files[20]));
        for (QWidget* widget : QApplication::topLevelWidgets()) {
            if (widget->objectName() == "theDialog")
                delete widget;
        }
    }
}

} // namespace

#include "InfectionDialogsTest.moc"
