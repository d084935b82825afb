#include "control/config_file.h"

#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "base/unique_fd.h"
#include "control/unix_address.h"
#include "support/allocation_hooks.h"
#include "support/temp_root.h"

namespace {

constexpr char ABSENT[] = "(absent)";

// The value of the key in the text.
std::string ValueIn(const std::string& text, const char* key)
{
    ConfigFile file;
    file.Parse(text.data(), text.size());
    const char* value = file.Get(key);
    return value != nullptr ? value : ABSENT;
}

TEST(ConfigFile, AKeyHasTheValueBehindItsEqualsSign)
{
    EXPECT_EQ(ValueIn("min_drop=5\n", "min_drop"), "5");
    EXPECT_EQ(ValueIn("min_drop=5", "min_drop"), "5");
    EXPECT_EQ(ValueIn("a=1\nmin_drop=5\nb=2\n", "min_drop"), "5");
    EXPECT_EQ(ValueIn("min_drop=5\r\n", "min_drop"), "5");
}

TEST(ConfigFile, CommentsAreSkippedAlsoBehindBlanks)
{
    EXPECT_EQ(ValueIn("#min_drop=5", "min_drop"), ABSENT);
    EXPECT_EQ(ValueIn("  # min_drop=5", "min_drop"), ABSENT);
    EXPECT_EQ(ValueIn("\t#min_drop=5\nmin_drop=6", "min_drop"), "6");
    EXPECT_EQ(ValueIn("min_drop=5 # five", "min_drop"), "5");
}

TEST(ConfigFile, BlanksAroundKeyAndValueAreDropped)
{
    EXPECT_EQ(ValueIn("min_drop = 7", "min_drop"), "7");
    EXPECT_EQ(ValueIn("\t min_drop\t=\t 7 \t", "min_drop"), "7");
    EXPECT_EQ(ValueIn("min_drop extra = 7 8", "min_drop"), "7");
}

TEST(ConfigFile, AKeyBeginsAtItsFirstLetter)
{
    EXPECT_EQ(ValueIn(" 2mode=2", "mode"), "2");
    EXPECT_EQ(ValueIn("__mode=2", "mode"), "2");
    EXPECT_EQ(ValueIn("m-2_x=2", "m-2_x"), "2");
    EXPECT_EQ(ValueIn("12=2", ""), "2");
    EXPECT_EQ(ValueIn("=2", ""), "2");
}

TEST(ConfigFile, AValueBeginsAtItsFirstLetterOrDigit)
{
    EXPECT_EQ(ValueIn("max_dist=-20", "max_dist"), "20");
    EXPECT_EQ(ValueIn("max_dist= +.x-1", "max_dist"), "x-1");
}

TEST(ConfigFile, AValueWithoutLetterOrDigitIsEmptyButThere)
{
    EXPECT_EQ(ValueIn("a=-", "a"), "");
    EXPECT_EQ(ValueIn("a=   ", "a"), "");
    EXPECT_EQ(ValueIn("a==", "a"), "");
    EXPECT_EQ(ValueIn("a==b", "a"), "");
}

TEST(ConfigFile, QuotedValuesEndAtTheClosingQuote)
{
    EXPECT_EQ(ValueIn("mode=\"2\"", "mode"), "2");
    EXPECT_EQ(ValueIn("mode=\"2\"  \t", "mode"), "2");
    EXPECT_EQ(ValueIn("mode=\" -a b \"", "mode"), " -a b ");
    EXPECT_EQ(ValueIn("mode=\"a\"b\"", "mode"), "a\"b");
    EXPECT_EQ(ValueIn("mode=\"\"", "mode"), "");
}

TEST(ConfigFile, WithoutAClosingQuoteTheRestOfTheLineIsTheValue)
{
    EXPECT_EQ(ValueIn("mode=\"2", "mode"), "2");
    EXPECT_EQ(ValueIn("mode=\"2  ", "mode"), "2  ");
    EXPECT_EQ(ValueIn("mode=\"a\" b ", "mode"), "a\" b ");
    EXPECT_EQ(ValueIn("mode=\"", "mode"), "");
    EXPECT_EQ(ValueIn("mode=\"  ", "mode"), "  ");
}

TEST(ConfigFile, AQuoteBehindABlankIsPunctuation)
{
    EXPECT_EQ(ValueIn("mode= \"2 3\"", "mode"), "2");
}

TEST(ConfigFile, ASecondEqualsSignAndAllBehindItAreDropped)
{
    EXPECT_EQ(ValueIn("a=b=c", "a"), "b");
    EXPECT_EQ(ValueIn("a=\"b=c\"", "a"), "b");
}

TEST(ConfigFile, AKeyGivenTwiceKeepsTheSecondValue)
{
    EXPECT_EQ(ValueIn("a=1\na=2\n", "a"), "2");
    EXPECT_EQ(ValueIn("a=1\na=\n", "a"), "1");
    EXPECT_EQ(ValueIn("a=1\na=-\n", "a"), "");
}

TEST(ConfigFile, LinesWithoutEqualsSignOrValueAreIgnored)
{
    EXPECT_EQ(ValueIn("a", "a"), ABSENT);
    EXPECT_EQ(ValueIn("a=", "a"), ABSENT);
    EXPECT_EQ(ValueIn("a=\nb=1", "b"), "1");
    EXPECT_EQ(ValueIn("\n\n   \nb=1", "b"), "1");
    EXPECT_EQ(ValueIn("", "a"), ABSENT);
}

TEST(ConfigFile, KeysAreMatchedWholeAndWithCase)
{
    EXPECT_EQ(ValueIn("mode=1", "Mode"), ABSENT);
    EXPECT_EQ(ValueIn("mode=1", "mod"), ABSENT);
    EXPECT_EQ(ValueIn("mode=1", "mode2"), ABSENT);
}

TEST(ConfigFile, TheTextEndsAtItsFirstZero)
{
    EXPECT_EQ(ValueIn(std::string("a=1\0b\nc=2", 9), "a"), "1");
    EXPECT_EQ(ValueIn(std::string("a=1\0b\nc=2", 9), "c"), ABSENT);
}

TEST(ConfigFile, AnAbsentKeyStaysAbsentHoweverOftenItIsLookedUp)
{
    ConfigFile file;
    file.Parse("a=1", 3);
    EXPECT_EQ(file.Get("b"), nullptr);
    EXPECT_EQ(file.Get("b"), nullptr);
    EXPECT_STREQ(file.Get("a"), "1");
}

TEST(ConfigFile, ReadingAgainForgetsWhatWasReadBefore)
{
    ConfigFile file;
    file.Parse("a=1", 3);
    EXPECT_EQ(file.Get("b"), nullptr);
    file.Parse("b=2", 3);
    EXPECT_EQ(file.Get("a"), nullptr);
    EXPECT_STREQ(file.Get("b"), "2");
}

TEST(ConfigFile, WithoutMemoryNothingIsRead)
{
    for (const int n : { 1, 2 }) {
        ConfigFile file;
        file.Parse("a=1", 3);
        {
            const test_support::FailNthAllocation failing(n);
            file.Parse("a=2", 3);
            EXPECT_TRUE(failing.Fired());
        }
        EXPECT_EQ(file.Get("a"), nullptr);
    }
}

class ConfigFileLoadTest : public testing::Test {
protected:
    std::string Path() const { return m_root.Path() + "/file"; }

