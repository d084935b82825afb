#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace demo {

// A program that runs beside the demo and dies with it, whatever ends it: the kernel kills it when the demo's thread is
// gone, and the destructor does before. Its messages (standard error, and standard output unless that is data) are kept
// line by line. Threads: the one that started it.
class Child {
public:
    enum class Pipes : uint8_t {
        Messages, // standard output carries messages too; nothing on standard input
        Data // standard input takes data, standard output gives data
    };

    Child() = default;
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // False when no process can be made. A program that cannot be run ends with status 127 and says so.
    bool Start(const std::vector<std::string>& arguments, Pipes pipes);
    // Kills it and what it started, and waits for it.
    void Kill();

    // Descriptors to poll for reading, -1 when closed; for writing the third.
    int MessagesFd() const { return m_messages.Get(); }
    int OutputFd() const { return m_output.Get(); }
    int InputFd() const { return m_input.Get(); }

    // Takes what is there; never waits.
    void ReadMessages();
    std::vector<uint8_t> ReadOutput();
    // As much as it takes now; the number of bytes.
    size_t Write(std::span<const uint8_t> bytes);
    void CloseInput() { m_input.Reset(); }

    // How it ended: exit status, or minus the signal's number; nothing while it runs.
    std::optional<int> Status();
    bool HasSaid(const std::string& line) const;
    // Whether a line contains one and ends with the other.
    bool HasSaid(const std::string& part, const std::string& end) const;
    std::string LastLine() const;
    pid_t Pid() const { return m_nPid; }

private:
    std::deque<std::string> m_lines; // the last ones
    std::string m_rest; // of a line that is not whole yet
    UniqueFd m_messages, m_output, m_input;
    pid_t m_nPid = -1;
    std::optional<int> m_status;
};

} // namespace demo
