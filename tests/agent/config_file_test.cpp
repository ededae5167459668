// Configuration files: what is refused, where, and what reaches the segment.
#include "configuration/config_file.h"

#include <gtest/gtest.h>

#include <cstring>

#include "configuration/config_block.h"

namespace tolvane::agent {
namespace {

std::string repeat(int times, const std::string& text) {
    std::string result;
    for (int i = 0; i < times; ++i) {
        std::string copy = text;
        for (std::size_t at; (at = copy.find('#')) != std::string::npos;) {
            copy.replace(at, 1, std::to_string(i));
        }
        result += copy;
    }
    return result;
}

TEST(ConfigFile, NamesThePlaceOfEachFault) {
    struct Case {
        std::string text;
        std::vector<std::string> expected;  // "line:column: beginning or part of the message"
    };
    const std::string site = "[[site]]\nname = \"a\"\n";
    const std::string category = site + "[[site.category]]\nlabel = \"c\"\n";
    const Case cases[] = {
        {"interval = 0\n", {"1:12: interval is 0 seconds; write 1 to 86400"}},
        {"interval = 86401\n", {"1:12: "}},
        {"interval = 1.5\n", {"1:12: interval is a floating-point number"}},
        {"interval = \"5\"\n", {"1:12: interval is a string"}},
        {"intervall = 5\n", {"1:1: unknown key 'intervall' at the top; did you mean 'interval'?"}},
        {"\n  colour = 5\n", {"2:3: unknown key 'colour' at the top; known here: interval, site"}},
        {"interval = \n", {"1:12: not valid TOML"}},
        {"[site]\nname = \"a\"\n", {"1:1: 'site' is a table; begin each entry with [[site]]"}},
        {"[[site]]\n", {"1:1: the site has no name"}},
        {"[[site]]\nname = 5\n", {"2:8: name is an integer"}},
        {"[[site]]\nname = \"*.a\"\n", {"2:8: name \"*.a\": host names have no wildcards"}},
        {site + "hosts = \"b\"\n", {"3:9: hosts is a string; write a list"}},
        {site + "hosts = [\"b\", \"A\"]\n", {"3:15: \"A\" is already in line 2"}},
        {site + "hosts = [\"a:8080\", \"a:80\"]\n", {"3:20: \"a:80\" is already in line 2"}},
        {site + "hosts = [\"b\",\n  \"c:x\"]\n", {"4:3: host \"c:x\": 'x' is not a port"}},
        {site + "hosts = [" + repeat(7, "\"h#\",") + "]\n", {"3:40: this is number 7 of 7"}},
        {site + "categories = []\n", {"3:1: unknown key 'categories' in a site; known here"}},
        {site + "[site.category]\nlabel = \"c\"\n", {"3:1: 'category' is a table"}},
        {site + "[[site.category]]\nurls = [\"/\"]\n", {"3:1: the category has no label"}},
        {category, {"3:1: the category has no patterns"}},
        {category + "urls = []\n", {"5:8: a category without patterns"}},
        {category + "urls = \"/\"\n", {"5:8: urls is a string"}},
        {category + "urls = [\"/a\", \"b\", 3]\n",
         {"5:15: url \"b\": a URL begins with '/'", "5:20: url is"}},
        {category + "urls = [" + repeat(7, "\"/#\",") + "]\n", {"5:39: this is number 7 of 7"}},
        {category + "urls = [\"/\"]\n[[site.category]]\nlabel = \"c\"\nurls = [\"/\"]\n",
         {"7:9: label \"c\" is already in line 4"}},
        {site + "[[site.category]]\nlabel = \"" + std::string(64, 'x') + "\"\nurls = [\"/\"]\n",
         {"4:9: the label has 64 bytes; write 1 to 63"}},
        {site + "[[site.category]]\nlabel = \"\"\nurls = [\"/\"]\n",
         {"4:9: the label has 0 bytes"}},
        {repeat(11, "[[site]]\nname = \"s#\"\n"), {"21:1: this is number 11 of 11"}},
        {site + repeat(16, "[[site.category]]\nlabel = \"#\"\nurls = [\"/\"]\n"),
         {"48:1: this is number 16 of 16"}},
        {"interval = 0\n[[site]]\nname = \"\"\n", {"1:12: ", "3:8: name \"\": an empty name"}},
    };
    for (const Case& c : cases) {
        ConfigFile file = parseConfigFile(c.text);
        ASSERT_EQ(file.complaints.size(), c.expected.size()) << c.text;
        for (std::size_t i = 0; i < c.expected.size(); ++i) {
            const Complaint& complaint = file.complaints[i];
            std::string said = std::to_string(complaint.line) + ":" +
                               std::to_string(complaint.column) + ": " + complaint.text;
            EXPECT_EQ(said.substr(0, c.expected[i].size()), c.expected[i]) << said;
        }
    }
}

TEST(ConfigFile, FullCapacityFits) {
    std::string text = "interval = 86400\n";
    for (int s = 0; s < kMaxSites; ++s) {
        std::string own = "s" + std::to_string(s) + std::string(125, 'n');
        text += "[[site]]\nname = \"" + own + "\"\nhosts = [";
        text += repeat(kMaxExtraHosts, "\"h" + std::to_string(s) + "x#\",") + "]\n";
        std::string urls =
            repeat(kMaxSections, "\"/#" + repeat(5, "*" + std::string(47, 'p')) + "\",");
        text += repeat(kMaxCategories, "[[site.category]]\nlabel = \"#" + std::string(61, 'l') +
                                           "\"\nurls = [" + urls + "]\n");
    }
    ConfigFile file = parseConfigFile(text);
    ASSERT_TRUE(file.complaints.empty()) << file.complaints[0].text;
    auto block = buildConfigBlock(file.model);
    EXPECT_EQ(block->numSites, 10);
    EXPECT_EQ(block->interval, 86400);
    EXPECT_EQ(std::strlen(block->siteName[9]), 127U);
    EXPECT_EQ(block->numHosts[9], 6);
    EXPECT_STREQ(block->hostName[9][5], "h9x5");
    EXPECT_EQ(block->numCategories[9], 15);
    const CategoryConfig& last = block->categories[9][14];
    EXPECT_EQ(last.numSections, 6);
    EXPECT_EQ(last.sections[5].numPieces, 6);
    EXPECT_STREQ(last.sections[5].piece[0], "/5");
    EXPECT_EQ(last.sections[5].pieceLength[5], 47);
}

}  // namespace
}  // namespace tolvane::agent
