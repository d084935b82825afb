#include "main/options.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "arq/arq_settings.h"
#include "main/proxy_context.h"

namespace {

constexpr char USAGE[] = "Usage: prog [Net Tx Options] ListenUdpPort [ListenMulticastAddr]\n"
                         " Net Tx Options\n"
                         "  -a\t\tDestination IP Address or hostname\n"
                         "  -p\t\tDestination Udp port\n"
                         "  -r\t\tArq Request port\n"
                         "  -u\t\tUDP input mode\n"
                         "  -I\t\tInstance number\n"
                         "  -z\t\tLoad Encryption library\n"
                         "  -Z\t\tEncryption Password\n";

constexpr char TRY[] = "Try 'prog -h' for more information.\n";

// An argument vector as main gets it, with memory that stays. The program's name is "prog".
class Arguments {
public:
    Arguments(std::initializer_list<const char*> arguments) : m_texts(arguments.begin(), arguments.end())
    {
        m_texts.insert(m_texts.begin(), "prog");
        for (std::string& text : m_texts)
            m_pointers.push_back(text.data());
        m_pointers.push_back(nullptr);
    }
    int Count() const { return static_cast<int>(m_texts.size()); }
    char** Pointers() { return m_pointers.data(); }

private:
    std::vector<std::string> m_texts;
    std::vector<char*> m_pointers;
};

class OptionsTest : public testing::Test {
protected:
    OptionsTest()
    {
        g_nArqBufferCount = 4096;
        g_nDebugLevel = 0;
    }
    ~OptionsTest() override
    {
        g_nArqBufferCount = 4096;
        g_nDebugLevel = 0;
    }

    // Both streams are kept in m_stderr and m_stdout.
    ParseResult Parse(Arguments& arguments, bool withPositionals = false)
    {
        testing::internal::CaptureStderr();
        testing::internal::CaptureStdout();
        ParseResult result = ParseOptions(arguments.Count(), arguments.Pointers(), m_context, m_settings);
        if (result.goOn && withPositionals)
            result = ParsePositionals(arguments.Count(), arguments.Pointers(), m_context);
        m_stdout = testing::internal::GetCapturedStdout();
        m_stderr = testing::internal::GetCapturedStderr();
        return result;
    }

    void ExpectAccepted(std::initializer_list<const char*> options)
    {
        const ParseResult result = Parse(m_accepted.emplace(options));
        EXPECT_TRUE(result.goOn);
        EXPECT_EQ(m_stderr, "");
        EXPECT_EQ(m_stdout, "");
    }

    void ExpectRejected(std::initializer_list<const char*> options, const std::string& message)
    {
        Arguments arguments(options);
        const ParseResult result = Parse(arguments);
        EXPECT_FALSE(result.goOn) << message;
        EXPECT_EQ(result.exitStatus, -1) << message;
        EXPECT_EQ(m_stderr, message);
        EXPECT_EQ(m_stdout, "");
    }

