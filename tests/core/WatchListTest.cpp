// The watched folder list the controller builds from "VelgarFolderArray":
// the list and subdirectory map the event intake filters by, and what the
// status menu hears of each record.

#include "app/KorvaneVelgar.h"
#include "tests/support/TestSupport.h"

#include <QJsonArray>

#include <gtest/gtest.h>

#include <filesystem>

namespace {

// "@" in a case stands for the home folder.
std::string atHome(std::string text, const std::string& home)
{
    if (const size_t at = text.find('@'); at != std::string::npos)
        text.replace(at, 1, home);
    return text;
}

struct Record {
    const char* pathName;
    QJsonValue watchSubdirs;  // Undefined: the key is missing
};

struct FolderCase {
    const char* name;
    std::optional<std::vector<Record>> records;  // nothing: no "VelgarFolderArray" at all
    std::vector<std::string> list;
    std::map<std::string, bool> checkSubDirs;
};

TEST(WatchedFolderList, IsBuiltFromThePreference)
{
    const QJsonValue missing(QJsonValue::Undefined);
    const std::vector<FolderCase> cases = {
        {"tilde", {{{"~/N", true}}}, {"@/N/"}, {{"@/N/", true}}},
        {"already one slash", {{{"@/N/", false}}}, {"@/N/"}, {{"@/N/", false}}},
        {"never two slashes", {{{"@/N//", true}}}, {"@/N/"}, {{"@/N/", true}}},
        {"plain file", {{{"@/file.txt", true}}}, {"@/file.txt"}, {{"@/file.txt", true}}},
        {"missing folder", {{{"@/gone", true}, {"@/N", missing}}}, {"@/N/"}, {{"@/N/", false}}},
        {"duplicates kept, later flag wins", {{{"@/N", true}, {"~/N/", "no"}}}, {"@/N/", "@/N/"}, {{"@/N/", false}}},
        {"flag by the boolean rule", {{{"@/N", "Yes"}}}, {"@/N/"}, {{"@/N/", true}}},
        {"empty array", std::vector<Record>{}, {}, {}},
        {"no preference", std::nullopt, {}, {}},
    };
    kvtest::TempDir home;
    kvtest::ScopedEnv homeEnv("HOME", home.path());
    std::filesystem::create_directories(home / "N");
    kvtest::writeFile(home / "file.txt", "x");

    for (const FolderCase& c : cases) {
        kvtest::FakePreferences preferences;
        kvtest::RecordingStatusMenu menu;
        std::vector<std::string> menuEntries;
        if (c.records) {
            QJsonArray array;
            for (const Record& record : *c.records) {
                QJsonObject entry{{"pathName", QString::fromStdString(atHome(record.pathName, home.path()))}};
                if (!record.watchSubdirs.isUndefined())
                    entry["WatchSubdirs"] = record.watchSubdirs;
                array.append(entry);
                menuEntries.push_back(atHome(record.pathName[0] == '~' ? std::string("@") + (record.pathName + 1)
                                                                       : record.pathName,
                                             home.path()));
            }
            preferences.own["VelgarFolderArray"] = array;
        }
        kv::ControllerParts parts;
        parts.velgarPrefs = &preferences;
        parts.mainMenu = &menu;
        parts.homeDirectory = home.path();
        parts.redirectToScanLog = false;
        kv::KorvaneVelgar controller(parts);

        controller.populateMenu(*kv::Settings::load(preferences));

        std::vector<std::string> list;
        for (const std::string& entry : c.list)
            list.push_back(atHome(entry, home.path()));
        std::map<std::string, bool> checkSubDirs;
        for (const auto& [path, flag] : c.checkSubDirs)
            checkSubDirs[atHome(path, home.path())] = flag;
        EXPECT_EQ(controller.getWatchedFolderList(), list) << c.name;
        EXPECT_EQ(controller.getCheckSubDirs(), checkSubDirs) << c.name;
        // Every record has its menu entry and counts towards readiness,
        // whether its path exists or not.
        EXPECT_EQ(menu.clears, 1) << c.name;
        EXPECT_EQ(menu.expected, static_cast<int>(menuEntries.size())) << c.name;
        EXPECT_EQ(menu.entries, menuEntries) << c.name;
        EXPECT_EQ(menu.readyCalls, static_cast<int>(menuEntries.size())) << c.name;
    }
}

} // namespace
