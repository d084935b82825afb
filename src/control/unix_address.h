#pragma once

#include <sys/un.h>

#include <string_view>

// The address of a Unix-domain socket file; a path that is too long is cut. The whole structure, 110
// bytes, is the length to give to the system.
sockaddr_un UnixAddress(std::string_view path);
