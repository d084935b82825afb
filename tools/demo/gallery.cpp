#include "demo/gallery.h"

#include <algorithm>
#include <utility>

#include "demo/font.h"
#include "demo/format.h"

namespace demo {

namespace {

constexpr size_t MOST_WAITING = 250; // pictures of one side without the other's, in case that one has none
constexpr int64_t US_PER_S = 1'000'000;

// Of each phase so many moments, evenly: more where there is more to see.
int MomentsOf(const Phase& phase)
{
    return phase.level == 1 ? 4 : phase.level == 2 ? 2 : 1;
}

uint64_t Difference(const Canvas& one, const Canvas& other)
{
    if (one.Bytes().size() != other.Bytes().size())
        return 0;
    uint64_t points = 0;
    for (size_t at = 0; at + 2 < one.Bytes().size(); at += 3) {
        int most = 0;
        for (size_t color = at; color < at + 3; ++color)
            most = std::max(most, std::abs(one.Bytes()[color] - other.Bytes()[color]));
        points += most > 24 ? 1 : 0;
    }
    return points;
}

int64_t TimeOf(uint64_t number, int picturesPerSecond)
{
    return static_cast<int64_t>(number) * US_PER_S / picturesPerSecond;
}

} // namespace

Gallery::Gallery(const std::vector<Phase>& phases, int picturesPerSecond)
    : m_nPicturesPerSecond(picturesPerSecond)
{
    for (const Phase& phase : phases) {
        const int64_t length = phase.endUs - phase.startUs, moments = MomentsOf(phase);
        for (int64_t part = 0; part < moments; ++part)
            m_slots.push_back({ phase.startUs + length * part / moments,
                phase.startUs + length * (part + 1) / moments, std::nullopt });
    }
}

void Gallery::Take(Side side, ShownPicture&& shown)
{
    const Side other = side == Side::A ? Side::B : Side::A;
    ++m_shown[Index(side)];
    m_damaged[Index(side)] += shown.holes > 0 ? 1 : 0;
    m_latest[Index(side)] = shown.picture;
    auto& theirs = m_waiting[Index(other)];
    const auto partner = theirs.find(shown.number);
    if (partner == theirs.end()) {
        auto& ours = m_waiting[Index(side)];
        ours.insert_or_assign(shown.number, std::move(shown.picture));
        if (ours.size() > MOST_WAITING)
            ours.erase(ours.begin());
        return;
    }
    Moment moment { shown.number, { std::move(shown.picture), std::move(partner->second) }, 0 };
    if (side == Side::B)
        std::swap(moment.pictures[0], moment.pictures[1]);
    theirs.erase(theirs.begin(), std::next(partner));
    moment.difference = Difference(moment.pictures[0], moment.pictures[1]);
    Offer(std::move(moment));
}

// Where nothing differs, the moment in the middle stands for all.
void Gallery::Offer(Moment&& moment)
{
    const int64_t time = TimeOf(moment.number, m_nPicturesPerSecond);
    for (Slot& slot : m_slots) {
        if (time < slot.startUs || time >= slot.endUs)
            continue;
        const bool isBefore = time <= (slot.startUs + slot.endUs) / 2;
        if (!slot.best || moment.difference > slot.best->difference
            || (isBefore && moment.difference == slot.best->difference))
            slot.best = std::move(moment);
        return;
    }
}

std::vector<Moment> Gallery::Moments() const
{
    std::vector<Moment> moments;
    for (const Slot& slot : m_slots)
        if (slot.best)
            moments.push_back(*slot.best);
    return moments;
}

const Canvas* Gallery::Latest(Side side) const
{
    const std::optional<Canvas>& latest = m_latest[Index(side)];
    return latest ? &*latest : nullptr;
}

Canvas DrawStrip(
    const std::vector<Moment>& moments, Side side, const std::vector<Phase>& phases, int picturesPerSecond)
{
    constexpr int COLUMNS = 4, GAP = 10, LABEL = 24, HEAD = 44, PICTURE = 320;
    constexpr Color PAPER { 24, 26, 30 }, INK { 235, 235, 230 }, FAINT { 160, 164, 172 };
    const int scale
        = moments.empty() ? 1 : std::max(1, PICTURE / std::max(1, moments[0].pictures[0].Width()));
    const int width = moments.empty() ? PICTURE : moments[0].pictures[0].Width() * scale;
    const int height = moments.empty() ? 0 : moments[0].pictures[0].Height() * scale;
    const int rows = (static_cast<int>(moments.size()) + COLUMNS - 1) / COLUMNS;
    Canvas strip(GAP + COLUMNS * (width + GAP), HEAD + rows * (height + LABEL + GAP), PAPER);
    strip.Text(
        GAP, 12, side == Side::A ? "A asks for what is missing" : "B: the same line, does not ask", 3, INK);
    for (int index = 0; index < static_cast<int>(moments.size()); ++index) {
        const Moment& moment = moments[static_cast<size_t>(index)];
        const int64_t time = TimeOf(moment.number, picturesPerSecond);
        const int x = GAP + index % COLUMNS * (width + GAP),
                  y = HEAD + index / COLUMNS * (height + LABEL + GAP);
        strip.Copy(x, y, moment.pictures[Index(side)], scale);
        const std::string label = Format("%.2f s", static_cast<double>(time) / US_PER_S);
        strip.Text(x, y + height + 6, label, 2, INK);
        strip.Text(x + TextWidth(label, 2) + 16, y + height + 6, PhaseAt(phases, time).name, 2, FAINT);
    }
    return strip;
}

} // namespace demo
