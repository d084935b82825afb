#pragma once

#include <string>
#include <vector>

namespace arqctl {

// How a change ended. "Already" and "Refused" changed nothing.
enum class Outcome {
    Done,
    Already, // it was so before
    Refused
};

enum class ReceiverAction { Add, Delete };

// What became of it, by the lists before and after: the proxy answers OK whatever happens.
//
// `who` is a dotted address or a host name, as the command had it. An address may stand in the list more than once: once
// as configured or joined without an ID, and once for each ID it joined with. A name is known by what came or went, so a
// receiver that joins or leaves in the same moment is taken for it.
Outcome OutcomeOf(ReceiverAction action, const std::string& who, const std::vector<std::string>& before,
    const std::vector<std::string>& after);

// One sentence for people, e.g. "10.0.0.1 was added", "10.0.0.1 was in the list before", "10.0.0.1 is still in the list".
std::string OutcomeText(ReceiverAction action, const std::string& who, Outcome outcome);

// Why the proxy may have refused and what to do, one sentence; "" unless refused.
std::string OutcomeAdvice(ReceiverAction action, Outcome outcome);

// Whether the text can stand in the command as one word: not empty, no blank, nothing unprintable, not over-long.
bool IsReceiverWord(const std::string& who);

} // namespace arqctl
