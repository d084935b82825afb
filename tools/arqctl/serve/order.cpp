#include "arqctl/serve/order.h"

#include <memory>
#include <nlohmann/json.hpp>

#include "arqctl/core/web_checks.h"
#include "arqctl/proxy/receiver_change.h"

namespace arqctl {

namespace {

using OrderJson = nlohmann::ordered_json;

constexpr const char* WRONG_ADDRESS = "the address is empty, too long, or has blanks or colons in it";
constexpr const char* ADDRESS_ADVICE = "send {\"address\":\"10.0.0.1\"}, an address or a host name";
constexpr const char* IMPAIR_ADVICE
    = "send {\"on\":true,\"mode\":1,\"min_drop\":1,\"min_dist\":100} or {\"on\":false}";

std::string Line(const OrderJson& object)
{
    return object.dump(-1, ' ', false, OrderJson::error_handler_t::replace) + "\n";
}

std::variant<Order, Refusal> AddOrder(const OrderJson& body)
{
    if (!body.is_object() || body.size() != 1 || !body.contains("address") || !body["address"].is_string())
        return Refusal { 400, "the body is not an object with an address", ADDRESS_ADVICE };
    const std::string who = body["address"].get<std::string>();
    if (!IsReceiverWord(who))
        return Refusal { 400, WRONG_ADDRESS, ADDRESS_ADVICE };
    return Order { {}, ReceiverAction::Add, who };
}

std::variant<Order, Refusal> DeleteOrder(const std::string& who)
{
    if (!IsReceiverWord(who))
        return Refusal { 400, WRONG_ADDRESS, "end the path with /receivers/10.0.0.1" };
    return Order { {}, ReceiverAction::Delete, who };
}

struct SettingName {
    const char* name;
    int32_t LossSettings::*value;
};
constexpr SettingName SETTING_NAMES[] = { { "mode", &LossSettings::mode },
    { "min_drop", &LossSettings::minDrop }, { "max_drop", &LossSettings::maxDrop },
    { "min_dist", &LossSettings::minDist }, { "max_dist", &LossSettings::maxDist } };

// "" when the value is taken over.
std::string TakeSetting(const std::string& name, const OrderJson& value, LossSettings& settings)
{
    constexpr int64_t MOST = 1'000'000'000;
    for (const SettingName& setting : SETTING_NAMES) {
        if (name != setting.name)
            continue;
        if (!value.is_number_unsigned() || value.get<uint64_t>() > MOST)
            return name + " is no whole number from 0 to 1000000000";
        settings.*setting.value = static_cast<int32_t>(value.get<uint64_t>());
        return "";
    }
    return "there is no setting of that name"; // not repeated: it is a stranger's text
}

// "" when all are good.
std::string TakeSettings(const OrderJson& body, LossSettings& settings)
{
    for (const auto& [name, value] : body.items()) {
        const std::string problem = name == "on" ? "" : TakeSetting(name, value, settings);
        if (!problem.empty())
            return problem;
    }
    return LossSettingsProblem(settings);
}

std::variant<Order, Refusal> ReadImpairOrder(const OrderJson& body)
{
    if (!body.is_object() || !body.contains("on") || !body["on"].is_boolean())
        return Refusal { 400, "the body does not say whether deliberate loss shall be on", IMPAIR_ADVICE };
    ImpairOrder impair;
    impair.isOn = body["on"].get<bool>();
    if (body.size() > 1) {
        const std::string problem = TakeSettings(body, impair.settings.emplace());
        if (!problem.empty())
            return Refusal { 400, problem, IMPAIR_ADVICE };
    }
    if (!impair.isOn)
        impair.settings.reset(); // they are read when it is switched on
    return Order { impair, {}, "" };
}

WebReply FailureReply(Failure failure, const std::string& path)
{
    int status = failure == Failure::NoAnswer ? 504 : 503;
    if (failure == Failure::CutOff || failure == Failure::TooLong || failure == Failure::Foreign)
        status = 502;
    return RefusalReply({ status, ProblemText(failure, path), AdviceText(failure, path) });
}

WebReply ResultReply(const char* result, const std::string& text, const std::string& advice)
{
    OrderJson object { { "result", result }, { "text", text } };
    if (!advice.empty())
        object["advice"] = advice;
    return JsonReply(200, Line(object));
}

const char* ResultName(Outcome outcome)
{
    if (outcome == Outcome::Done)
        return "done";
    return outcome == Outcome::Already ? "already" : "refused";
}

// Switched without a sign of it counts as done: the text says what is not known.
const char* ImpairResultWord(ImpairResult result)
{
    if (result == ImpairResult::Done || result == ImpairResult::Unconfirmed)
        return "done";
    return result == ImpairResult::AlreadySo ? "already" : "refused";
}

WebReply ChangeReply(const Order& order, const OrderPlace& place)
{
    const ReceiverChangeResult change
        = ChangeReceiver(order.action, place.socketPath, order.who, place.patienceUs);
    if (change.failure != Failure::None)
        return FailureReply(change.failure, place.target.ControlPath());
    return ResultReply(ResultName(change.outcome), OutcomeText(order.action, order.who, change.outcome),
        OutcomeAdvice(order.action, change.outcome));
}

WebReply ImpairReply(const ImpairOrder& impair, const OrderPlace& place)
{
    const auto instance = InstanceOf(place.target, place.patienceUs);
    if (!instance)
        return ResultReply(
            "refused", "which instance this channel is, is not known", "serve it by its number");
    const std::unique_ptr<ImpairFiles> files = MakeImpairFiles(place.target, *instance);
    LossLook look;
    look.socketPath = place.socketPath;
    look.isRemote = place.target.IsRemote();
    look.answerPatienceUs = place.patienceUs;
    look.stop = place.stop;
    const ImpairOutcome outcome = SwitchLoss(*files, look, impair);
    if (outcome.result == ImpairResult::NoAnswer)
        return FailureReply(outcome.failure, place.target.ControlPath());
    return ResultReply(ImpairResultWord(outcome.result), outcome.text, outcome.advice);
}

} // namespace

std::variant<Order, Refusal> ReadOrder(const WebRoute& route, const WebRequest& asked)
{
    if (route.resource == Resource::Receiver)
        return DeleteOrder(route.address);
    if (const auto refusal = CheckContentType(asked))
        return *refusal;
    const OrderJson body = OrderJson::parse(asked.body, nullptr, false);
    return route.resource == Resource::Impairment ? ReadImpairOrder(body) : AddOrder(body);
}

WebReply CarryOut(const Order& order, const OrderPlace& place)
{
    return order.impair ? ImpairReply(*order.impair, place) : ChangeReply(order, place);
}

} // namespace arqctl
