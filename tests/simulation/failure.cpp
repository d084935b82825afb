#include "simulation/failure.h"

#include <unistd.h>

#include <cinttypes>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "simulation/config.h"
#include "simulation/machine.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/common_interface_defs.h>
#define SIMULATION_SANITIZED 1
#endif
#endif

namespace simulation {

namespace {

uint64_t s_seed = 0;
const Config* s_pConfig = nullptr;
FILE* s_report = nullptr;

const char* NameOf(Outcome outcome)
{
    switch (outcome) {
    case Outcome::LostLiveness:
        return "lost liveness";
    case Outcome::NotRepeatable:
        return "not repeatable";
    default:
        return "broken invariant";
    }
}

void PrintHowToRepeat()
{
    fprintf(Report(), "repeat: simulation --seed %" PRIu64 " --verbose\n", s_seed);
    (void)fflush(Report());
}

// As little as a handler may do.
void TellCrash()
{
    char text[96] = "";
    const int length = snprintf(text, sizeof(text),
        "crash\nseed %" PRIu64 "\nrepeat: simulation --seed %" PRIu64 "\n", s_seed, s_seed);
    (void)!write(STDOUT_FILENO, text, static_cast<size_t>(length));
}

void OnSignal(int number)
{
    TellCrash();
    (void)signal(number, SIG_DFL);
    (void)raise(number);
}

} // namespace

void Fail(Outcome outcome, const char* format, ...)
{
    const Machine* machine = Machine::Current();
    fprintf(Report(), "%s: ", NameOf(outcome));
    va_list arguments;
    va_start(arguments, format);
    (void)vfprintf(Report(), format, arguments);
    va_end(arguments);
    fprintf(Report(), "\nseed %" PRIu64, s_seed);
    if (machine != nullptr) {
        fprintf(Report(), ", virtual time %.6f s, after %" PRIu64 " events, the last of them:\n",
            static_cast<double>(machine->clock.NowUs()) / 1e6, machine->trace.Count());
        machine->trace.PrintLast(Report());
    } else {
        fprintf(Report(), "\n");
    }
    if (s_pConfig != nullptr)
        s_pConfig->Print(Report());
    PrintHowToRepeat();
    _exit(static_cast<int>(outcome));
}

void TellSeed(uint64_t seed)
{
    s_seed = seed;
}

void TellConfig(const Config* config)
{
    s_pConfig = config;
}

void SeparateProxyOutput(bool isShown)
{
    s_report = fdopen(dup(STDOUT_FILENO), "w");
    if (isShown)
        return;
    FILE* nowhere = fopen("/dev/null", "w");
    stdout = nowhere;
    stderr = nowhere;
}

FILE* Report()
{
    return s_report != nullptr ? s_report : stdout;
}

void ReportCrashes()
{
#ifdef SIMULATION_SANITIZED
    __sanitizer_set_death_callback(TellCrash);
#else
    for (const int number : { SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT })
        (void)signal(number, OnSignal);
#endif
    (void)OnSignal;
}

} // namespace simulation
