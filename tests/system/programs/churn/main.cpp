// Load for a proxy whose streams come and go, and the check of every datagram that it sends.
//
//   churn INPUT_PORT PING_PORT REQUEST_PORT CONTROL_PATH PER_SECOND SEED PATIENCE [BLOCKING_ADDRESS ITS_NAMESPACE]
//
// With an address that blocks forty receivers come and go as fast as they can beside three that stay. Without one
// it is the load of an ordinary day: eight stay, four come and go, packets are large.
//
// The proxy must have 127.0.1.3 configured. For each line with a number of seconds on standard input there is load
// for so long; afterwards everybody has left but those who stay, the figures so far come as NAME=COUNT lines, and
// the line "calm" is printed. At the end of the input the figures come once more. The status is 0 when all went its
// way, faults or not.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "run.h"
#include "udp.h"

namespace {

constexpr Run::Shape HARD = { 3, 40, true, 3.0, 0, false };
constexpr Run::Shape ORDINARY = { 8, 4, false, 20.0, 1.0, true };

uint16_t Port(const char* text)
{
    return static_cast<uint16_t>(atoi(text));
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 8 && argc != 10)
        return 2;
    const char* host = "127.0.0.1";
    const bool isHard = argc == 10;
    (void)setvbuf(stdout, nullptr, _IOLBF, 0);
    (void)setvbuf(stdin, nullptr, _IONBF, 0);
    Run run({ Address(host, Port(argv[1])), Address(host, Port(argv[2])), Address(host, Port(argv[3])),
                argv[4], Address(isHard ? argv[8] : host, Port(argv[2])), isHard ? argv[9] : "",
                atof(argv[5]), static_cast<unsigned>(atoi(argv[6])) },
        isHard ? HARD : ORDINARY);
    const double patience = atof(argv[7]); // seconds
    char line[64];
    while (true) {
        run.Idle(STDIN_FILENO);
        if (fgets(line, sizeof(line), stdin) == nullptr)
            break;
        run.Stage(atof(line), patience);
        run.PrintFigures();
        printf("calm\n");
    }
    run.PrintFigures();
    return 0;
}
