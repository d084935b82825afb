#pragma once

#include <cstdint>

// Process-wide settings. Main writes them while it parses the command line, before any thread runs;
// everyone else only reads them.

// Packets that each engine keeps for retransmission; a power of two.
inline int32_t g_nArqBufferCount = 4096;

// 0 (quiet) to 9; for diagnostic printing in the replicator and the engines, of which there is none now.
inline uint32_t g_nDebugLevel = 0;
