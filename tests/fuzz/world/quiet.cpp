#include <cstdio>

// Called once by the fuzzer before the first input of any target. From now on what the code under test prints is
// formatted, so that the sanitizers see it, and thrown away a buffer at a time. The fuzzer and the sanitizers have
// streams and descriptors of their own.
extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    static char buffers[2][65536];
    FILE* streams[2] = { std::fopen("/dev/null", "w"), std::fopen("/dev/null", "w") };
    for (int i = 0; i < 2; ++i) {
        if (streams[i] == nullptr)
            return 0;
        (void)std::setvbuf(streams[i], buffers[i], _IOFBF, sizeof(buffers[i]));
    }
    stdout = streams[0];
    stderr = streams[1];
    return 0;
}
