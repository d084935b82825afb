#include <csignal>
#include <cstdio>

#include "main/log_streams.h"
#include "main/proxy.h"
#include "main/proxy_context.h"

namespace {

int RunProxy(int argc, char** argv)
{
    ProxyContext context;
    Proxy proxy(context, argc, argv);
    return proxy.Run();
}

} // namespace

int main(int argc, char** argv)
{
    // A log reader that goes away, or a log file that reaches its limit, must not
    // end the stream with the next line.
    (void)signal(SIGPIPE, SIG_IGN);
    (void)signal(SIGXFSZ, SIG_IGN);
    // Line by line from the first line on: pipes and journals see progress at once.
    (void)setvbuf(stdout, nullptr, _IOLBF, 0);
    LogWriter* log = TakeOverStreams();
    const int status = RunProxy(argc, argv);
    FinishLog(log);
    return status;
}