    test_support::TempRoot m_root;
    ConfigFile m_file;
};

TEST_F(ConfigFileLoadTest, AFileIsReadWhole)
{
    std::string text = "first=1\n";
    for (int i = 0; i < 20000; ++i)
        text += "key" + std::to_string(i) + "=" + std::to_string(i) + "\n";
    text += "last=2";
    test_support::WriteFile(Path(), text);
    EXPECT_EQ(m_file.Load(Path().c_str()), 0);
    EXPECT_STREQ(m_file.Get("first"), "1");
    EXPECT_STREQ(m_file.Get("key19999"), "19999");
    EXPECT_STREQ(m_file.Get("last"), "2");
}

TEST_F(ConfigFileLoadTest, AMissingFileGivesTheResultOfStatAndNoKeys)
{
    m_file.Parse("a=1", 3);
    EXPECT_EQ(m_file.Load(Path().c_str()), -1);
    EXPECT_EQ(m_file.Get("a"), nullptr);
}

TEST_F(ConfigFileLoadTest, AnEmptyFileGivesNoKeys)
{
    m_file.Parse("a=1", 3);
    test_support::WriteFile(Path());
    EXPECT_EQ(m_file.Load(Path().c_str()), 0);
    EXPECT_EQ(m_file.Get("a"), nullptr);
}

TEST_F(ConfigFileLoadTest, AFileThatCannotBeOpenedGivesNoKeys)
{
    const UniqueFd listener(socket(AF_UNIX, SOCK_DGRAM, 0));
    const sockaddr_un address = UnixAddress(Path());
    ASSERT_EQ(bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    m_file.Parse("a=1", 3);
    EXPECT_EQ(m_file.Load(Path().c_str()), 0);
    EXPECT_EQ(m_file.Get("a"), nullptr);
}

TEST_F(ConfigFileLoadTest, AFifoOrAFolderGivesNoKeysAndDoesNotStall)
{
    ASSERT_EQ(mkfifo(Path().c_str(), 0600), 0);
    EXPECT_EQ(m_file.Load(Path().c_str()), 0);
    EXPECT_EQ(m_file.Get("a"), nullptr);
    EXPECT_EQ(m_file.Load(m_root.Path().c_str()), 0);
    EXPECT_EQ(m_file.Get("a"), nullptr);
}

TEST_F(ConfigFileLoadTest, AFileOfOneMebibyteIsReadAndALargerOneGivesNoKeys)
{
    constexpr size_t LIMIT = 1024 * 1024;
    const std::string setting = "mode=2\n";
    test_support::WriteFile(Path(), setting + std::string(LIMIT - setting.size(), '\n'));
    EXPECT_EQ(m_file.Load(Path().c_str()), 0);
    EXPECT_STREQ(m_file.Get("mode"), "2");
    test_support::WriteFile(Path(), setting + std::string(LIMIT - setting.size() + 1, '\n'));
    EXPECT_EQ(m_file.Load(Path().c_str()), 0);
    EXPECT_EQ(m_file.Get("mode"), nullptr);
}

TEST_F(ConfigFileLoadTest, WithoutMemoryForTheTextThereAreNoKeys)
{
    test_support::WriteFile(Path(), "a=1");
    const std::string path = Path();
    {
        const test_support::FailNthAllocation failing(1);
        EXPECT_EQ(m_file.Load(path.c_str()), 0);
        EXPECT_TRUE(failing.Fired());
    }
    EXPECT_EQ(m_file.Get("a"), nullptr);
}

// A plain reader of the same format, made of copies.
class PlainReader {
public:
    explicit PlainReader(std::string text)
    {
        text = text.substr(0, text.find('\0'));
        size_t start = 0;
        while (start <= text.size()) {
            const size_t end = std::min(text.find('\n', start), text.size());
            ReadLine(text.substr(start, end - start));
            start = end + 1;
        }
    }

    std::map<std::string, std::string> m_values;

private:
    static constexpr char SPACES[] = " \t\n\v\f\r";
    static constexpr char LETTERS[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";

    static std::string From(const std::string& text, const std::string& wanted)
    {
        const size_t at = text.find_first_of(wanted);
        return at == std::string::npos ? "" : text.substr(at);
    }
    static std::string FirstWord(const std::string& text)
    {
        return text.substr(0, text.find_first_of(SPACES));
    }

    void ReadLine(const std::string& line)
    {
        const size_t first = line.find_first_not_of(SPACES);
        const size_t equals = line.find('=');
        if (first == std::string::npos || line[first] == '#' || equals == std::string::npos
            || equals + 1 == line.size())
            return;
        std::string value = line.substr(equals + 1);
        value = value.substr(0, value.find('='));
        m_values[FirstWord(From(line.substr(0, equals), LETTERS))] = Value(value);
    }
    static std::string Value(const std::string& text)
    {
        if (text.empty() || text[0] != '"')
            return FirstWord(From(text, std::string(LETTERS) + "0123456789"));
        const std::string inner = text.substr(1);
        const size_t last = inner.find_last_not_of(SPACES);
        return last != std::string::npos && inner[last] == '"' ? inner.substr(0, last) : inner;
    }
};

TEST(ConfigFile, AgreesWithAPlainReaderForAnyBytes)
{
    std::mt19937 random(20240611);
    const std::string letters("aB1=\"# \t\r\n-_=\"\n=ab\xe4\v", 21);
    for (int round = 0; round < 30000; ++round) {
        std::string text(random() % 50, ' ');
        for (char& letter : text)
            letter
                = random() % 64 == 0 ? static_cast<char>(random() % 256) : letters[random() % letters.size()];
        const PlainReader expected(text);
        ConfigFile file;
        file.Parse(text.data(), text.size());
        for (const auto& [key, value] : expected.m_values) {
            const char* got = file.Get(key.c_str());
            ASSERT_NE(got, nullptr) << testing::PrintToString(text) << " key " << key;
            ASSERT_EQ(got, value) << testing::PrintToString(text) << " key " << key;
        }
        for (const char* key : { "a", "aB", "ab", "B", "a1", "b", "" }) {
            const bool isExpected = expected.m_values.count(key) != 0;
            ASSERT_EQ(file.Get(key) != nullptr, isExpected) << testing::PrintToString(text) << " key " << key;
        }
    }
}

} // namespace
