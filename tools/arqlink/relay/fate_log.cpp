#include "arqlink/relay/fate_log.h"

#include "arqlink/core/sequence_drops.h"

#include <cerrno>
#include <optional>
#include <system_error>

namespace arqlink {

bool FateLog::Open(const std::string& path, std::string& problem)
{
    m_file.reset(std::fopen(path.c_str(), "we"));
    if (!m_file)
        problem = "cannot write " + path + ": " + std::generic_category().message(errno);
    return IsOpen();
}

void FateLog::Write(uint64_t client, Way way, std::span<const uint8_t> bytes, const Fate& fate)
{
    FILE* file = m_file.get();
    (void)std::fprintf(file, R"({"client":%llu,"way":"%s","n":%llu,"bytes":%zu)",
        static_cast<unsigned long long>(client), way == Way::Down ? "down" : "up",
        static_cast<unsigned long long>(fate.number), bytes.size());
    if (const std::optional<uint16_t> number = SequenceNumber(bytes))
        (void)std::fprintf(file, R"(,"seq":%u)", static_cast<unsigned>(*number));
    (void)std::fprintf(file, R"(,"fate":"%s")", OutcomeName(fate.outcome));
    if (fate.outcome == Outcome::Passed) {
        (void)std::fprintf(file, R"(,"delay_us":%lld)", static_cast<long long>(fate.delayUs));
        if (fate.bDuplicated)
            (void)std::fprintf(file, R"(,"copy_delay_us":%lld)", static_cast<long long>(fate.copyDelayUs));
        if (fate.bCorrupted)
            (void)std::fputs(R"(,"corrupted":true)", file);
    }
    (void)std::fputs("}\n", file);
}

bool FateLog::Close()
{
    if (!m_file)
        return true;
    const bool bGood = std::ferror(m_file.get()) == 0;
    return std::fclose(m_file.release()) == 0 && bGood;
}

} // namespace arqlink
