// The watch list a start of watching makes from "VelgarFolderArray": which
// records it keeps and what each admits.

#include "intake/WatchList.h"
#include "platform/Settings.h"
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

TEST(WatchList, IsMadeFromThePreference)
{
    const QJsonValue missing(QJsonValue::Undefined);
    struct Case {
        const char* name;
        std::optional<std::vector<Record>> records;  // nothing: no "VelgarFolderArray" at all
        std::vector<std::pair<const char*, bool>> admits;
    };
    const std::vector<Case> cases = {
        {"tilde, with subfolders", {{{"~/N", true}}}, {{"@/N/x", true}, {"@/N/sub/x", true}, {"@/Nx", false}}},
        {"already one slash, alone", {{{"@/N/", false}}}, {{"@/N/x", true}, {"@/N/sub/x", false}}},
        {"never two slashes", {{{"@/N//", true}}}, {{"@/N/sub/x", true}}},
        {"a plain file", {{{"@/file.txt", true}}}, {{"@/file.txt", true}, {"@/file.txt2", true}, {"@/other", false}}},
        {"a missing folder is left out", {{{"@/gone", true}, {"@/N", missing}}},
         {{"@/gone/x", false}, {"@/N/x", true}, {"@/N/sub/x", false}}},
        {"listed twice, the later flag wins", {{{"@/N", true}, {"~/N/", "no"}}}, {{"@/N/x", true}, {"@/N/sub/x", false}}},
        {"flag by the boolean rule", {{{"@/N", "Yes"}}}, {{"@/N/sub/x", true}}},
        {"empty array", std::vector<Record>{}, {{"@/N/x", false}}},
        {"no preference", std::nullopt, {{"@/N/x", false}}},
    };
    kvtest::TempDir home;
    kvtest::ScopedEnv homeEnv("HOME", home.path());
    std::filesystem::create_directories(home / "N");
    kvtest::writeFile(home / "file.txt", "x");

    for (const Case& c : cases) {
        kvtest::FakePreferences preferences;
        if (c.records) {
            QJsonArray array;
            for (const Record& record : *c.records) {
                QJsonObject entry{{"pathName", QString::fromStdString(atHome(record.pathName, home.path()))}};
                if (!record.watchSubdirs.isUndefined())
                    entry["WatchSubdirs"] = record.watchSubdirs;
                array.append(entry);
            }
            preferences.own["VelgarFolderArray"] = array;
        }
        const std::shared_ptr<const kv::WatchList> list =
            kv::WatchList::ofFolders(kv::Settings::load(preferences)->watchedFolders, {});
        for (const auto& [path, admitted] : c.admits)
            EXPECT_EQ(list->admits(atHome(path, home.path())), admitted) << c.name << ": " << path;
    }
}

} // namespace
