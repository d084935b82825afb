#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>

#include "demo/child.h"
#include "demo/encoder_feed.h"
#include "demo/format.h"

namespace demo {

namespace {

std::vector<std::string> Words(const std::string& text)
{
    std::vector<std::string> words;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find(' ', at), text.size());
        if (end > at)
            words.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return words;
}

bool IsInstalled(const std::string& program)
{
    const char* const path = std::getenv("PATH");
    std::string folders = path != nullptr ? path : "/usr/bin:/bin";
    for (size_t at = 0; at <= folders.size();) {
        const size_t end = std::min(folders.find(':', at), folders.size());
        if (access((folders.substr(at, end - at) + "/" + program).c_str(), X_OK) == 0)
            return true;
        at = end + 1;
    }
    return false;
}

bool Succeeds(const std::vector<std::string>& command)
{
    Child child;
    if (!child.Start(command, Child::Pipes::Messages))
        return false;
    while (!child.Status()) {
        child.ReadMessages();
        (void)usleep(5'000);
    }
    return child.Status() == 0;
}

bool HasElements()
{
    constexpr std::array ELEMENTS { "openh264enc", "openh264dec", "h264parse", "mpegtsmux", "tsdemux",
        "rtpmp2tpay" };
    return std::ranges::all_of(ELEMENTS, [](const char* element) {
        return Succeeds({ "gst-inspect-1.0", "--exists", element });
    });
}

} // namespace

std::optional<VideoTool> FindVideoTool()
{
    if (IsInstalled("ffmpeg"))
        return VideoTool::Ffmpeg;
    if (IsInstalled("gst-launch-1.0") && IsInstalled("gst-inspect-1.0") && HasElements())
        return VideoTool::GStreamer;
    return std::nullopt;
}

std::vector<std::string> EncoderCommand(VideoTool tool, uint16_t port, int seconds)
{
    if (tool == VideoTool::Ffmpeg)
        return Words(
            Format("ffmpeg -hide_banner -nostdin -nostats -loglevel error -re -f lavfi "
                   "-i testsrc2=size=640x360:rate=25 -t %d -c:v mpeg2video -b:v 2500k -maxrate 2500k "
                   "-bufsize 500k -g 12 -f rtp_mpegts rtp://127.0.0.1:%u?pkt_size=1328",
                seconds, port));
    return Words(Format(
        "gst-launch-1.0 -q videotestsrc is-live=true pattern=zone-plate kx2=12 ky2=12 kt=3 num-buffers=%d ! "
        "video/x-raw,width=640,height=360,framerate=25/1 ! "
        "openh264enc bitrate=2500000 gop-size=12 ! h264parse config-interval=-1 ! "
        "mpegtsmux alignment=7 ! rtpmp2tpay pt=33 mtu=1328 ! udpsink host=127.0.0.1 port=%u",
        seconds * 25, port));
}

std::vector<std::string> DecoderCommand(VideoTool tool)
{
    if (tool == VideoTool::Ffmpeg)
        return Words("ffmpeg -hide_banner -nostats -loglevel fatal -probesize 64k -analyzeduration 500000 "
                     "-f mpegts -i pipe:0 -an -vf fps=25,scale=320:180 -f rawvideo -pix_fmt rgb24 pipe:1");
    return Words(
        "gst-launch-1.0 -q fdsrc fd=0 ! tsdemux ! h264parse ! openh264dec ! videoconvert ! videorate ! "
        "videoscale ! video/x-raw,format=RGB,width=320,height=180,framerate=25/1 ! fdsink fd=1 sync=false");
}

} // namespace demo
