#pragma once

#include <cstddef>

class ArqSendReplicator;

// Room for a reply, with its terminating zero.
constexpr size_t REPLY_BYTES = 2048;

// Carries out one control request (a C text) and writes the reply as a C text, empty when there is none.
// "Delete" takes a tenth of a second; "Add" and "Delete" of a host name as long as the resolver does.
//
// Threads: the control thread. It holds no lock of its own; the replicator's operations take theirs.
void CarryOutCommand(ArqSendReplicator& replicator, const char* request, char (&reply)[REPLY_BYTES]);
