#pragma once

#include "arqlink/core/line.h"

#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <string>

namespace arqlink {

enum class Way : uint8_t { Down, Up };

// One JSON object a line for every packet that entered a line. What stands in it depends on the seed, the settings and
// the packets, never on the time, but for fates "queue" and "memory".
class FateLog {
public:
    // False: `problem` says why.
    bool Open(const std::string& path, std::string& problem);
    bool IsOpen() const { return m_file != nullptr; }
    void Write(uint64_t client, Way way, std::span<const uint8_t> bytes, const Fate& fate);
    // False: not all of it could be written.
    bool Close();

private:
    struct Closer {
        void operator()(FILE* file) const { (void)std::fclose(file); }
    };
    std::unique_ptr<FILE, Closer> m_file;
};

} // namespace arqlink
