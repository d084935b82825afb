#pragma once

#include <cstdint>

class PacketBufferPool;
struct ProxyContext;

// Receives the input stream into buffers of `pool` and pushes them into the context's queue until the run
// flag is cleared, which it notices within a quarter of a second; the last thing it pushes then is a null,
// so that main notices too. Returns early, with a message, when the socket cannot be made or bound.
//
// Threads: the input thread; it is the queue's only producer and the only one that takes from the pool.
void RunUdpInput(ProxyContext& context, PacketBufferPool& pool);

// The receive buffer to ask for, in bytes, when the socket has `currentBytes`.
int32_t WantedReceiveBuffer(int32_t currentBytes);
