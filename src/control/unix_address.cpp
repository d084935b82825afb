#include "control/unix_address.h"

#include <sys/socket.h>

sockaddr_un UnixAddress(std::string_view path)
{
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    (void)path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}
