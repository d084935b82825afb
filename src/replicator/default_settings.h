#pragma once

#include <cstdint>

// What holds where the command line says nothing else.

constexpr uint16_t DEFAULT_DEST_PORT = 10000; // host order, as the next
constexpr uint16_t DEFAULT_ARQ_REQUEST_PORT = 7020;
constexpr uint16_t DEFAULT_STREAM1_PERCENT = 50; // %, of the first of two interfaces
constexpr int32_t DEFAULT_GROSS_MEDIA_BITRATE = 50000000; // bit/s
