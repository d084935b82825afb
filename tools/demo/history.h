#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace demo {

// Who receives: A asks for what is missing, B does not.
enum class Side : uint8_t { A, B };
constexpr std::array<Side, 2> SIDES { Side::A, Side::B };
constexpr size_t Index(Side side)
{
    return static_cast<size_t>(side);
}
constexpr char Letter(Side side)
{
    return side == Side::A ? 'A' : 'B';
}

// What became, on one side, of packets that the source sent in some stretch of time.
struct Losses {
    uint32_t missing = 0; // their first copy was lost
    uint32_t recovered = 0; // of these, played out all the same
    uint32_t lost = 0; // of these, gone for good; the rest may still come

    Losses& operator+=(const Losses& other);
    bool operator==(const Losses&) const = default;
};

struct Stretch {
    uint32_t sent = 0;
    std::array<Losses, 2> sides;
};

// The run in stretches of a tenth of a second, by the time at which the source sent. Threads: one.
class History {
public:
    static constexpr int64_t STRETCH_US = 100'000;

    explicit History(int64_t lengthUs);

    // The stretch of that time since the beginning; the first or last one when it is outside.
    Stretch& At(int64_t timeUs);
    std::span<const Stretch> All() const { return m_stretches; }
    // The sum over column `index` of `columns` that divide the run evenly.
    Stretch Column(int index, int columns) const;

private:
    std::vector<Stretch> m_stretches;
};

} // namespace demo
