#pragma once

#include <cstdint>

constexpr int32_t RTP_HEADER_BYTES = 12; // RFC 3550, 5.1, without CSRC
