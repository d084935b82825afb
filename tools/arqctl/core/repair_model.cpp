#include "arqctl/core/repair_model.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace arqctl {

namespace {

// What arqrx does, see its asker: behind the hold-off it waits a little, a gap counts as missing after half a packet's
// time, and at least a margin is left for the first try.
constexpr double GUARD_US = 5'000;
constexpr double MARGIN_US = 20'000;
constexpr double ENOUGH_FAIL = 1e-4;
constexpr double LEAST_SHARE
    = 1e-9; // rarer rows of packets that are lost one behind the other count as these
constexpr int64_t MOST_SAMPLES = 500; // of the packets of an outage

// One packet: what its tries leave of it, and how many numbers it takes.
struct Course {
    int tries = 0;
    double left = 1;
    double asked = 0;
};

class Courses {
public:
    explicit Courses(const RepairLine& line)
        : m_line(line),
          m_fRoundTripUs(static_cast<double>(line.roundTripUs)),
          m_fGapUs(1e6 / line.packetRate),
          m_fFail(FailingTries(line))
    {
    }

    // Of a packet whose gap shows so many packets later than it should have come.
    Course Of(double packetsLater) const
    {
        Course course;
        std::vector<double> answers; // when those of the tries so far are here
        size_t known = 0;
        double needed = 1; // the chance that none of these was a packet
        double atUs = packetsLater * m_fGapUs + ToleranceUs();
        while (IsWorthIt(atUs)) {
            for (; known < answers.size() && answers[known] <= atUs; ++known)
                needed *= m_fFail;
            course.asked += needed;
            course.left *= m_fFail;
            ++course.tries;
            answers.push_back(atUs + m_fRoundTripUs);
            atUs += WaitUs(atUs);
        }
        return course;
    }

private:
    // A single late packet is no loss.
    double ToleranceUs() const
    {
        const auto latencyUs = static_cast<double>(m_line.latencyUs);
        const double mostUs = latencyUs - m_fRoundTripUs - std::min(MARGIN_US, latencyUs / 4);
        return std::clamp(m_fGapUs / 2, 0.0, std::max(mostUs, 0.0));
    }

    bool IsWorthIt(double atUs) const
    {
        return atUs + m_fRoundTripUs < static_cast<double>(m_line.latencyUs)
            && atUs < static_cast<double>(m_line.reachPackets) * m_fGapUs;
    }

    // Where the answer takes longer than the hold-off it is waited for, unless the tries that are left would likely
    // fail.
    double WaitUs(double atUs) const
    {
        const double holdOffUs = static_cast<double>(m_line.holdOffUs) + GUARD_US;
        if (m_fRoundTripUs <= holdOffUs)
            return holdOffUs;
        const double leftUs = static_cast<double>(m_line.latencyUs) - atUs - m_fRoundTripUs;
        const double triesLeft = std::floor(std::max(leftUs, 0.0) / m_fRoundTripUs);
        return std::pow(m_fFail, 1 + triesLeft) > ENOUGH_FAIL ? holdOffUs : m_fRoundTripUs;
    }

    const RepairLine& m_line;
    const double m_fRoundTripUs;
    const double m_fGapUs;
    const double m_fFail;
};

// A gap shows when a later packet comes, and that may be lost too.
Course UntilNoticed(const Courses& courses, double firstLater, double loss)
{
    Course mean { courses.Of(firstLater).tries, 0, 0 };
    double rest = 1; // of the chance of all
    for (int lost = 0; rest > 0; ++lost) {
        const double share = rest < LEAST_SHARE ? rest : rest * (1 - loss);
        const Course one = courses.Of(firstLater + lost);
        mean.left += share * one.left;
        mean.asked += share * one.asked;
        rest -= share;
    }
    return mean;
}

} // namespace

double FailingTries(const RepairLine& line)
{
    return line.lossDown + line.lossUp - line.lossDown * line.lossUp;
}

Repair RepairOfRandomLoss(const RepairLine& line)
{
    const Course one = UntilNoticed(Courses(line), 1, line.lossDown);
    return { one.tries, line.lossDown * one.left, line.lossDown * one.asked };
}

Repair RepairOfOutage(const RepairLine& line, int64_t outageUs)
{
    const Courses courses(line);
    const double packets = std::max(1.0, std::round(static_cast<double>(outageUs) * line.packetRate / 1e6));
    const auto samples = static_cast<int64_t>(std::min(packets, static_cast<double>(MOST_SAMPLES)));
    Repair mean;
    mean.tries = courses.Of(packets).tries;
    for (int64_t i = 0; i < samples; ++i) {
        const double later = packets * (static_cast<double>(i) + 0.5) / static_cast<double>(samples) + 0.5;
        const Course one = UntilNoticed(courses, later, line.lossDown);
        mean.left += one.left / static_cast<double>(samples);
        mean.asked += one.asked / static_cast<double>(samples);
    }
    return mean;
}

} // namespace arqctl