    std::optional<Arguments> m_accepted; // the context refers to them
    ProxyContext m_context;
    MainSettings m_settings;
    std::string m_stdout;
    std::string m_stderr;
};

// ---- Defaults

TEST_F(OptionsTest, WithoutOptionsEverySettingHasItsDefault)
{
    ExpectAccepted({});
    EXPECT_EQ(m_context.destPort, 10000);
    EXPECT_EQ(m_context.arqRequestPort, 7020);
    EXPECT_EQ(m_context.unicastUdpPort, 0);
    EXPECT_EQ(m_context.grossMediaBitrate, 50000000);
    EXPECT_EQ(m_context.udpInputMode, 0);
    EXPECT_STREQ(m_context.destAddress, "");
    EXPECT_EQ(m_context.instance, 1);
    EXPECT_EQ(m_settings.stream1Percent, 50);
    EXPECT_EQ(m_settings.nStreams, 0);
    EXPECT_EQ(m_settings.pacingBitrate, 0);
    EXPECT_FALSE(m_settings.loadLibrary);
    EXPECT_EQ(m_settings.password, nullptr);
    EXPECT_EQ(g_nArqBufferCount, 4096);
    EXPECT_EQ(g_nDebugLevel, 0U);
}

// ---- One option at a time

TEST_F(OptionsTest, EachNumberGoesIntoItsSetting)
{
    ExpectAccepted({ "-1", "70", "-b", "5001", "-G", "20000000", "-n", "2", "-p", "5002", "-r", "5003", "-I",
        "7", "-X", "6000000" });
    EXPECT_EQ(m_settings.stream1Percent, 70);
    EXPECT_EQ(m_context.unicastUdpPort, 5001);
    EXPECT_EQ(m_context.grossMediaBitrate, 20000000);
    EXPECT_EQ(m_settings.nStreams, 2);
    EXPECT_EQ(m_context.destPort, 5002);
    EXPECT_EQ(m_context.arqRequestPort, 5003);
    EXPECT_EQ(m_context.instance, 7);
    EXPECT_EQ(m_settings.pacingBitrate, 6000000);
}

TEST_F(OptionsTest, AnArgumentMayStandDirectlyBehindItsLetter)
{
    ExpectAccepted({ "-p5002", "-uzX100" });
    EXPECT_EQ(m_context.destPort, 5002);
    EXPECT_EQ(m_context.udpInputMode, 1);
    EXPECT_TRUE(m_settings.loadLibrary);
    EXPECT_EQ(m_settings.pacingBitrate, 100);
}

TEST_F(OptionsTest, TheLastOfTwoCounts)
{
    ExpectAccepted({ "-p", "1", "-p", "2", "-a", "first", "-a", "second" });
    EXPECT_EQ(m_context.destPort, 2);
    EXPECT_STREQ(m_context.destAddress, "second");
}

TEST_F(OptionsTest, TheDestinationIsKeptAsGiven)
{
    ExpectAccepted({ "-a", " 10.0.0.1,host name,, " });
    EXPECT_STREQ(m_context.destAddress, " 10.0.0.1,host name,, ");
}

TEST_F(OptionsTest, ADestinationOfAnyLengthIsKeptWhole)
{
    for (const size_t length : { size_t { 2047 }, size_t { 2048 }, size_t { 2049 }, size_t { 100000 } }) {
        const std::string text(length, 'a');
        ExpectAccepted({ "-a", text.c_str() });
        EXPECT_EQ(m_context.destAddress, text);
    }
}

TEST_F(OptionsTest, UdpInputModeIsSwitchedOn)
{
    ExpectAccepted({ "-u" });
    EXPECT_EQ(m_context.udpInputMode, 1);
}

TEST_F(OptionsTest, AnythingBehindNIsIgnored)
{
    ExpectAccepted({ "-N", "anything", "-p", "3" });
    EXPECT_EQ(m_context.destPort, 3);
    ExpectAccepted({ "-N", "-h" }); // its argument, not an option
}

TEST_F(OptionsTest, TheLibraryIsAskedForWithoutAPassword)
{
    ExpectAccepted({ "-z" });
    EXPECT_TRUE(m_settings.loadLibrary);
    EXPECT_EQ(m_settings.password, nullptr);
}

TEST_F(OptionsTest, ThePasswordIsKept)
{
    Arguments arguments { "-Z", "secret word" };
    EXPECT_TRUE(Parse(arguments).goOn);
    EXPECT_STREQ(m_settings.password, "secret word");
    EXPECT_FALSE(m_settings.loadLibrary);
}

TEST_F(OptionsTest, AnEmptyPasswordIsNone)
{
    ExpectAccepted({ "-Z", "" });
    EXPECT_EQ(m_settings.password, nullptr);
}

// ---- Numbers

TEST_F(OptionsTest, SixteenBitSettingsKeepTheirLowBits)
{
    ExpectAccepted({ "-p", "70000", "-r", "65535", "-b", "65536", "-1", "-1", "-n", "131075" });
    EXPECT_EQ(m_context.destPort, 4464);
    EXPECT_EQ(m_context.arqRequestPort, 65535);
    EXPECT_EQ(m_context.unicastUdpPort, 0);
    EXPECT_EQ(m_settings.stream1Percent, 65535);
    EXPECT_EQ(m_settings.nStreams, 3);
}

TEST_F(OptionsTest, ThirtyTwoBitSettingsMayBeNegative)
{
    ExpectAccepted({ "-G", "-5", "-I", "-6", "-X", "-7" });
    EXPECT_EQ(m_context.grossMediaBitrate, -5);
    EXPECT_EQ(m_context.instance, -6);
    EXPECT_EQ(m_settings.pacingBitrate, -7);
}

TEST_F(OptionsTest, AnEmptyNumberIsZero)
{
    ExpectAccepted({ "-p", "", "-r", "", "-b", "", "-1", "", "-n", "", "-G", "", "-I", "", "-X", "" });
    EXPECT_EQ(m_context.destPort, 0);
    EXPECT_EQ(m_context.arqRequestPort, 0);
    EXPECT_EQ(m_context.unicastUdpPort, 0);
    EXPECT_EQ(m_settings.stream1Percent, 0);
    EXPECT_EQ(m_settings.nStreams, 0);
    EXPECT_EQ(m_context.grossMediaBitrate, 0);
    EXPECT_EQ(m_context.instance, 0);
    EXPECT_EQ(m_settings.pacingBitrate, 0);
}

TEST_F(OptionsTest, LeadingBlanksAndASignAreAccepted)
{
    ExpectAccepted({ "-p", " \t 12", "-r", "+13", "-n", " -1" });
    EXPECT_EQ(m_context.destPort, 12);
    EXPECT_EQ(m_context.arqRequestPort, 13);
    EXPECT_EQ(m_settings.nStreams, 65535);
}

TEST_F(OptionsTest, NumbersAreDecimal)
{
    ExpectAccepted({ "-p", "010" });
    EXPECT_EQ(m_context.destPort, 10);
    ExpectRejected({ "-p", "0x10" }, "prog: invalid udp port: 0x10\n");
}

TEST_F(OptionsTest, EachBadNumberHasItsMessage)
{
    struct {
        const char* option;
        const char* message;
    } const cases[] = {
        { "-1", "prog: invalid nStream1Percent: 12x\n" },
        { "-b", "prog: invalid udp port: 12x\n" },
        { "-G", "prog: invalid gross media bit rate : 12x\n" },
        { "-n", "prog: invalid nStreams: 12x\n" },
        { "-p", "prog: invalid udp port: 12x\n" },
        { "-r", "prog: invalid udp port: 12x\n" },
        { "-I", "prog: invalid instance: 12x\n" },
        { "-X", "prog: invalid nPacingBitrate: 12x\n" },
    };
    for (const auto& c : cases)
        ExpectRejected({ c.option, "12x", "-p", "5002" }, c.message);
    EXPECT_EQ(m_context.destPort, 10000); // nothing behind a bad option is looked at
}

TEST_F(OptionsTest, TextWithoutDigitsIsRejected)
{
    for (const char* text : { "abc", " ", "+", "-", "- 1", "x12" })
        ExpectRejected({ "-p", text }, std::string("prog: invalid udp port: ") + text + "\n");
    ExpectRejected({ "-p", "12 " }, "prog: invalid udp port: 12 \n");
}

TEST_F(OptionsTest, ABadNumberLeavesItsSetting)
{
    ExpectRejected({ "-G", "1Mbit" }, "prog: invalid gross media bit rate : 1Mbit\n");
    EXPECT_EQ(m_context.grossMediaBitrate, 50000000);
}

// ---- -q

TEST_F(OptionsTest, APowerOfTwoIsTakenSilentlyAsTheBufferCount)
{
    for (const int32_t size : { 1, 2, 4096, 8192, 1 << 30 }) {
        ExpectAccepted({ "-q", std::to_string(size).c_str() });
        EXPECT_EQ(g_nArqBufferCount, size);
    }
}

TEST_F(OptionsTest, OtherBufferCountsAreRoundedUpWithAMessage)
{
    struct {
        const char* text;
        int32_t size;
    } const cases[] = {
        { "5000", 8192 }, { "3000", 4096 }, { "3", 4 }, { "0", 1 }, { "", 1 }, { "-1", 1 }, { "-4096", 1 },
        { "1073741823", 1 << 30 }, { "1073741825", 1 << 30 }, { "2147483647", 1 << 30 },
        { "2147483648", 1 }, // its low 32 bits are the smallest number
    };
    for (const auto& c : cases) {
        Arguments arguments { "-q", c.text };
        const ParseResult result = Parse(arguments);
        EXPECT_TRUE(result.goOn) << c.text;
        EXPECT_EQ(g_nArqBufferCount, c.size) << c.text;
        EXPECT_EQ(m_stderr, "prog: ARQ buffer size changed to: " + std::to_string(c.size) + "\n") << c.text;
    }
}

TEST_F(OptionsTest, AnUnreadableBufferCountIsReportedAndParsingGoesOn)
{
    g_nArqBufferCount = 64;
    Arguments arguments { "-q", "abc", "-p", "5002" };
    const ParseResult result = Parse(arguments);
    EXPECT_TRUE(result.goOn);
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(m_stderr, "Invalid ARQ buffer size: abc\n");
    EXPECT_EQ(g_nArqBufferCount, 64);
    EXPECT_EQ(m_context.destPort, 5002);
}

// ---- -l

TEST_F(OptionsTest, TheDebugLevelIsZeroFromTenOn)
{
    struct {
        const char* text;
        uint32_t level;
    } const cases[] = { { "0", 0 }, { "1", 1 }, { "9", 9 }, { "10", 0 }, { "12", 0 }, { "65535", 0 },
        { "65536", 0 }, { "65545", 9 }, { "65546", 0 }, { "-1", 0 }, { "abc", 0 }, { "", 0 }, { "5x", 5 } };
    for (const auto& c : cases) {
        g_nDebugLevel = 3;
        ExpectAccepted({ "-l", c.text });
        EXPECT_EQ(g_nDebugLevel, c.level) << c.text;
    }
}

// ---- Help and unknown options

TEST_F(OptionsTest, HelpPrintsTheUsageTextAndEndsWithStatusZero)
{
    Arguments arguments { "-h" };
    const ParseResult result = Parse(arguments);
    EXPECT_FALSE(result.goOn);
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(m_stderr, USAGE);
    EXPECT_EQ(m_stdout, "");
}

TEST_F(OptionsTest, OptionsBehindHelpAreNotLookedAt)
{
    Arguments arguments { "-p", "3", "-h", "-p", "4", "-G", "x", "-?" };
    const ParseResult result = Parse(arguments);
    EXPECT_FALSE(result.goOn);
    EXPECT_EQ(result.exitStatus, 0);
    EXPECT_EQ(m_stderr, USAGE);
    EXPECT_EQ(m_context.destPort, 3);
}

TEST_F(OptionsTest, AnUnknownOptionPointsToTheUsageText)
{
    ExpectRejected({ "-y" }, std::string("prog: invalid option -- 'y'\n") + TRY);
    ExpectRejected({ "-1", "5", "-2" }, std::string("prog: invalid option -- '2'\n") + TRY);
}

TEST_F(OptionsTest, AnOptionWithoutItsArgumentPointsToTheUsageText)
{
    for (const char letter : std::string("1abGlnpqrINXZ")) {
        const std::string option { '-', letter };
        ExpectRejected(
            { option.c_str() }, std::string("prog: option requires an argument -- '") + letter + "'\n" + TRY);
    }
}

TEST_F(OptionsTest, UAndLittleZTakeNoArgument)
{
    Arguments arguments { "-u", "-z", "1234" };
    EXPECT_TRUE(Parse(arguments, true).goOn);
    EXPECT_EQ(m_context.listenPort, 1234);
}

TEST_F(OptionsTest, ParsingStartsAgainAtTheFirstArgumentEachTime)
{
    ExpectAccepted({ "-p", "1", "-r", "2", "-b", "3" });
    ExpectAccepted({ "-p", "4" });
    EXPECT_EQ(m_context.destPort, 4);
}

// ---- Positional arguments

TEST_F(OptionsTest, TheFirstPositionalIsTheListenPort)
{
    struct {
        const char* text;
        uint16_t port;
    } const cases[] = { { "5000", 5000 }, { "65535", 65535 }, { "70000", 4464 }, { "12x", 12 }, { "abc", 0 },
        { "", 0 }, { " 7", 7 } };
    for (const auto& c : cases) {
        Arguments arguments { "-p", "3", c.text };
        EXPECT_TRUE(Parse(arguments, true).goOn) << c.text;
        EXPECT_EQ(m_context.listenPort, c.port) << c.text;
        EXPECT_EQ(m_stderr + m_stdout, "") << c.text;
        EXPECT_EQ(m_context.multicastGroup, 0U);
    }
}

TEST_F(OptionsTest, ANegativeListenPortStandsBehindTwoDashes)
{
    Arguments arguments { "--", "-1" };
    EXPECT_TRUE(Parse(arguments, true).goOn);
    EXPECT_EQ(m_context.listenPort, 65535);
}

TEST_F(OptionsTest, AnyDottedQuadIsAnnouncedAsAMulticastAddress)
{
    struct {
        const char* text;
        const char* canonical;
    } const cases[]
        = { { "239.1.1.1", "239.1.1.1" }, { "10.1.1.1", "10.1.1.1" }, { "010.001.001.001", "10.1.1.1" },
              { "0.0.0.0", "0.0.0.0" }, { "255.255.255.255", "255.255.255.255" } };
    for (const auto& c : cases) {
        Arguments arguments { "5000", c.text };
        EXPECT_TRUE(Parse(arguments, true).goOn) << c.text;
        EXPECT_EQ(m_context.multicastGroup, inet_addr(c.canonical)) << c.text;
        EXPECT_EQ(m_stdout, std::string("Listening on multicast address ") + c.canonical + "\n");
        EXPECT_EQ(m_stderr, "");
    }
}

TEST_F(OptionsTest, ASecondPositionalThatIsNoDottedQuadIsIgnoredSilently)
{
    for (const char* text : { "localhost", "10.1.1", "10", "10.1.1.256", "239.100.100.1000", "" }) {
        Arguments arguments { "5000", text };
        EXPECT_TRUE(Parse(arguments, true).goOn) << text;
        EXPECT_EQ(m_context.listenPort, 5000);
        EXPECT_EQ(m_context.multicastGroup, 0U) << text;
        EXPECT_EQ(m_stderr + m_stdout, "") << text;
    }
}

TEST_F(OptionsTest, NoPositionalIsAnError)
{
    Arguments arguments { "-p", "3" };
    const ParseResult result = Parse(arguments, true);
    EXPECT_FALSE(result.goOn);
    EXPECT_EQ(result.exitStatus, -1);
    EXPECT_EQ(m_stderr, std::string("prog: missing arguments\n") + TRY);
    EXPECT_EQ(m_stdout, "");
}

TEST_F(OptionsTest, MoreThanTwoPositionalsAreAnError)
{
    Arguments arguments { "5000", "239.1.1.1", "x" };
    const ParseResult result = Parse(arguments, true);
    EXPECT_FALSE(result.goOn);
    EXPECT_EQ(result.exitStatus, -1);
    EXPECT_EQ(m_stderr, std::string("prog: extra operand\n") + TRY);
    EXPECT_EQ(m_stdout, "");
    EXPECT_EQ(m_context.listenPort, 0);
    EXPECT_EQ(m_context.multicastGroup, 0U);
}

// ---- The functions alone

TEST(ReadNumber, RejectsOnlyWhatIsNotReadToItsEnd)
{
    long number = 99;
    EXPECT_TRUE(ReadNumber("", &number));
    EXPECT_EQ(number, 0);
    EXPECT_TRUE(ReadNumber(" -12", &number));
    EXPECT_EQ(number, -12);
    EXPECT_FALSE(ReadNumber("12x", &number));
    EXPECT_FALSE(ReadNumber(" ", &number));
    EXPECT_TRUE(ReadNumber("99999999999999999999", &number)); // overflow is not checked
    EXPECT_EQ(number, LONG_MAX);
}

TEST(RoundUpToPowerOfTwo, DoublesUntilTheNumberIsReached)
{
    struct {
        int32_t wanted;
        int32_t size;
    } const cases[] = { { INT32_MIN, 1 }, { -1, 1 }, { 0, 1 }, { 1, 1 }, { 2, 2 }, { 3, 4 }, { 4, 4 },
        { 5, 8 }, { 4095, 4096 }, { 4096, 4096 }, { 4097, 8192 }, { (1 << 30) - 1, 1 << 30 },
        { 1 << 30, 1 << 30 }, { (1 << 30) + 1, 1 << 30 }, { INT32_MAX, 1 << 30 } };
    for (const auto& c : cases)
        EXPECT_EQ(RoundUpToPowerOfTwo(c.wanted), c.size) << c.wanted;
}

TEST(DebugLevel, IsTheLowSixteenBitsIfTheyAreBelowTen)
{
    EXPECT_EQ(DebugLevel(9), 9U);
    EXPECT_EQ(DebugLevel(10), 0U);
    EXPECT_EQ(DebugLevel(0x10009), 9U);
    EXPECT_EQ(DebugLevel(-65536), 0U);
    EXPECT_EQ(DebugLevel(-65535), 1U);
}

} // namespace
