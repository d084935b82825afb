#include "main/options.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "arq/arq_settings.h"
#include "input/address.h"
#include "main/proxy_context.h"

namespace {

constexpr ParseResult GO_ON { true, 0 };
constexpr ParseResult DONE { false, EXIT_SUCCESS };
constexpr ParseResult BAD_ARGUMENTS { false, EXIT_BAD_ARGUMENTS };

// Eight options are left out on purpose: the text is for everyday use.
void PrintUsage(const char* program)
{
    fprintf(stderr, "Usage: %s [Net Tx Options] ListenUdpPort [ListenMulticastAddr]\n", program);
    fprintf(stderr, " Net Tx Options\n");
    fprintf(stderr, "  -a\t\tDestination IP Address or hostname\n");
    fprintf(stderr, "  -p\t\tDestination Udp port\n");
    fprintf(stderr, "  -r\t\tArq Request port\n");
    fprintf(stderr, "  -u\t\tUDP input mode\n");
    fprintf(stderr, "  -I\t\tInstance number\n");
    fprintf(stderr, "  -z\t\tLoad Encryption library\n");
    fprintf(stderr, "  -Z\t\tEncryption Password\n");
}

ParseResult PointToUsage(const char* program)
{
    fprintf(stderr, "Try '%s -h' for more information.\n", program);
    return BAD_ARGUMENTS;
}

// Reads `text` into `*target`, of which it keeps the low bits. `message` says what is wrong with it, with
// the program's name and the text.
template <typename Number>
ParseResult Keep(const char* text, Number* target, const char* message, const char* program)
{
    long number = 0;
    if (!ReadNumber(text, &number)) {
        // NOLINTNEXTLINE(clang-diagnostic-format-nonliteral): ours, all alike
        fprintf(stderr, message, program, text);
        return BAD_ARGUMENTS;
    }
    *target = static_cast<Number>(number);
    return GO_ON;
}

constexpr char BAD_PORT[] = "%s: invalid udp port: %s\n";

// Not fatal when it is no number: the setting stays as it was.
void SetArqBufferCount(const char* text, const char* program)
{
    long number = 0;
    if (!ReadNumber(text, &number)) {
        fprintf(stderr, "Invalid ARQ buffer size: %s\n", text);
        return;
    }
    const auto wanted = static_cast<int32_t>(number);
    g_nArqBufferCount = RoundUpToPowerOfTwo(wanted);
    if (g_nArqBufferCount != wanted)
        fprintf(stderr, "%s: %s buffer size changed to: %d\n", program, "ARQ", g_nArqBufferCount);
}

ParseResult ApplyOption(int option, const char* program, ProxyContext& context, MainSettings& settings)
{
    switch (option) {
    case '1':
        return Keep(optarg, &settings.stream1Percent, "%s: invalid nStream1Percent: %s\n", program);
    case 'a':
        context.destAddress = optarg;
        return GO_ON;
    case 'b':
        return Keep(optarg, &context.unicastUdpPort, BAD_PORT, program);
    case 'G':
        return Keep(optarg, &context.grossMediaBitrate, "%s: invalid gross media bit rate : %s\n", program);
    case 'h':
        PrintUsage(program);
        return DONE;
    case 'l':
        g_nDebugLevel = DebugLevel(std::strtol(optarg, nullptr, 10));
        return GO_ON;
    case 'n':
        return Keep(optarg, &settings.nStreams, "%s: invalid nStreams: %s\n", program);
    case 'p':
        return Keep(optarg, &context.destPort, BAD_PORT, program);
    case 'q':
        SetArqBufferCount(optarg, program);
        return GO_ON;
    case 'r':
        return Keep(optarg, &context.arqRequestPort, BAD_PORT, program);
    case 'u':
        context.udpInputMode = 1;
        return GO_ON;
    case 'I':
        return Keep(optarg, &context.instance, "%s: invalid instance: %s\n", program);
    case 'N':
        return GO_ON; // older start scripts give it
    case 'X':
        return Keep(optarg, &settings.pacingBitrate, "%s: invalid nPacingBitrate: %s\n", program);
    case 'z':
        settings.loadLibrary = true;
        return GO_ON;
    case 'Z':
        settings.password = *optarg != '\0' ? optarg : nullptr;
        return GO_ON;
    default:
        return PointToUsage(program); // getopt has said what is wrong
    }
}

void SetListenAddress(const char* text, ProxyContext& context)
{
    in_addr_t addressNet = 0;
    if (!ReadDottedQuad(text, &addressNet))
        return;
    context.multicastGroup = addressNet;
    char canonical[INET_ADDRSTRLEN] = "";
    (void)inet_ntop(AF_INET, &addressNet, canonical, sizeof(canonical));
    printf("Listening on multicast address %s\n", canonical);
}

} // namespace

ParseResult ParseOptions(int argc, char** argv, ProxyContext& context, MainSettings& settings)
{
    optind = 0; // from the start again, whatever another call left behind
    for (;;) {
        // NOLINTNEXTLINE(concurrency-mt-unsafe): only main's thread is there
        const int option = getopt(argc, argv, "1:a:b:G:hl:n:p:q:r:uI:N:X:zZ:");
        if (option == -1)
            return GO_ON;
        const ParseResult result = ApplyOption(option, argv[0], context, settings);
        if (!result.goOn)
            return result;
    }
}

ParseResult ParsePositionals(int argc, char** argv, ProxyContext& context)
{
    constexpr int MAX_POSITIONALS = 2;
    const int count = argc - optind;
    if (count < 1) {
        fprintf(stderr, "%s: missing arguments\n", argv[0]);
        return PointToUsage(argv[0]);
    }
    if (count > MAX_POSITIONALS) {
        fprintf(stderr, "%s: extra operand\n", argv[0]);
        return PointToUsage(argv[0]);
    }
    context.listenPort = static_cast<uint16_t>(std::strtol(argv[optind], nullptr, 10));
    if (count == MAX_POSITIONALS)
        SetListenAddress(argv[optind + 1], context);
    return GO_ON;
}

bool ReadNumber(const char* text, long* number)
{
    char* end = nullptr;
    *number = std::strtol(text, &end, 10);
    return *end == '\0';
}

int32_t RoundUpToPowerOfTwo(int32_t wanted)
{
    constexpr int32_t LARGEST = 1 << 30;
    int32_t size = 1;
    while (wanted > size && size < LARGEST)
        size *= 2;
    return size;
}

uint32_t DebugLevel(long number)
{
    constexpr uint16_t LEVELS = 10;
    const auto level = static_cast<uint16_t>(number);
    return level < LEVELS ? level : 0;
}
