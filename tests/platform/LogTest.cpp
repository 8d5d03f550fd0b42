#include "platform/Log.h"
#include "platform/PathText.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

namespace {

void collect(const std::string& line, void* context) { static_cast<std::vector<std::string>*>(context)->push_back(line); }

TEST(Log, LineCarriesStampProcessAndOneNewline)
{
    std::vector<std::string> lines;
    kv::setLogObserver(collect, &lines);
    kv::nsLog("first");
    kv::nsLog("second\n");
    kv::nsLogf("value %d of %s", 3, "nine");
    kv::setLogObserver(nullptr, nullptr);

    ASSERT_EQ(lines.size(), 3u);
    const std::regex shape(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} korvane-velgar\[\d+:\d+\] first\n$)");
    EXPECT_TRUE(std::regex_match(lines[0], shape)) << lines[0];
    EXPECT_TRUE(lines[1].ends_with(" second\n")) << lines[1];
    EXPECT_FALSE(lines[1].ends_with("\n\n"));
    EXPECT_TRUE(lines[2].ends_with(" value 3 of nine\n"));
}

TEST(Log, StringPrintfHandlesLongText)
{
    const std::string longText(2000, 'x');
    EXPECT_EQ(kv::stringPrintf("<%s>", longText.c_str()).size(), 2002u);
}

} // namespace

// What the log, dialogs and notifications show for a name: exactly one
// path, and nothing that changes how the text around it reads.
TEST(DisplayText, EscapesWhatCouldForgeOrHideText)
{
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"/plain/ünïcödé 名前.pdf", "/plain/ünïcödé 名前.pdf"},
        {"/a\n/b: Eicar FOUND", "/a\\n/b: Eicar FOUND"},
        {"/evil\r", "/evil\\r"},
        {"/tab\there\x01", "/tab\\there\\x01"},
        {"/latin1-\xe9t\xe9", "/latin1-\\xe9t\\xe9"},
        {"/cut-\xc3", "/cut-\\xc3"},
        {"/back\\slash", "/back\\\\slash"},
        {"/report\u202efdp.exe", "/report\\u202efdp.exe"},
        {"/line\u2028sep\u0085", "/line\\u2028sep\\u0085"},
        // Names that would look like others: zero-width characters, a byte
        // order mark, odd spaces, private use, unassigned, a tag character.
        {"/pay\u200bpal\u200d\u2060\ufeff.exe", "/pay\\u200bpal\\u200d\\u2060\\ufeff.exe"},
        {"/no\u00a0break\u3000wide \u2009thin", "/no\\u00a0break\\u3000wide \\u2009thin"},
        {"/\ue000\U000f0000\u0378\U000e0001f", "/\\ue000\\U000f0000\\u0378\\U000e0001f"},
    };
    for (const auto& [bytes, shown] : cases)
        EXPECT_EQ(kv::displayText(bytes), shown) << shown;
}
