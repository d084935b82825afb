#include "arqctl/core/receiver_outcome.h"

#include <algorithm>

#include "common/endpoint.h"

namespace arqctl {

namespace {

constexpr size_t LONGEST_HOST_NAME = 253; // RFC 1035 2.3.4, without the length bytes

// How often it stands in the list; a name stands for all of them.
size_t CountOf(const std::string& who, const std::vector<std::string>& list)
{
    uint32_t address = 0;
    if (!common::ParseAddress(who, address))
        return list.size();
    const auto isSame = [address](const std::string& other) {
        uint32_t number = 0;
        return common::ParseAddress(other, number) && number == address;
    };
    return static_cast<size_t>(std::count_if(list.begin(), list.end(), isSame));
}

bool IsName(const std::string& who)
{
    uint32_t address = 0;
    return !common::ParseAddress(who, address);
}

} // namespace

Outcome OutcomeOf(ReceiverAction action, const std::string& who, const std::vector<std::string>& before,
    const std::vector<std::string>& after)
{
    const size_t was = CountOf(who, before), is = CountOf(who, after);
    if (action == ReceiverAction::Add) {
        if (is > was)
            return Outcome::Done;
        return was > 0 && is > 0 && !IsName(who) ? Outcome::Already : Outcome::Refused;
    }
    if (was == 0)
        return Outcome::Already;
    return is < was ? Outcome::Done : Outcome::Refused;
}

std::string OutcomeText(ReceiverAction action, const std::string& who, Outcome outcome)
{
    const bool isAdd = action == ReceiverAction::Add;
    switch (outcome) {
    case Outcome::Done:
        return who + (isAdd ? " was added" : " was deleted");
    case Outcome::Already:
        return who + (isAdd ? " was in the list before" : " is not in the list");
    case Outcome::Refused:
        if (IsName(who))
            return who + " changed nothing in the list";
        return who + (isAdd ? " was not added" : " is still in the list");
    }
    return "";
}

std::string OutcomeAdvice(ReceiverAction action, Outcome outcome)
{
    if (outcome != Outcome::Refused)
        return "";
    if (action == ReceiverAction::Add)
        return "50 receivers are the most, a name must be known to the proxy's machine, and what it stands for may be in the "
               "list already: see the proxy's standard error";
    return "it joined with an ID, which no command deletes, or it pings on and came back: end the receiver";
}

bool IsReceiverWord(const std::string& who)
{
    // A colon is of a port or of IPv6: the proxy sends to IPv4 addresses, at a port of its own.
    const auto isPlain = [](char letter) { return letter > ' ' && letter < '\x7f' && letter != ':'; };
    return !who.empty() && who.size() <= LONGEST_HOST_NAME && std::all_of(who.begin(), who.end(), isPlain);
}

} // namespace arqctl
