#include "arqctl/core/channel_state.h"

namespace arqctl {

namespace {

ChannelState Judge(const Reading& reading)
{
    if (!reading.isUp)
        return ChannelState::Down;
    if (!reading.hasHadInput)
        return ChannelState::Waiting;
    return reading.isInputGone ? ChannelState::InputGone : ChannelState::Good;
}

} // namespace

const char* NameOf(ChannelState state)
{
    switch (state) {
    case ChannelState::Waiting:
        return "waiting";
    case ChannelState::Good:
        return "good";
    case ChannelState::InputGone:
        return "input_gone";
    case ChannelState::Down:
        return "down";
    }
    return "";
}

void ChannelAlarm::Take(const Reading& reading, int64_t nowUs)
{
    const ChannelState state = Judge(reading);
    if (state != m_state)
        m_sinceUs = nowUs;
    m_state = state;
}

std::string ChannelAlarm::Text() const
{
    switch (m_state) {
    case ChannelState::Waiting:
        return "The proxy answers and has had no input yet.";
    case ChannelState::Good:
        return "Input arrives.";
    case ChannelState::InputGone:
        return "The input is gone: nothing arrives at the proxy.";
    case ChannelState::Down:
        return "The proxy does not answer.";
    }
    return "";
}

} // namespace arqctl
