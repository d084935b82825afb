#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "arqctl/core/statistics.h"

namespace arqctl {

// Reads the proxy's replies. Whatever else a socket gave is refused as a whole: another program's greeting, half an
// answer. False leaves the result as it was.

// "RECV_PACKETS=%llu\nRECV_BITRATE=%d\nRECV_LOSS=%d\nSEND_PACKETS=%llu\nSEND_BITRATE=%d\nCLIENTS=%s": in this order, each once.
bool ParseStatistics(std::string_view reply, Statistics& statistics);

// Dotted addresses with commas between them; an empty text is an empty list. A reply is at most as long as its buffer in
// the proxy, which holds all 50.
bool ParseReceivers(std::string_view reply, std::vector<std::string>& receivers);

} // namespace arqctl
