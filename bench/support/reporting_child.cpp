#include "reporting_child.h"

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "figures.h"
#include "paced_stream.h"

namespace {

constexpr int64_t PATIENCE_NS = 5'000'000'000;
constexpr int64_t POLL_NS = 50'000'000;

std::string NextPath(const std::string& folder)
{
    static int s_next = 0;
    return folder + "/report_" + std::to_string(s_next++) + ".json";
}

// Through a shell, which alone can send the output to a file; the program then takes its place.
std::vector<std::string> WithOutput(const std::vector<std::string>& arguments, const std::string& path)
{
    std::vector<std::string> all { "/bin/sh", "-c", R"(out=$1; shift; exec "$@" >"$out" 2>&1)", "sh", path };
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
}

} // namespace

ReportingChild::ReportingChild(const std::string& folder, const std::vector<std::string>& arguments)
    : m_path(NextPath(folder)),
      m_child(WithOutput(arguments, m_path))
{
}

std::string ReportingChild::LastObject() const
{
    std::ifstream file(m_path);
    std::string last;
    for (std::string line; std::getline(file, line) && !file.eof();) // the last line may be a part of one
        last = line;
    return last;
}

double ReportingChild::Last(const std::string& name, double otherwise) const
{
    const std::string object = LastObject();
    const std::string mark = "\"" + name + "\":";
    const size_t place = object.find(mark);
    return place == std::string::npos ? otherwise
                                      : std::strtod(object.c_str() + place + mark.size(), nullptr);
}

double ReportingChild::Last(const std::string& name) const
{
    const int64_t end = WallNs() + PATIENCE_NS;
    while (true) {
        const double value = Last(name, NAN);
        if (!std::isnan(value))
            return value;
        if (WallNs() > end)
            GiveUp("no figure " + name + " in: " + LastObject());
        SleepUntil(WallNs() + POLL_NS);
    }
}

bool ReportingChild::WaitFor(const std::string& name, double value) const
{
    const int64_t end = WallNs() + PATIENCE_NS;
    while (Last(name) < value) {
        if (WallNs() > end)
            return false;
        SleepUntil(WallNs() + POLL_NS);
    }
    return true;
}
