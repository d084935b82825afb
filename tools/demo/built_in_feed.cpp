#include <limits>
#include <utility>

#include "demo/feed.h"
#include "demo/picture_decoder.h"
#include "demo/test_stream.h"

namespace demo {

namespace {

// The numbers wrap soon after the beginning: everybody has to cope with that.
constexpr uint16_t FIRST_NUMBER = 65536 - 900;

class BuiltInFeed : public Feed {
public:
    bool Open() override { return true; }
    void Begin(int64_t nowUs) override { m_nStartUs = nowUs; }
    void End() override { m_nStartUs = NEVER; }
    void EndPlay() override { m_bEnded = true; }
    bool IsDecoded() const override { return m_bEnded; }
    std::string Name() const override { return "built-in test picture, 3.2 Mbit/s"; }

    int64_t NextWakeUs() const override
    {
        return m_nStartUs == NEVER ? NEVER : m_nStartUs + TestStream::TimeOf(m_stream.Made());
    }

    std::vector<std::vector<uint8_t>> Due(int64_t nowUs) override
    {
        std::vector<std::vector<uint8_t>> due;
        while (NextWakeUs() <= nowUs)
            due.push_back(m_stream.Next());
        return due;
    }

    void Play(Side side, std::span<const uint8_t> payload) override
    {
        Keep(side, m_decoders[Index(side)].OnPayload(payload));
    }

    void Decode(Gallery& gallery) override
    {
        for (const Side side : SIDES) {
            if (m_bEnded)
                Keep(side, m_decoders[Index(side)].Finish());
            for (ShownPicture& shown : std::exchange(m_shown[Index(side)], {}))
                gallery.Take(side, std::move(shown));
        }
    }

private:
    static constexpr int64_t NEVER = std::numeric_limits<int64_t>::max();

    void Keep(Side side, std::vector<ShownPicture>&& shown)
    {
        for (ShownPicture& picture : shown)
            m_shown[Index(side)].push_back(std::move(picture));
    }

    TestStream m_stream { FIRST_NUMBER };
    std::array<PictureDecoder, 2> m_decoders;
    std::array<std::vector<ShownPicture>, 2> m_shown; // not yet in the gallery
    int64_t m_nStartUs = NEVER;
    bool m_bEnded = false;
};

} // namespace

std::unique_ptr<Feed> MakeBuiltInFeed()
{
    return std::make_unique<BuiltInFeed>();
}

} // namespace demo
