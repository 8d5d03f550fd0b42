// The index of the files the agent moved away, and the restore and delete
// that act on it: on real files, with files swapped and links planted the
// way someone else on the machine could.

#include "platform/QuarantineRecords.h"
#include "tests/support/TestSupport.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <map>
#include <optional>

namespace {

namespace fs = std::filesystem;
using kv::QuarantineRecord;

bool isLink(const std::string& path)
{
    struct stat info{};
    return ::lstat(path.c_str(), &info) == 0 && S_ISLNK(info.st_mode);
}

// A Trash with one infected file moved into it from home/docs, recorded.
struct Scene {
    kvtest::TempDir root;
    std::string docs = root / "home/docs";
    std::string original = docs + "/eicar.com";
    std::string stored = root / "data/Trash/files/eicar.com";
    std::string trashInfo = root / "data/Trash/info/eicar.com.trashinfo";
    kv::QuarantineRecords records{root / "data/korvane/quarantine.jsonl"};
    QuarantineRecord record;

    explicit Scene(unsigned mode = 0640)
    {
        fs::create_directories(docs);
        fs::create_directories(root / "data/Trash/info");
        kvtest::writeFile(original, "infected\n", mode);
        ::chmod(original.c_str(), mode);  // past the umask, set-user-ID included
        fs::create_directories(root / "data/Trash/files");
        fs::rename(original, stored);
        kvtest::writeFile(trashInfo, "[Trash Info]\n");
        record.originalPath = original;
        record.storedPath = stored;
        record.signature = "Eicar-Test-Signature.UNOFFICIAL";
        record.movedAt = 1700000000;
        record.place = QuarantineRecord::Place::Trash;
        std::string error;
        EXPECT_TRUE(records.record(record, &error)) << error;
        const std::vector<QuarantineRecord> listed = records.current(&error);
        EXPECT_EQ(listed.size(), 1u) << error;
        if (!listed.empty())
            record = listed.front();
    }
};

TEST(QuarantineRecords, OddNamesComeBackAsTheyWereNewestFirst)
{
    kvtest::TempDir root;
    const std::string folder = root / "Quarantine";
    fs::create_directories(folder);
    kv::QuarantineRecords records(root / "index/quarantine.jsonl");
    const std::vector<std::string> names = {"plain.com", "line\nbreak", "not utf-8 \xff\xfe", "per%41cent \"quoted\"",
                                            "tab\tand\rreturn"};
    std::int64_t movedAt = 1000;
    for (const std::string& name : names) {
        kvtest::writeFile(folder + "/" + name, "x");
        QuarantineRecord record;
        record.originalPath = root / ("watched/" + name);
        record.storedPath = folder + "/" + name;
        record.signature = "Sig\n" + name;
        record.movedAt = movedAt++;
        record.place = name == "plain.com" ? QuarantineRecord::Place::Trash : QuarantineRecord::Place::Quarantine;
        std::string error;
        ASSERT_TRUE(records.record(record, &error)) << error;
    }
    struct stat index{};
    ASSERT_EQ(::stat(records.indexPath().c_str(), &index), 0);
    EXPECT_EQ(index.st_mode & 07777, 0600u);
    ASSERT_EQ(::stat((root / "index").c_str(), &index), 0);
    EXPECT_EQ(index.st_mode & 07777, 0700u);

    // A damaged line is skipped and counted, the rest still read; a record
    // of a file that has gone is not listed.
    std::string text = kvtest::readFile(records.indexPath());
    kvtest::writeFile(records.indexPath(), text + "{\"originalPath\": \"%zz\"\nnot json\n", 0600);
    fs::remove(folder + "/tab\tand\rreturn");

    std::string error;
    int skipped = 0;
    const std::vector<QuarantineRecord> listed = records.current(&error, &skipped);
    EXPECT_EQ(skipped, 2);
    ASSERT_EQ(listed.size(), names.size() - 1) << error;
    for (size_t i = 0; i < listed.size(); ++i) {
        const std::string& name = names[names.size() - 2 - i];
        struct stat info{};
        ASSERT_EQ(::lstat((folder + "/" + name).c_str(), &info), 0);
        EXPECT_EQ(listed[i].originalPath, root / ("watched/" + name));
        EXPECT_EQ(listed[i].storedPath, folder + "/" + name);
        EXPECT_EQ(listed[i].signature, "Sig\n" + name);
        EXPECT_EQ(listed[i].movedAt, 1000 + static_cast<std::int64_t>(names.size() - 2 - i));
        EXPECT_EQ(listed[i].place,
                  name == "plain.com" ? QuarantineRecord::Place::Trash : QuarantineRecord::Place::Quarantine);
        EXPECT_EQ(listed[i].device, info.st_dev);
        EXPECT_EQ(listed[i].inode, info.st_ino);
    }
}

TEST(QuarantineRecords, IndexOnlyTheUserCanWrite)
{
    struct IndexCase {
        const char* name;
        std::function<void(const std::string& index)> arrange;
        const char* error;
    };
    const std::vector<IndexCase> cases = {
        {"a link at the index", [](const std::string& index) { fs::create_symlink(index + ".elsewhere", index); },
         "is a symbolic link"},
        {"a folder others can write to",
         [](const std::string& index) { ::chmod(fs::path(index).parent_path().c_str(), 0777); },
         "others can write to it"},
        {"an index others can write to",
         [](const std::string& index) {
             kvtest::writeFile(index, "", 0666);
             ::chmod(index.c_str(), 0666);
         },
         "only the user can write"},
    };
    for (const IndexCase& c : cases) {
        kvtest::TempDir root;
        fs::create_directories(root / "korvane");
        kvtest::writeFile(root / "stored", "x");
        kv::QuarantineRecords records(root / "korvane/quarantine.jsonl");
        c.arrange(records.indexPath());
        QuarantineRecord record;
        record.originalPath = root / "original";
        record.storedPath = root / "stored";
        std::string error;
        EXPECT_FALSE(records.record(record, &error)) << c.name;
        EXPECT_NE(error.find(c.error), std::string::npos) << c.name << ": " << error;
        error.clear();
        EXPECT_TRUE(records.current(&error).empty()) << c.name;
        EXPECT_NE(error.find(c.error), std::string::npos) << c.name << ": " << error;
        EXPECT_FALSE(kvtest::exists(records.indexPath() + ".elsewhere")) << c.name;
    }
    // No index yet: nothing moved away, and nothing wrong.
    kvtest::TempDir root;
    std::string error;
    int skipped = -1;
    EXPECT_TRUE(kv::QuarantineRecords(root / "none/quarantine.jsonl").current(&error, &skipped).empty());
    EXPECT_EQ(error, "");
    EXPECT_EQ(skipped, 0);
}

enum class Action { Restore, Remove };

TEST(QuarantineRecords, RestoreAndDeleteActOnlyOnTheRecordedFile)
{
    struct ActionCase {
        const char* name;
        Action action;
        std::function<void(Scene&)> arrange;
        const char* error;  // empty: succeeds
    };
    // Written beside it first: a file made after the stored one was removed
    // could be given its inode number again.
    const auto replaceStored = [](Scene& s) {
        kvtest::writeFile(s.root / "replacement", "someone else's\n");
        fs::rename(s.root / "replacement", s.stored);
    };
    const auto linkStored = [](Scene& s) {
        kvtest::writeFile(s.root / "elsewhere", "someone else's\n");
        fs::remove(s.stored);
        fs::create_symlink(s.root / "elsewhere", s.stored);
    };
    const kvtest::TempDir shm("/dev/shm");
    const std::vector<ActionCase> cases = {
        {"restore", Action::Restore, [](Scene&) {}, ""},
        {"restore never over an existing file", Action::Restore,
         [](Scene& s) { kvtest::writeFile(s.original, "the user's new file\n"); }, "already exists"},
        {"restore never over a link", Action::Restore,
         [](Scene& s) { fs::create_symlink(s.root / "target", s.original); }, "already exists"},
        {"restore into a removed folder", Action::Restore, [](Scene& s) { fs::remove(s.docs); }, "no longer exists"},
        // A shared folder swapped for a link to one of the user's own.
        {"restore through a folder now a link", Action::Restore,
         [](Scene& s) {
             fs::create_directories(s.root / "home/autostart");
             fs::remove(s.docs);
             fs::create_symlink(s.root / "home/autostart", s.docs);
         },
         "is now a link"},
        {"restore from a folder others may write to", Action::Restore,
         [](Scene& s) { ::chmod((s.root / "data/Trash/files").c_str(), 0777); }, "is not the user's alone"},
        {"restore of a replaced file", Action::Restore, replaceStored, "no longer the file"},
        {"restore of a file replaced by a link", Action::Restore, linkStored, "no longer the file"},
        // Copied into a new file there, the stored one removed after.
        {"restore to another file system", Action::Restore,
         [&](Scene& s) {
             struct stat here{}, there{};
             ASSERT_TRUE(::stat(s.root.path().c_str(), &here) == 0 && ::stat(shm.path().c_str(), &there) == 0);
             ASSERT_NE(here.st_dev, there.st_dev) << "/dev/shm must be a file system of its own";
             s.original = s.record.originalPath = shm / "eicar.com";
         },
         ""},
        {"delete", Action::Remove, [](Scene&) {}, ""},
        {"delete of a replaced file", Action::Remove, replaceStored, "no longer the file"},
        {"delete of a file replaced by a link", Action::Remove, linkStored, "no longer the file"},
        {"delete of a file already gone", Action::Remove, [](Scene& s) { fs::remove(s.stored); }, "is gone"},
    };
    for (const ActionCase& c : cases) {
        Scene scene(06750);
        c.arrange(scene);
        const std::map<std::string, std::string> before = kvtest::snapshotFiles(scene.root.path());
        const bool linkBefore = isLink(scene.original) || isLink(scene.stored);
        std::string error;
        const bool done = c.action == Action::Restore ? scene.records.restore(scene.record, &error)
                                                      : scene.records.remove(scene.record, &error);
        EXPECT_EQ(done, !*c.error) << c.name << ": " << error;
        if (*c.error) {
            EXPECT_NE(error.find(c.error), std::string::npos) << c.name << ": " << error;
            EXPECT_EQ(kvtest::snapshotFiles(scene.root.path()), before) << c.name << ": nothing is touched";
            EXPECT_EQ(isLink(scene.original) || isLink(scene.stored), linkBefore) << c.name;
            continue;
        }
        EXPECT_FALSE(kvtest::exists(scene.stored)) << c.name;
        EXPECT_FALSE(kvtest::exists(scene.trashInfo)) << c.name;
        EXPECT_TRUE(scene.records.current(&error).empty()) << c.name;
        EXPECT_EQ(kvtest::readFile(scene.records.indexPath()), "") << c.name << ": the index lets go of the file";
        if (c.action == Action::Restore) {
            EXPECT_EQ(kvtest::readFile(scene.original), "infected\n") << c.name;
            struct stat info{};
            ASSERT_EQ(::lstat(scene.original.c_str(), &info), 0);
            EXPECT_EQ(info.st_mode & 07777, 0750u) << c.name << ": the mode without set-user-ID or set-group-ID";
        } else {
            EXPECT_FALSE(kvtest::exists(scene.original)) << c.name;
        }
    }
}

// Move to Trash from a warning window: a neighbour's shared folder holds the
// found file; the user has a file of the same name in a folder of their own.
// The neighbour swaps their folder for a link to the user's before the walk
// (refused) or between the walk and the move (the folder held is moved
// from, by a copy to another file system); or the Trash is a link. The
// user's own file never moves, and the record and .trashinfo name the path
// walked.
TEST(QuarantineRecords, MoveToTrashActsOnTheFolderWalkedTo)
{
    enum class Swap { BeforeWalk, AfterWalk, Trash };
    struct TrashCase {
        const char* name;
        Swap swap;
        bool otherFileSystem;  // the shared folder on /dev/shm
        const char* error;     // empty: moved
    };
    const TrashCase cases[] = {{"folder a link before the walk", Swap::BeforeWalk, false, "is a link"},
                               {"folder a link after the walk", Swap::AfterWalk, false, ""},
                               {"the same, another file system", Swap::AfterWalk, true, ""},
                               {"the Trash a link", Swap::Trash, false, "a folder on the way is a link"}};
    for (const TrashCase& c : cases) {
        SCOPED_TRACE(c.name);
        kvtest::TempDir root;
        kvtest::TempDir shm("/dev/shm");
        kvtest::ScopedEnv data("XDG_DATA_HOME", root / "data");
        const std::string shared = (c.otherFileSystem ? shm.path() : root.path()) + "/shared/nb";
        const std::string own = root / "home/docs";
        fs::create_directories(shared);
        fs::create_directories(own);
        kvtest::writeFile(shared + "/x.exe", "found\n");
        kvtest::writeFile(own + "/x.exe", "the user's own\n");
        const auto swapFolder = [&] {
            fs::rename(shared, shared + ".moved");
            fs::create_directory_symlink(own, shared);
        };
        fs::create_directories(root / "data/Trash");
        if (c.swap == Swap::Trash)
            fs::create_directory_symlink(own, root / "data/Trash/files");
        if (c.swap == Swap::BeforeWalk)
            swapFolder();
        std::string error;
        std::optional<kv::WalkedFile> walked = kv::walkToFile(shared + "//x.exe", &error);
        if (c.swap == Swap::AfterWalk)
            swapFolder();
        kv::QuarantineRecords records(root / "data/korvane/quarantine.jsonl");
        const bool moved = walked && records.moveToTrash(*walked, &error);
        EXPECT_EQ(moved, !*c.error) << error;
        EXPECT_TRUE(*c.error ? error.find(c.error) != std::string::npos : error.empty()) << error;
        EXPECT_EQ(kvtest::readFile(own + "/x.exe"), "the user's own\n");
        const std::vector<QuarantineRecord> listed = records.current(&error);
        ASSERT_EQ(listed.size(), moved ? 1u : 0u);
        if (moved) {
            EXPECT_EQ(listed[0].originalPath, shared + "/x.exe") << "the path walked";
            EXPECT_EQ(kvtest::readFile(listed[0].storedPath), "found\n");
            EXPECT_FALSE(kvtest::exists(shared + ".moved/x.exe"));
            EXPECT_NE(kvtest::readFile(root / "data/Trash/info/x.exe.trashinfo").find("\nPath=" + shared + "/x.exe\n"),
                      std::string::npos);
        }
    }
}

} // namespace
