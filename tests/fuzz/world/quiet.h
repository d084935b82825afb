#pragma once

#include <cstdio>

// From now on what the code under test prints is formatted, so that the sanitizers see it, and thrown away a
// buffer at a time. The fuzzer and the sanitizers have streams and descriptors of their own.
inline void BeQuiet()
{
    static char buffers[2][65536];
    FILE* streams[2] = { std::fopen("/dev/null", "w"), std::fopen("/dev/null", "w") };
    for (int i = 0; i < 2; ++i) {
        if (streams[i] == nullptr)
            return;
        (void)std::setvbuf(streams[i], buffers[i], _IOFBF, sizeof(buffers[i]));
    }
    stdout = streams[0];
    stderr = streams[1];
}
