#pragma once

#include <cstdint>

#include "replicator/default_settings.h"

struct ProxyContext;

// What the command line gives besides the run context.
struct MainSettings {
    uint16_t stream1Percent = DEFAULT_STREAM1_PERCENT; // share of the first of two interfaces
    uint16_t nStreams = 0; // interfaces per configured stream; 0: leave it to routing
    int32_t pacingBitrate = 0; // bit/s; pacing is on from 1
    bool loadLibrary = false; // without a password
    const char* password = nullptr; // of the encryption library; points into argv, null for none
};

// Whether start-up goes on, or the exit status with which it ends.
struct ParseResult {
    bool goOn;
    int exitStatus;
};

constexpr int EXIT_BAD_ARGUMENTS = -1; // 255 to the shell

// Reads the options into both records and the process-wide settings. Prints its messages, the usage text
// and getopt's own diagnostics to standard error. Not for several threads at once: getopt has its state.
ParseResult ParseOptions(int argc, char** argv, ProxyContext& context, MainSettings& settings);

// Reads the positional arguments that ParseOptions left over: the listen port and perhaps an address to
// listen on, which is announced on standard output.
ParseResult ParsePositionals(int argc, char** argv, ProxyContext& context);

// Reads a whole decimal number as strtol does: leading blanks, a sign and an empty text (0) are accepted.
// False when characters follow the number or the text has no digits.
bool ReadNumber(const char* text, long* number);

// The smallest power of two that is not below `wanted`; 1 for 0 and negative numbers, and 2^30 at most.
int32_t RoundUpToPowerOfTwo(int32_t wanted);

// The debug level for the number given: 0 for anything from 10 on, by its low 16 bits.
uint32_t DebugLevel(long number);
