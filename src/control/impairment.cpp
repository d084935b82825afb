#include "control/impairment.h"

#include <cstdlib>

namespace {

constexpr int32_t RANDOM_MAX = 2147483647;

int32_t WrapAdd(int32_t a, int32_t b)
{
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

void SetRange(ImpairmentRange& range, int32_t min, int32_t max)
{
    range.m_min = min;
    range.m_max = max;
    range.m_range = WrapAdd(WrapAdd(max, 1), static_cast<int32_t>(0U - static_cast<uint32_t>(min)));
}

// Counts one packet; true while some are left.
bool Step(ImpairmentRange& range)
{
    range.m_value = WrapAdd(range.m_value, -1);
    return range.m_value >= 0;
}

} // namespace

void InitImpairment(Impairment& impair)
{
    impair.m_mode = IMPAIRMENT_OFF;
    SetRange(impair.m_burst, 1, 1);
    impair.m_burst.m_value = 1;
    SetRange(impair.m_dist, 100, 100);
    impair.m_dist.m_value = 99;
}

void ConfigureImpairment(Impairment& impair, const ImpairmentSettings& settings)
{
    impair.m_mode = settings.mode;
    SetRange(impair.m_burst, settings.minDrop, settings.maxDrop);
    SetRange(impair.m_dist, settings.minDist, settings.maxDist);
    ReArm(impair);
}

bool StepImpairment(Impairment& impair)
{
    const int32_t mode = impair.m_mode;
    if (mode != IMPAIRMENT_FIXED && mode != IMPAIRMENT_RANDOM)
        return false;
    if (Step(impair.m_dist))
        return false;
    if (Step(impair.m_burst))
        return true;
    ReArm(impair);
    return false;
}

void ReArm(Impairment& impair)
{
    if (impair.m_mode == IMPAIRMENT_RANDOM) {
        impair.m_burst.m_value = DrawBurst(impair.m_burst.m_min, impair.m_burst.m_range, rand());
        impair.m_dist.m_value = DrawDistance(impair.m_dist.m_min, impair.m_dist.m_range, rand());
        return;
    }
    impair.m_burst.m_value = impair.m_burst.m_min;
    impair.m_dist.m_value = WrapAdd(impair.m_dist.m_min, -1);
}

int32_t DrawBurst(int32_t min, int32_t range, int32_t random)
{
    const auto product = static_cast<int32_t>(static_cast<uint32_t>(random) * static_cast<uint32_t>(range));
    return WrapAdd(min, product / RANDOM_MAX);
}

int32_t DrawDistance(int32_t min, int32_t range, int32_t random)
{
    return WrapAdd(min, static_cast<int32_t>(static_cast<int64_t>(random) * range / RANDOM_MAX));
}
