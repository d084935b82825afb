#include "demo/encoder_feed.h"

#include <algorithm>
#include <limits>

#include "common/datagrams.h"
#include "common/udp_socket.h"
#include "demo/child.h"
#include "demo/format.h"

namespace demo {

namespace {

constexpr int FRAME_WIDTH = 320;
constexpr int FRAME_HEIGHT = 180;
constexpr size_t PICTURE_BYTES = size_t { 3 } * FRAME_WIDTH * FRAME_HEIGHT;
constexpr size_t RTP_BYTES = 12;
constexpr int ENCODER_BUFFER_BYTES = 4 << 20;
constexpr int SPARE_SECONDS = 60; // the encoder is stopped; this is for when we are gone

Canvas PictureOf(std::span<const uint8_t> bytes)
{
    Canvas picture(FRAME_WIDTH, FRAME_HEIGHT, {});
    for (int y = 0; y < FRAME_HEIGHT; ++y)
        for (int x = 0; x < FRAME_WIDTH; ++x) {
            const auto at = static_cast<size_t>(y * FRAME_WIDTH + x) * 3;
            picture.Point(x, y, { bytes[at], bytes[at + 1], bytes[at + 2] });
        }
    return picture;
}

// One side's decoder: payloads go in as it takes them, pictures come out.
class Decoder {
public:
    bool Start(VideoTool tool) { return m_child.Start(DecoderCommand(tool), Child::Pipes::Data); }
    void Play(std::span<const uint8_t> payload)
    {
        m_pending.insert(m_pending.end(), payload.begin(), payload.end());
    }
    void EndPlay() { m_bEnding = true; }
    bool IsOver() const { return m_child.OutputFd() < 0; }
    int ReadFd() const { return m_child.OutputFd(); }
    int WriteFd() const { return m_pending.empty() ? -1 : m_child.InputFd(); }
    Child& Process() { return m_child; }

    void Move(Side side, Gallery& gallery)
    {
        m_child.ReadMessages();
        const size_t written = m_child.Write(m_pending);
        m_pending.erase(m_pending.begin(), m_pending.begin() + static_cast<ptrdiff_t>(written));
        if (m_child.InputFd() < 0)
            m_pending.clear(); // it takes no more
        if (m_bEnding && m_pending.empty())
            m_child.CloseInput();
        const std::vector<uint8_t> bytes = m_child.ReadOutput();
        m_picture.insert(m_picture.end(), bytes.begin(), bytes.end());
        size_t done = 0;
        for (; m_picture.size() - done >= PICTURE_BYTES; done += PICTURE_BYTES)
            gallery.Take(
                side, { m_ulNumber++, PictureOf(std::span(m_picture).subspan(done, PICTURE_BYTES)), 0 });
        m_picture.erase(m_picture.begin(), m_picture.begin() + static_cast<ptrdiff_t>(done));
    }

private:
    Child m_child;
    std::vector<uint8_t> m_pending; // not yet taken
    std::vector<uint8_t> m_picture; // not yet whole
    uint64_t m_ulNumber = 0;
    bool m_bEnding = false;
};

class EncoderFeed : public Feed {
public:
    EncoderFeed(VideoTool tool, int seconds) : m_tool(tool), m_nSeconds(seconds) {}

    bool Open() override
    {
        for (Decoder& decoder : m_decoders)
            if (!decoder.Start(m_tool))
                return Fail("the decoder cannot be started");
        constexpr int TRIES = 50;
        for (int attempt = 0; attempt < TRIES; ++attempt)
            if (BindPair())
                return true;
        return Fail("the source has no socket: " + m_media.Problem());
    }

    void Begin(int64_t) override
    {
        if (!m_encoder.Start(EncoderCommand(m_tool, m_media.Local().port, m_nSeconds + SPARE_SECONDS),
                Child::Pipes::Messages))
            (void)Fail("the encoder cannot be started");
    }

    std::vector<std::vector<uint8_t>> Due(int64_t) override
    {
        std::vector<std::vector<uint8_t>> due;
        for (int count; m_media.IsOpen() && (count = m_reader.Read(m_media.Fd())) > 0;)
            for (int index = 0; index < count; ++index)
                if (const auto datagram = m_reader.Data(index);
                    datagram.size() >= RTP_BYTES && datagram[0] >> 6 == 2)
                    due.emplace_back(datagram.begin(), datagram.end());
        return due;
    }

    int64_t NextWakeUs() const override { return std::numeric_limits<int64_t>::max(); }

    void End() override
    {
        m_bEnded = true;
        m_encoder.Kill();
        m_media.Close();
        m_control.Close();
    }

    void Play(Side side, std::span<const uint8_t> payload) override { m_decoders[Index(side)].Play(payload); }

    void EndPlay() override
    {
        for (Decoder& decoder : m_decoders)
            decoder.EndPlay();
    }

    void Decode(Gallery& gallery) override
    {
        for (const Side side : SIDES)
            m_decoders[Index(side)].Move(side, gallery);
    }

    bool IsDecoded() const override { return std::ranges::all_of(m_decoders, &Decoder::IsOver); }

    std::vector<int> ReadFds() const override
    {
        return { m_media.Fd(), m_encoder.MessagesFd(), m_decoders[0].ReadFd(), m_decoders[1].ReadFd() };
    }
    std::vector<int> WriteFds() const override
    {
        return { m_decoders[0].WriteFd(), m_decoders[1].WriteFd() };
    }

    std::string Problem() override
    {
        m_encoder.ReadMessages();
        if (m_problem.empty() && !m_bEnded && m_encoder.Status())
            (void)Fail("the encoder ended by itself: " + m_encoder.LastLine()
                + "; ./demo --builtin does without it");
        return m_problem;
    }

    std::string Name() const override
    {
        return m_tool == VideoTool::Ffmpeg ? "ffmpeg's MPEG-2 picture, 2.5 Mbit/s"
                                           : "GStreamer's H.264 picture, 2.5 Mbit/s";
    }

private:
    bool Fail(const std::string& why)
    {
        m_problem = why;
        return false;
    }

    // Media to one port; RTCP goes to the one above, which has to be ours too.
    bool BindPair()
    {
        if (!m_media.Open() || !m_media.Bind({ LOOPBACK, 0 }))
            return false;
        m_media.SetBuffers(ENCODER_BUFFER_BYTES, ENCODER_BUFFER_BYTES);
        const uint16_t port = m_media.Local().port;
        return port % 2 == 0 && m_control.Open()
            && m_control.Bind({ LOOPBACK, static_cast<uint16_t>(port + 1) });
    }

    const VideoTool m_tool;
    const int m_nSeconds;
    common::UdpSocket m_media, m_control;
    common::DatagramReader m_reader;
    Child m_encoder;
    std::array<Decoder, 2> m_decoders;
    std::string m_problem;
    bool m_bEnded = false;
};

} // namespace

std::unique_ptr<Feed> MakeEncoderFeed(VideoTool tool, int seconds)
{
    return std::make_unique<EncoderFeed>(tool, seconds);
}

} // namespace demo
