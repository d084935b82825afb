#include "demo/picture_decoder.h"

#include <algorithm>
#include <utility>

namespace demo {

namespace {

// Further ahead than this is another stream, not a loss.
constexpr uint32_t LONGEST_GAP = 10 * PICTURES_PER_SECOND;

} // namespace

std::vector<ShownPicture> PictureDecoder::OnPayload(std::span<const uint8_t> payload)
{
    for (const std::vector<uint8_t>& data : m_reader.OnPackets(payload))
        if (const auto slice = ReadSlice(data))
            Take(*slice);
    return std::exchange(m_done, {});
}

std::vector<ShownPicture> PictureDecoder::Finish()
{
    if (m_present) {
        m_present->holes = static_cast<int>(std::count(m_here.begin(), m_here.end(), false));
        m_done.push_back(std::move(*m_present));
        m_present.reset();
    }
    return std::exchange(m_done, {});
}

void PictureDecoder::Take(const Slice& slice)
{
    if (!m_present)
        Begin(slice.picture);
    if (slice.picture < m_present->number)
        return; // shown already
    ShowUntil(slice.picture);
    for (size_t at = 0, block = static_cast<size_t>(slice.firstBlock); at < slice.points.size();
         at += BLOCK_BYTES, ++block) {
        UnpackBlock(m_present->picture, static_cast<int>(block), slice.points.subspan(at, BLOCK_BYTES));
        m_here[block] = true;
    }
}

void PictureDecoder::ShowUntil(uint32_t number)
{
    while (m_present->number < number) {
        const auto next = static_cast<uint32_t>(m_present->number + 1);
        m_present->holes = static_cast<int>(std::count(m_here.begin(), m_here.end(), false));
        m_done.push_back(std::move(*m_present));
        Begin(number - next > LONGEST_GAP ? number : next);
    }
}

void PictureDecoder::Begin(uint32_t number)
{
    m_present.emplace(ShownPicture { number, Canvas(PICTURE_WIDTH, PICTURE_HEIGHT, {}), 0 });
    m_here.assign(BLOCKS, false);
    for (int block = 0; block < BLOCKS; ++block)
        DrawHole(m_present->picture, block);
}

} // namespace demo
