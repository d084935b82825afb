#include "arqctl/core/option_words.h"

#include <gtest/gtest.h>

namespace arqctl {

TEST(WordsOfACommandLine, AreCutAsAShellCutsThem)
{
    std::vector<std::string> words;
    ASSERT_TRUE(CutWords("  -a 10.0.0.1,10.0.0.2\t-Z 'my \"word\"' \"a b\"c \\' '' \n5000 ", words));
    EXPECT_EQ(words,
        (std::vector<std::string> {
            "-a", "10.0.0.1,10.0.0.2", "-Z", "my \"word\"", "a bc", "'", "", "5000" }));
    ASSERT_TRUE(CutWords(" ", words));
    EXPECT_TRUE(words.empty());
}

TEST(WordsOfACommandLine, AnOpenQuoteIsNoText)
{
    std::vector<std::string> words { "stays" };
    for (const char* text : { "'", "a 'b", "\"b", "b\\", "\"\\\"" })
        EXPECT_FALSE(CutWords(text, words)) << text;
    EXPECT_EQ(words.size(), 1U);
}

} // namespace arqctl
