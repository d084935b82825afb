#pragma once

namespace simulation {

// `simulation --recovery ...`: one proxy and receivers of tools/arqrx behind links that lose and do nothing else. What
// it prints is one hop of a tree; docs/scale.md has its figures from here. Takes the words behind --recovery and
// returns the program's exit status; with words that it does not know it prints what there is.
int RunRecovery(int count, char** words);

} // namespace simulation
