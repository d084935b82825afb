#include "demo/test_stream.h"

#include "demo/slice.h"
#include "demo/test_picture.h"

namespace demo {

namespace {

constexpr uint32_t SSRC = 0x64656D6F;
constexpr uint8_t RTP_VERSION = 0x80;
constexpr uint8_t MPEG_TS = 33;
constexpr uint64_t TICKS_PER_PICTURE = 90000 / PICTURES_PER_SECOND;
constexpr int64_t PICTURE_US = 1'000'000 / PICTURES_PER_SECOND;

constexpr int BlocksThatFit(size_t bytes)
{
    return static_cast<int>((bytes - SLICE_HEADER_BYTES) / BLOCK_BYTES);
}
constexpr int FIRST_BLOCKS = BlocksThatFit(FIRST_DATA_BYTES);
constexpr int PLAIN_BLOCKS = BlocksThatFit(PLAIN_DATA_BYTES);
static_assert(
    (BLOCKS - FIRST_BLOCKS + PLAIN_BLOCKS - 1) / PLAIN_BLOCKS + 1 == TestStream::DATAGRAMS_PER_PICTURE);

std::vector<std::vector<uint8_t>> Slices(uint32_t number)
{
    const Canvas picture = DrawTestPicture(number);
    std::vector<std::vector<uint8_t>> slices;
    for (int block = 0; block < BLOCKS;) {
        const int most = block == 0 ? FIRST_BLOCKS : PLAIN_BLOCKS;
        const int blocks = most < BLOCKS - block ? most : BLOCKS - block;
        slices.push_back(WriteSlice(picture, number, block, blocks));
        block += blocks;
    }
    return slices;
}

void PutBe(std::vector<uint8_t>& out, uint32_t value, int bytes)
{
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8)
        out.push_back(static_cast<uint8_t>(value >> shift));
}

} // namespace

int64_t TestStream::TimeOf(uint64_t index)
{
    return static_cast<int64_t>(index) * PICTURE_US / DATAGRAMS_PER_PICTURE;
}

std::vector<uint8_t> TestStream::Payload()
{
    const uint64_t picture = m_ulMade / DATAGRAMS_PER_PICTURE, slice = m_ulMade % DATAGRAMS_PER_PICTURE;
    if (slice == 0)
        m_slices = Slices(static_cast<uint32_t>(picture));
    const uint64_t ticks = picture * TICKS_PER_PICTURE;
    return slice == 0 ? m_writer.FirstDatagram(m_slices[slice], ticks)
                      : m_writer.Datagram(m_slices[slice], ticks);
}

std::vector<uint8_t> TestStream::Next()
{
    std::vector<uint8_t> datagram { RTP_VERSION, MPEG_TS };
    PutBe(datagram, m_usNumber++, 2);
    PutBe(datagram, static_cast<uint32_t>(m_ulMade / DATAGRAMS_PER_PICTURE * TICKS_PER_PICTURE), 4);
    PutBe(datagram, SSRC, 4);
    const std::vector<uint8_t> payload = Payload();
    datagram.insert(datagram.end(), payload.begin(), payload.end());
    ++m_ulMade;
    return datagram;
}

} // namespace demo
