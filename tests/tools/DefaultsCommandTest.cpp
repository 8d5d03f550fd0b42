#include "VelgarctlHarness.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace kvtest {
namespace {

// One JSON value from its text (velgarctl prints lone values bare).
QJsonValue parseValue(const std::string& text)
{
    return QJsonDocument::fromJson(QByteArray::fromStdString("[" + text + "]")).array().first();
}

using VelgarctlDefaults = VelgarctlTest;

TEST_F(VelgarctlDefaults, EveryTypeIsWrittenAndReadBack)
{
    struct Case {
        const char* type;
        const char* text;
        const char* expected;  // JSON
    };
    const Case cases[] = {
        {"-string", "two words", R"("two words")"},
        {"-bool", "YES", "true"},
        {"-bool", "False", "false"},
        {"-bool", "no", "false"},
        {"-int", "-42", "-42"},
        {"-int", "9007199254740992", "9007199254740992"},
        {"-float", "2.5", "2.5"},
        {"-json", R"({"pathName": "/x", "WatchSubdirs": false})", R"({"WatchSubdirs":false,"pathName":"/x"})"},
        {"-json", "[1, \"a\"]", "[1,\"a\"]"},
        {"-json", R"("text")", R"("text")"},
    };
    const std::string domain = "com.korvane.KorvaneVelgar";
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.type) + " " + c.text);
        const CommandResult write = runVelgarctl({"defaults", "write", domain, "key", c.type, c.text});
        ASSERT_EQ(write.status, 0) << write.err;
        EXPECT_EQ(write.err, "");

        const CommandResult read = runVelgarctl({"defaults", "read", domain, "key"});
        ASSERT_EQ(read.status, 0) << read.err;
        EXPECT_EQ(parseValue(read.out), parseValue(c.expected)) << read.out;
        // The agent reads the file itself.
        const QJsonObject stored = QJsonDocument::fromJson(QByteArray::fromStdString(readFile(domainFile(domain)))).object();
        EXPECT_EQ(stored.value("key"), parseValue(c.expected));
    }

    const CommandResult whole = runVelgarctl({"defaults", "read", domain});
    EXPECT_EQ(whole.status, 0);
    EXPECT_TRUE(QJsonDocument::fromJson(QByteArray::fromStdString(whole.out)).object().contains("key")) << whole.out;
    const CommandResult both = runVelgarctl({"defaults", "read"});
    EXPECT_EQ(both.status, 0);
    EXPECT_TRUE(QJsonDocument::fromJson(QByteArray::fromStdString(both.out)).object().contains("com.korvane.Korvane"));

    EXPECT_EQ(runVelgarctl({"defaults", "delete", domain, "key"}).status, 0);
    const CommandResult gone = runVelgarctl({"defaults", "read", domain, "key"});
    EXPECT_EQ(gone.status, 1);
    EXPECT_EQ(gone.out, "");
    EXPECT_EQ(std::count(gone.err.begin(), gone.err.end(), '\n'), 1) << gone.err;
    EXPECT_EQ(runVelgarctl({"defaults", "delete", domain, "key"}).status, 1);
}

struct RefusedCase {
    std::vector<std::string> arguments;
    const char* says = "";  // part of the one line of the refusal
};

// Every refusal is one line on standard error, status 2, before anything is
// written; a preferences file that is not valid JSON is never overwritten.
TEST_F(VelgarctlDefaults, BadInputChangesNothing)
{
    const std::string before = "{\n    \"kept\": 1\n}\n";
    const std::string garbage = "{\"PathToClamav\": \"/opt/clamav\",\n\x01 not json";
    writeFile(domainFile("com.x"), before);
    writeFile(domainFile("com.korvane.Korvane"), garbage);

    const std::vector<RefusedCase> cases = {
        {{"frobnicate"}},
        {{"defaults"}},
        {{"defaults", "rename", "com.x", "kept"}},
        {{"defaults", "write", "com.x", "kept", "-int", "1.5"}},
        {{"defaults", "write", "com.x", "kept", "-int", "9007199254740993"}},
        {{"defaults", "write", "com.x", "kept", "-bool", "maybe"}},
        {{"defaults", "write", "com.x", "kept", "-float", "nan"}},
        {{"defaults", "write", "com.x", "kept", "-json", "{\"a\":"}},
        {{"defaults", "write", "com.x", "kept", "-json", "1, 2"}},
        {{"defaults", "write", "com.x", "kept", "-date", "2024"}},
        {{"defaults", "write", "com.x", "kept", "-int"}},
        {{"defaults", "write", "com.x", "", "-int", "1"}},
        {{"defaults", "write", "../com.x", "kept", "-int", "1"}},
        {{"defaults", "write", "", "kept", "-int", "1"}},
        {{"defaults", "read", "com/x"}},
        {{"defaults", "delete", "com.x"}},
        {{"post"}},
        {{"post", "9Starts.with.digit"}},
        {{"restart", "now"}},
        {{"script", "anotherKey"}},
        {{"setup", "--frobnicate"}},
        {{"setup", "--watch"}},
        {{"setup", "--watch", "/no/such/folder"}},
        {{"setup", "--autostart", "--no-autostart"}},
        {{"setup", "--no-autostart", "--no-autostart"}},
        {{"setup", "--autostart", "--watch", home()}},
        {{"setup", "--no-autostart", "--no-subdirs"}},
        {{"setup", "--autostart=yes"}},
        // The address itself is the parser's test (ClamdConfig); here, that
        // its word reaches the user and how --engine goes with the rest.
        {{"setup", "--engine"}, "--engine needs HOST:PORT"},
        {{"setup", "--engine="}, "--engine needs HOST:PORT"},
        {{"setup", "--engine", "scanner"}, "--engine scanner: give HOST:PORT"},
        {{"setup", "--engine", "a:1", "--engine", "b:1"}, "--engine given twice"},
        {{"setup", "--engine", "a:1", "--own-engine"}, "give --own-engine or --engine, not both"},
        {{"setup", "--engine", "a:1", "--autostart"}, "stand alone"},
        {{"defaults", "write", "com.korvane.Korvane", "PathToClamav", "-string", "/x"}, "is not a valid preferences file"},
        {{"defaults", "delete", "com.korvane.Korvane", "PathToClamav"}, "is not a valid preferences file"},
        {{"setup", "--prefix", home() + "/prefix"}, "is not a valid preferences file"},
    };
    for (const RefusedCase& c : cases) {
        std::string joined;
        for (const std::string& argument : c.arguments)
            joined += argument + " ";
        SCOPED_TRACE(joined);
        const CommandResult result = runVelgarctl(c.arguments);
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
        EXPECT_EQ(result.err.rfind("velgarctl: ", 0), 0u) << result.err;
        EXPECT_NE(result.err.find(c.says), std::string::npos) << result.err;
        EXPECT_EQ(snapshotFiles(home()), (std::map<std::string, std::string>{
                                             {"/.config/korvane/com.x.json", before},
                                             {"/.config/korvane/com.korvane.Korvane.json", garbage}}));
        EXPECT_FALSE(exists(home() + "/prefix"));
    }

    EXPECT_EQ(runVelgarctl({"defaults", "read", "com.korvane.Korvane"}).status, 1);
    const CommandResult bare = runVelgarctl({});
    EXPECT_EQ(bare.status, 2);
    EXPECT_NE(bare.err.find("usage:"), std::string::npos);
    const CommandResult help = runVelgarctl({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("defaults write DOMAIN KEY"), std::string::npos);
}

} // namespace
} // namespace kvtest
