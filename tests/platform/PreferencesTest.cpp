// The shared preferences: the boolean rule, the domain search order, and
// places a load refuses. (Files that are not JSON objects: e2e.faults.)

#include "platform/Preferences.h"
#include "platform/Settings.h"
#include "tests/support/TestSupport.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>

#include <tuple>

namespace {

TEST(Preferences, BooleanRule)
{
    const std::vector<std::pair<QJsonValue, bool>> cases = {
        {true, true},       {false, false},     {1, true},          {0, false},        {-2.5, true},
        {"YES", true},      {"yes", true},      {"true", true},     {"T", true},       {"  y", true},
        {"+007", true},     {"-1", true},       {"0001", true},     {"000", false},    {"no", false},
        {"false", false},   {"", false},        {"  ", false},      {"both", false},   {"0x1", false},
        {QJsonArray{1}, false}, {QJsonObject{}, false}, {QJsonValue(), false},
    };
    for (const auto& [value, expected] : cases)
        EXPECT_EQ(kv::objectBoolValue(value), expected) << QJsonDocument(QJsonArray{value}).toJson().toStdString();
}

TEST(Preferences, OwnDomainFirstThenSuitesAndFreshAtEverySync)
{
    kvtest::TempDir folder;
    kv::JsonPreferences preferences("com.korvane.KorvaneVelgar", folder.path());
    preferences.addSuite("com.korvane.Korvane");
    preferences.addSuite("com.korvane.Korvane");
    kvtest::writeFile(folder / "com.korvane.KorvaneVelgar.json", R"({"A": "own", "N": null})");
    kvtest::writeFile(folder / "com.korvane.Korvane.json", R"({"A": "suite", "B": "suite", "N": "suite", "C": 3})");
    preferences.synchronize();

    EXPECT_EQ(preferences.string("A"), "own");
    EXPECT_EQ(preferences.string("B"), "suite");
    EXPECT_EQ(preferences.string("N"), "suite") << "a null value does not hide the suite's";
    EXPECT_EQ(preferences.string("C"), std::nullopt) << "a number is not a string";
    EXPECT_EQ(preferences.object("missing"), std::nullopt);

    kvtest::writeFile(folder / "com.korvane.KorvaneVelgar.json", R"({"A": "changed"})");
    EXPECT_EQ(preferences.string("A"), "own") << "nothing changes before the next synchronise";
    preferences.synchronize();
    EXPECT_EQ(preferences.string("A"), "changed");
}

// Infected files moved where another user could reach them could be swapped
// or taken back out: such a quarantine folder is not used, the load says
// why, and infected files are left where they are, with a warning.
TEST(Preferences, AQuarantineFolderOthersCouldReachTurnsQuarantiningIntoWarning)
{
    const uid_t nobody = ::getpwnam("nobody")->pw_uid;
    struct Case {
        std::vector<std::tuple<std::string, mode_t, uid_t>> folders;  // made in a private folder, in order
        std::string linkedTo;         // "q" is a link to it
        std::string quarantine;
        std::string refusal;          // "": used
    };
    const std::vector<Case> cases = {
        {{{"q", 0700, 0}}, "", "q", ""},
        {{}, "", "new/q", ""},
        {{{"q", 0777, 0}}, "", "q", "q may be written by other users"},
        {{{"q", 0700, nobody}}, "", "q", "q belongs to another user (nobody)"},
        {{{"shared", 0777, 0}, {"shared/q", 0700, 0}}, "", "shared/q", "shared may be written by other users"},
        {{{"tmp", 01777, 0}}, "", "tmp/q", "tmp/q does not exist, and other users may make it"},
        {{{"theirs", 0700, nobody}}, "theirs", "q", "theirs belongs to another user (nobody)"},
    };
    for (const Case& c : cases) {
        const kvtest::TempDir base;
        for (const auto& [name, mode, owner] : c.folders) {
            const std::string path = base / name;
            ASSERT_EQ(::mkdir(path.c_str(), 0700) | ::chmod(path.c_str(), mode), 0);
            ASSERT_EQ(::chown(path.c_str(), owner, 0), 0);
        }
        ASSERT_TRUE(c.linkedTo.empty() || ::symlink((base / c.linkedTo).c_str(), (base / "q").c_str()) == 0);
        kvtest::FakePreferences preferences;
        const std::string quarantine = base / c.quarantine;
        preferences.own = {{"VelgarQuarantineFiles", true}, {"QuarantineFolder", QString::fromStdString(quarantine)}};
        const std::shared_ptr<const kv::Settings> settings = kv::Settings::load(preferences);
        EXPECT_EQ(settings->quarantines(), c.refusal.empty()) << quarantine;
        const std::string said = c.refusal.empty() ? ""
                                                   : "The quarantine folder " + quarantine + " is refused: " +
                                                         base.path() + "/" + c.refusal;
        EXPECT_EQ(settings->problems.empty() ? "" : settings->problems[0].substr(0, said.size()), said) << quarantine;
    }
}

} // namespace
