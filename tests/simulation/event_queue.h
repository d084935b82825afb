#pragma once

#include <cstdint>
#include <queue>
#include <vector>

namespace simulation {

// What is called when an event's time has come. It outlives its events.
class Action {
public:
    Action() = default;
    Action(const Action&) = delete;
    Action& operator=(const Action&) = delete;
    virtual ~Action() = default;

    virtual void OnEvent(uint64_t argument) = 0;
};

// Events in the order of their time in microseconds; those of one time in the order in which they were put in.
class EventQueue {
public:
    struct Event {
        int64_t atUs;
        uint64_t serial;
        Action* action;
        uint64_t argument;

        bool operator>(const Event& other) const
        {
            return atUs != other.atUs ? atUs > other.atUs : serial > other.serial;
        }
    };

    void Put(int64_t atUs, Action& action, uint64_t argument)
    {
        m_events.push({ atUs, m_nSerial++, &action, argument });
    }

    bool IsEmpty() const { return m_events.empty(); }

    Event Take()
    {
        const Event event = m_events.top();
        m_events.pop();
        return event;
    }

private:
    std::priority_queue<Event, std::vector<Event>, std::greater<>> m_events;
    uint64_t m_nSerial = 0;
};

} // namespace simulation
