#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/world/input_reader.h"

// Datagrams of receivers, read and made by the protocol alone: nothing of it is taken from the code under test.

// The tag that a datagram begins with; empty if there is none. Its ID is not 0.
std::string_view TagOf(std::string_view datagram);
// The tag's ID; 0 without one.
uint32_t StreamIdOf(std::string_view datagram);
// Whether the receiver leaves, if it comes on the ping port.
bool IsLeave(std::string_view datagram);

// A datagram of the fuzzer's input: its bytes, and behind them, up to the length asked for, more of the same.
std::string TakeDatagram(InputReader& input, size_t most, uint8_t filler);
// Makes the checksum of the request that the datagram holds, perhaps behind a tag, right.
void RepairChecksum(std::string& datagram);
// Counts the numbers of the request's list from `base`.
void Rebase(std::string& datagram, uint16_t base);

// The number of an input packet with an RTP header; one that is too short for it has 0 and keeps it.
uint16_t SeqOf(std::string_view packet);
void Renumber(std::string& packet, uint16_t seq);
// A packet of some that come at once, the how manieth and whether it is the last one, in one of these shapes: all of a
// length, all but the last, no two alike.
std::string Shortened(const std::string& packet, int shape, size_t index, bool isLast);
