// The shared preferences: the boolean rule, the domain search order and
// files that are not what they should be.

#include "platform/Preferences.h"
#include "tests/support/TestSupport.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>

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

TEST(Preferences, GarbageFileCountsAsEmptyAndIsLoggedOncePerLoad)
{
    kvtest::TempDir folder;
    kv::JsonPreferences preferences("own", folder.path());
    preferences.addSuite("suite");
    kvtest::writeFile(folder / "own.json", "{\"A\": tru");
    kvtest::writeFile(folder / "suite.json", "[1, 2]");
    kvtest::LogCapture log;
    preferences.synchronize();
    EXPECT_EQ(log.count((folder / "own.json") + " could not be read"), 1u);
    EXPECT_EQ(log.count("holds no JSON object"), 1u);
    EXPECT_EQ(preferences.object("A"), std::nullopt);
    preferences.synchronize();
    EXPECT_EQ(log.count((folder / "own.json") + " could not be read"), 2u);
}

} // namespace
