#pragma once

// What the whole-process benchmarks can be told.
struct BenchSettings {
    int rounds = 7; // paired rounds
    double seconds = 2; // length of one turn
    int perSecond = 800; // datagrams offered; 1328 bytes each
    int receivers = 0; // 0: every count of the benchmark in turn
};

// Reads --rounds N, --seconds N, --rate N and --receivers N. Gives up on anything else.
BenchSettings ReadBenchSettings(int argc, char** argv);
