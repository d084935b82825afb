#pragma once

#include <cstdint>
#include <string>

#include "arqctl/core/meter.h"

namespace arqctl {

// What a channel's tile shows by its colour.
enum class ChannelState {
    Waiting, // the proxy answers; no input since this program watches
    Good,
    InputGone, // there was input, and none for INPUT_GONE_US
    Down // the control socket does not answer
};

// "good", "input_gone", "waiting", "down": names of the interface.
const char* NameOf(ChannelState state);

// Follows one channel's state. Times are microseconds of the monotonic clock. Threads: one thread's own.
class ChannelAlarm {
public:
    // Before the first answer or failure a channel counts as waiting since `nowUs`.
    explicit ChannelAlarm(int64_t nowUs) : m_sinceUs(nowUs) {}

    void Take(const Reading& reading, int64_t nowUs);

    ChannelState State() const { return m_state; }
    int64_t SinceUs() const { return m_sinceUs; }
    // One sentence for people, without "since".
    std::string Text() const;

private:
    ChannelState m_state = ChannelState::Waiting;
    int64_t m_sinceUs;
};

} // namespace arqctl
