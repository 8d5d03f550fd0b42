// clamdscan's output turned into results: lines split between reads, names
// of any bytes, findings with and without their moves, lines spelled by
// names, an unreachable daemon, the summary.

#include "scan/ClamdscanOutput.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

// Every event as one line of text, in order.
class RecordingReader : public kv::ClamdscanOutput::Reader {
public:
    std::vector<std::string> events;
    void result(kv::ScanResult r) override
    {
        const char* verdict[] = {"clean", "infected", "error"};
        events.push_back(std::string(verdict[static_cast<int>(r.verdict)]) + " [" + r.path + "] [" + r.detail + "]" +
                         (r.movedTo ? " -> [" + *r.movedTo + "]" : ""));
    }
    void unreachable(std::string_view line) override { events.push_back("unreachable " + std::string(line)); }
    void message(std::string_view line) override { events.push_back("message " + std::string(line)); }
    void unexpected(std::string_view line) override { events.push_back("unexpected " + std::string(line)); }
};

TEST(ClamdscanOutput, LinesBecomeResultsMovesAndMessages)
{
    const kv::AskedPaths asked{"/a", "/long/path", "/caf\xc3\xa9", "/odd\xff", "/4: E FOUND", "/q/e.com", "/x"};
    struct Case {
        const char* name;
        std::vector<std::string> chunks;
        std::vector<std::string> events;
    };
    const std::vector<Case> cases = {
        {"one line", {"/a: OK\n"}, {"clean [/a] []"}},
        {"a line split between reads", {"/long/pa", "th: OK\n"}, {"clean [/long/path] []"}},
        {"cut inside a multi-byte character", {"/caf\xc3", "\xa9: OK\n"}, {"clean [/caf\xc3\xa9] []"}},
        {"a name that is not UTF-8", {"/odd\xff: E FOUND\n/a: OK\n"}, {"infected [/odd\xff] [E]", "clean [/a] []"}},
        {"a name that holds a result", {"/4: E FOUND: E.UNOFFICIAL FOUND\n"}, {"infected [/4: E FOUND] [E.UNOFFICIAL]"}},
        {"the move completes the finding",
         {"/q/e.com: Eicar FOUND\n/q/e.com: moved to '/t/files/e.com'\n"},
         {"infected [/q/e.com] [Eicar] -> [/t/files/e.com]"}},
        {"a finding is handed over at the end", {"/q/e.com: Eicar FOUND"}, {"infected [/q/e.com] [Eicar]"}},
        {"a finding for a path not asked about", {"/elsewhere: E FOUND\n"}, {"unexpected /elsewhere: E FOUND"}},
        {"a move of a file not found", {"/a: moved to '/t/files/a'\n"}, {"unexpected /a: moved to '/t/files/a'"}},
        {"a move of another file after a finding",
         {"/q/e.com: Eicar FOUND\n/a: moved to '/t/files/a'\n"},
         {"infected [/q/e.com] [Eicar]", "unexpected /a: moved to '/t/files/a'"}},
        {"an error with colons in its reason",
         {"/x: lstat() failed: No such file or directory. ERROR\n"},
         {"error [/x] [lstat() failed: No such file or directory.]"}},
        {"FOUND not at the end", {"/x: FOUND it OK\n"}, {"message /x: FOUND it OK"}},
        {"summary dropped, short lines kept",
         {"a\n\n----------- SCAN SUMMARY -----------\nInfected files: 1\nTotal errors: 1\nTime: 0.1 sec\n"
          "Start Date: 2026:11:23 18:52:10\nEnd Date:   2026:11:23 18:52:10\n"},
         {"message a"}},
        {"the first unreachable line stands for all, an old warning every time",
         {"WARNING: Can't connect to clamd.\nERROR: Could not connect to clamd on LocalSocket /s: refused\n"
          "ERROR: Could not connect to clamd on LocalSocket /s: refused\nWARNING: Can't connect to clamd.\n"},
         {"unreachable WARNING: Can't connect to clamd.", "unreachable ERROR: Could not connect to clamd on LocalSocket /s: refused",
          "message ERROR: Could not connect to clamd on LocalSocket /s: refused",
          "unreachable WARNING: Can't connect to clamd."}},
        {"a warning with more text is a message",
         {"WARNING: Can't connect to clamd. Retrying\n"},
         {"message WARNING: Can't connect to clamd. Retrying"}},
    };
    for (const Case& c : cases) {
        RecordingReader reader;
        kv::ClamdscanOutput output(asked, reader);
        for (const std::string& chunk : c.chunks)
            output.feed(chunk);
        output.finish();
        EXPECT_EQ(reader.events, c.events) << c.name;
    }
}

TEST(ClamdscanOutput, ListFileCarriesOnlyWhatItsLinesHoldWhole)
{
    EXPECT_TRUE(kv::listFileCanCarry("/home/u/caf\xc3\xa9 and: colons.txt"));
    for (const std::string& path : {std::string("/a\nb"), std::string("/a\r"), std::string("/odd\xff"),
                                    "/" + std::string(kv::kLongestListedPath, 'x')})
        EXPECT_FALSE(kv::listFileCanCarry(path)) << path;
}

} // namespace
