#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "../support/contender.h"
#include "settings.h"

// The least that can be done, with which everything else is compared: one thread, recvfrom, N times sendto.
Entry BareLoop();

// bench/floors with `switches`: two threads and nothing else unless they say otherwise.
Entry Floor(const std::string& name, const std::vector<std::string>& switches);

// Every --proxy, with its receivers in -a and with receivers that have pinged. `options` come before the
// ports.
std::vector<Entry> Proxies(const Settings& settings, const std::vector<std::string>& options = {});

// Other programs that are installed and can send to `nReceivers` at once without an answer from them.
std::vector<Entry> Peers(int32_t nReceivers);

// Programs that are installed and send to one receiver of their own kind.
std::vector<Entry> Links();

// The names of programs that Peers and Links know and that are not installed.
std::vector<std::string> Absent();

// Where `program` is, as the shell would find it; empty when it is not installed.
std::string FindProgram(const std::string& program);
