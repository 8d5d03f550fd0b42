// The verdict cache on disk: what it trusts a verdict for, across objects
// (processes), and where it refuses to keep anything.

#include "platform/VerdictCache.h"
#include "tests/support/TestSupport.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

namespace {

const kv::FileIdentity kFile{7, 42, 1000, 1700000000, 123456789, 1700000001, 987654321};

TEST(VerdictCache, AVerdictHoldsForTheSameFileUnderTheSameDefinitionsOnly)
{
    kvtest::TempDir home;
    const std::string path = home / "korvane/verdicts.sqlite";
    {
        kv::VerdictCache cache(path);
        cache.rememberClean(kFile, "definitions-1");
    }
    struct stat info{};
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);

    kv::VerdictCache later(path);  // as another process finds it
    EXPECT_TRUE(later.knownClean(kFile, "definitions-1"));
    const std::vector<std::pair<const char*, std::function<void(kv::FileIdentity&)>>> changes = {
        {"another inode", [](kv::FileIdentity& f) { f.inode += 1; }},
        {"another size", [](kv::FileIdentity& f) { f.size += 1; }},
        {"contents changed a nanosecond later", [](kv::FileIdentity& f) { f.modifiedNanoseconds += 1; }},
        {"inode changed a nanosecond later", [](kv::FileIdentity& f) { f.changedNanoseconds += 1; }},
        {"inode changed a second later", [](kv::FileIdentity& f) { f.changedSeconds += 1; }},
    };
    for (const auto& [name, change] : changes) {
        kv::FileIdentity changed = kFile;
        change(changed);
        EXPECT_FALSE(later.knownClean(changed, "definitions-1")) << name;
    }
    EXPECT_FALSE(later.knownClean(kFile, "definitions-2"));
    // A changed file takes its row: the old verdict is gone.
    kv::FileIdentity rewritten = kFile;
    rewritten.size = 5;
    later.rememberClean(rewritten, "definitions-1");
    later.flush();
    EXPECT_FALSE(kv::VerdictCache(path).knownClean(kFile, "definitions-1"));
    EXPECT_TRUE(kv::VerdictCache(path).knownClean(rewritten, "definitions-1"));
}

TEST(VerdictCache, APlaceOthersCouldChangeKeepsNothingAndSaysSoOnce)
{
    const std::vector<std::pair<const char*, std::function<void(const std::string&)>>> places = {
        {"folder others may write", [](const std::string& folder) { ::chmod(folder.c_str(), 0777); }},
        {"link at the database's name",
         [](const std::string& folder) { std::filesystem::create_symlink(folder + "/elsewhere", folder + "/verdicts.sqlite"); }},
        {"folder that is a link",
         [](const std::string& folder) {
             std::filesystem::rename(folder, folder + ".real");
             std::filesystem::create_directory_symlink(folder + ".real", folder);
         }},
    };
    for (const auto& [name, spoil] : places) {
        kvtest::TempDir home;
        const std::string folder = home / "korvane";
        std::filesystem::create_directories(folder);
        spoil(folder);
        kvtest::LogCapture log;
        kv::VerdictCache cache(folder + "/verdicts.sqlite");
        cache.rememberClean(kFile, "d");
        cache.flush();
        EXPECT_FALSE(cache.knownClean(kFile, "d")) << name;
        EXPECT_FALSE(kvtest::exists(folder + "/elsewhere")) << name;
        EXPECT_EQ(log.count("cannot be used"), 1u) << name;
    }
}

} // namespace
