#include <csignal>
#include <cstdio>

#include "main/proxy.h"
#include "main/proxy_context.h"

int main(int argc, char** argv)
{
    // A log reader that goes away must not end the stream with the next line that is written to it.
    (void)signal(SIGPIPE, SIG_IGN);
    // Line by line from the first line on: pipes and journals see progress at once.
    (void)setvbuf(stdout, nullptr, _IOLBF, 0);
    ProxyContext context;
    Proxy proxy(context, argc, argv);
    return proxy.Run();
}
