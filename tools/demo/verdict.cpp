#include "demo/verdict.h"

#include "demo/format.h"

namespace demo {

namespace {

void JudgeBytes(Side side, const Tally& tally, std::vector<std::string>& faults)
{
    if (tally.played == 0)
        faults.push_back(Format("%c got nothing", Letter(side)));
    if (tally.wrong > 0)
        faults.push_back(Format("%c played %llu packets that are not what the source sent (the first: %s)",
            Letter(side), Whole(tally.wrong), tally.firstWrong.c_str()));
}

void JudgeAsking(const Tally& a, std::vector<std::string>& faults)
{
    if (a.lost > a.excused)
        faults.push_back(Format("A lost %llu packets that it could have had (the first: %s)",
            Whole(a.lost - a.excused), a.firstLost.c_str()));
    if (a.unmarked > 0)
        faults.push_back(
            Format("%llu packets came back without payload type 122 on the wire", Whole(a.unmarked)));
    if (a.recovered == 0)
        faults.emplace_back("A recovered nothing, so nothing was proved");
}

void JudgeSilent(const Tally& b, std::vector<std::string>& faults)
{
    if (b.lost == 0)
        faults.emplace_back("B shows no loss, so nothing was proved");
    if (b.recovered > 0)
        faults.push_back(Format("B got %llu packets again without asking", Whole(b.recovered)));
}

} // namespace

std::vector<std::string> Faults(const Ledger& ledger)
{
    if (ledger.Sent() == 0)
        return { "the source sent nothing" };
    std::vector<std::string> faults;
    for (const Side side : SIDES)
        JudgeBytes(side, ledger.Of(side), faults);
    JudgeAsking(ledger.Of(Side::A), faults);
    JudgeSilent(ledger.Of(Side::B), faults);
    return faults;
}

std::string Summary(const Ledger& ledger)
{
    const Tally& a = ledger.Of(Side::A);
    const Tally& b = ledger.Of(Side::B);
    std::string text
        = Format("A recovered %llu of %llu missing packets, each sent again as payload type 122, restored "
                 "to 33 and byte for byte what the source sent",
            Whole(a.recovered), Whole(a.missing));
    if (a.excused > 0)
        text += Format(" (%llu could not be had: the line lost every try)", Whole(a.excused));
    return text + Format("; B lost %llu of %llu", Whole(b.lost), Whole(b.missing));
}

} // namespace demo
