#include "arqrx/program/report_address.h"

#include <unistd.h>

#include <algorithm>
#include <array>

#include "arqrx/program/options.h"

namespace arqrx {

bool IsReportText(const std::string& text, size_t longest)
{
    return !text.empty() && text.size() <= longest && std::none_of(text.begin(), text.end(), [](char c) {
        return static_cast<unsigned char>(c) < ' ' || c == '\x7F';
    });
}

bool ParseReportAddress(const std::string& text, ReportAddress& address, std::string& problem)
{
    const size_t slash = text.find('/');
    ReportAddress found;
    if (!ParseHost(text.substr(0, slash), found.host, found.port) || found.port == 0) {
        problem = "'" + text + "' is not HOST:PORT or HOST:PORT/CHANNEL";
        return false;
    }
    if (slash != std::string::npos) {
        found.channel = text.substr(slash + 1);
        if (!IsReportText(found.channel, LONGEST_REPORT_CHANNEL)) {
            problem = "the channel behind the slash has 1 to 128 bytes and no control characters";
            return false;
        }
    }
    address = found;
    return true;
}

std::string HostName()
{
    std::array<char, LONGEST_REPORT_NAME + 1> name {};
    if (gethostname(name.data(), name.size() - 1) != 0 || name[0] == '\0')
        return "arqrx";
    return name.data();
}

} // namespace arqrx
