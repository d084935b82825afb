#include <cstdio>

#include "main/proxy.h"
#include "main/proxy_context.h"

int main(int argc, char** argv)
{
    // Line by line from the first line on: pipes and journals see progress at once.
    (void)setvbuf(stdout, nullptr, _IOLBF, 0);
    ProxyContext context;
    Proxy proxy(context, argc, argv);
    return proxy.Run();
}
