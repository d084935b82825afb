#pragma once

#include <cstddef>

class ArqSendReplicator;

// What is sent back: a C text, empty for nothing.
struct Reply {
    static constexpr size_t BYTES = 2048; // with the terminating zero

    char text[BYTES] = "";
};

// Carries out one control request (a C text) and writes its reply, whatever was in there before.
// "Delete" takes a tenth of a second; "Add" and "Delete" of a host name as long as the resolver does.
//
// Threads: the control thread. It holds no lock of its own; the replicator's operations take theirs.
void CarryOutCommand(ArqSendReplicator& replicator, const char* request, Reply& reply);
