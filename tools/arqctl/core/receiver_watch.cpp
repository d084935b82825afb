#include "arqctl/core/receiver_watch.h"

#include <algorithm>

namespace arqctl {

namespace {

bool Contains(const std::vector<std::string>& list, const std::string& address)
{
    return std::find(list.begin(), list.end(), address) != list.end();
}

} // namespace

void ReceiverWatch::Take(const std::vector<std::string>& list, int64_t nowUs)
{
    for (const std::string& address : list) {
        const auto place = std::lower_bound(m_receivers.begin(), m_receivers.end(), address,
            [](const WatchedReceiver& one, const std::string& other) { return one.address < other; });
        if (place == m_receivers.end() || place->address != address)
            m_receivers.insert(place, { address, true, nowUs });
        else if (!place->isReceiving)
            *place = { address, true, nowUs };
    }
    for (WatchedReceiver& receiver : m_receivers) {
        if (receiver.isReceiving && !Contains(list, receiver.address))
            receiver = { receiver.address, false, nowUs };
    }
    for (Deleted& deleted : m_deleted) {
        std::erase_if(m_receivers, [&deleted](const WatchedReceiver& one) {
            return !one.isReceiving && one.address == deleted.address;
        });
        deleted.answersLeft--;
    }
    std::erase_if(m_deleted, [](const Deleted& one) { return one.answersLeft == 0; });
    DropOld(nowUs);
}

void ReceiverWatch::Forget(const std::string& address)
{
    std::erase_if(m_deleted, [&address](const Deleted& one) { return one.address == address; });
    m_deleted.push_back({ address });
}

void ReceiverWatch::DropOld(int64_t nowUs)
{
    std::vector<int64_t> gone;
    for (const WatchedReceiver& one : m_receivers) {
        if (!one.isReceiving)
            gone.push_back(one.sinceUs);
    }
    int64_t oldestUs = nowUs - REMEMBERED_US;
    if (gone.size() > MOST_GONE) {
        std::sort(gone.begin(), gone.end());
        oldestUs = std::max(oldestUs, gone[gone.size() - MOST_GONE - 1]);
    }
    std::erase_if(m_receivers,
        [oldestUs](const WatchedReceiver& one) { return !one.isReceiving && one.sinceUs <= oldestUs; });
}

} // namespace arqctl
