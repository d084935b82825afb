#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "arqctl/core/doctor_facts.h"
#include "arqctl/proxy/port_tap.h"

namespace arqctl {

// Which proxy the doctor looks at. Without a process and without options only its control socket says something.
struct Patient {
    int pid = 0;
    std::string controlPath;
    ProxyOptions options;
    bool areOptionsKnown = false;
    bool isRunning = true;
};

struct Expectation {
    std::string source; // the sender of the input, "" where it is not given
    double bitRate = 0; // of payload, bit/s; 0: not known
    double payload = 1316; // bytes
};

// The proxies that run here: those of this network, or with this /dev.
std::vector<Patient> PatientsHere();

// The proxy behind a control socket; `instance` helps to find one that does not answer (0: a path was given). Not running
// where there is neither an answer nor a process.
Patient PatientAt(const std::string& controlPath, int instance, int64_t patienceUs);

// The first look at everything.
DoctorFacts FirstLook(const Patient& patient, const Expectation& expectation, int64_t patienceUs);

// Taps on the proxy's ports, from the first look on. Closed where this program may not open them.
struct Taps {
    PortTap input;
    PortTap pings;
};
Taps OpenTaps(const DoctorFacts& facts);

// Just before the second look, so that what they tell of has had its effect there.
void TakeArrivals(DoctorFacts& facts, Taps& taps);

// Between the looks, for at most so long: whether the proxy withholds packets on purpose.
void LookForLoss(DoctorFacts& facts, int64_t longestUs, int64_t patienceUs);

// What counts, once more.
void SecondLook(DoctorFacts& facts, int64_t patienceUs);

} // namespace arqctl
