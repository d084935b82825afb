#pragma once

#include <string>

#include "arqctl/top/shown_proxy.h"

namespace arqctl::top {

// One proxy at one time as a line of text, ASCII, without a line feed:
// "14:02:31  1  good  in 12.3 Mbit/s  out 24.6 Mbit/s  lost 0/s  resent 12/s  withheld 0/s  receivers 2"
// and without an answer "14:02:31  1  NO PROXY: nobody listens on ...".
std::string PlainLine(const ShownProxy& proxy, const std::string& clock, int64_t nowUs);

} // namespace arqctl::top
