#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "demo/feed.h"

namespace demo {

// Programs that make a real encoder's stream and decode it again.
enum class VideoTool : uint8_t { Ffmpeg, GStreamer };

// One that this machine has, with all that the commands below need; ffmpeg first.
std::optional<VideoTool> FindVideoTool();

// Video in a transport stream in RTP, live, to that port of loopback; ends after so many seconds.
std::vector<std::string> EncoderCommand(VideoTool tool, uint16_t port, int seconds);
// Transport stream on standard input, pictures on standard output: 320 x 180, three bytes a point, 25 a second.
std::vector<std::string> DecoderCommand(VideoTool tool);

// A real encoder's pictures. Its datagrams pass through here unchanged on their way to the proxy.
std::unique_ptr<Feed> MakeEncoderFeed(VideoTool tool, int seconds);

} // namespace demo
