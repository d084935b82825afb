#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace arqctl {

// What is wrong and what to do next, one sentence each.
struct Trouble {
    std::string problem;
    std::string advice;
};

// Of "ssh:HOST" or "ssh:USER@HOST": false for what is no name of a host, or would be an option of ssh.
bool IsSshHost(std::string_view host);

// A command with its first options, as the environment gives it: words parted by blanks, "ssh" when there are none.
std::vector<std::string> SshCommand(std::string_view text);

// One word as a shell reads it back: it := 'it'.
std::string ShellQuoted(std::string_view word);

// Text from another machine for a terminal: one line, no control characters, not too long.
std::string Printable(std::string_view text);

// Why ssh ended with nothing done, from what it wrote to its standard error.
Trouble SshTrouble(const std::string& host, std::string_view errors);

// How often ssh said that the other side could not be connected, though the login stands.
int RefusedChannels(std::string_view errors);

} // namespace arqctl
