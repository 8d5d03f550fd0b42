#include "platform/Log.h"

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
