#include "input/address.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

namespace {

constexpr size_t MAX_QUAD_CHARS = 15;
constexpr size_t FIRST_RESOLVER_BYTES = 1024;
constexpr size_t MAX_RESOLVER_BYTES = size_t { 256 } * 1024;

// inet_aton also takes shorter forms. It ignores what follows a blank, while the fields are cut from the
// whole text: "127.0.0 .1" has four, and in "1.2.3.4 x.y" the fourth is "4 x.y".
bool HasFourFields(const char* text)
{
    return std::count(text, text + std::strlen(text), '.') >= 3;
}

in_addr_t FirstAddress(const hostent& host)
{
    in_addr_t address = 0;
    if (host.h_addr_list[0] != nullptr && host.h_length > 0)
        std::memcpy(
            &address, host.h_addr_list[0], std::min(sizeof(address), static_cast<size_t>(host.h_length)));
    return address;
}

// gethostbyname with a buffer of our own: several threads resolve names here.
in_addr_t LookUpHost(const char* name)
{
    for (size_t size = FIRST_RESOLVER_BYTES; size <= MAX_RESOLVER_BYTES; size *= 4) {
        const std::unique_ptr<char[]> buffer(new (std::nothrow) char[size]);
        if (!buffer)
            return 0;
        hostent storage {};
        hostent* host = nullptr;
        int error = 0;
        const int status = gethostbyname_r(name, &storage, buffer.get(), size, &host, &error);
        if (status != ERANGE)
            return status == 0 && host != nullptr ? FirstAddress(*host) : 0;
    }
    return 0;
}

} // namespace

bool ReadDottedQuad(const char* text, in_addr_t* address)
{
    in_addr parsed {};
    if (std::strlen(text) > MAX_QUAD_CHARS || inet_aton(text, &parsed) == 0 || !HasFourFields(text))
        return false;
    char copy[MAX_QUAD_CHARS + 1];
    std::strcpy(copy, text); // NOLINT(clang-analyzer-security.insecureAPI.strcpy): the length was checked
    char* rest = copy;
    uint8_t bytes[4] {};
    for (int i = 0; i < 3; ++i)
        bytes[i] = static_cast<uint8_t>(std::strtol(strsep(&rest, "."), nullptr, 10));
    bytes[3] = static_cast<uint8_t>(std::strtol(rest, nullptr, 10));
    std::memcpy(address, bytes, sizeof(bytes));
    return true;
}

in_addr_t parseDottedQuad(const char* text)
{
    in_addr_t address = 0;
    return ReadDottedQuad(text, &address) ? address : 0;
}

in_addr_t resolveHost(const char* text)
{
    if (text == nullptr)
        text = "";
    const in_addr_t address = parseDottedQuad(text);
    return address != 0 ? address : LookUpHost(text);
}

bool resolveToSockaddr(const char* text, sockaddr_in* address)
{
    *address = sockaddr_in {};
    address->sin_family = AF_INET;
    address->sin_addr.s_addr = resolveHost(text);
    return address->sin_addr.s_addr != 0;
}

bool IsMulticast(in_addr_t address)
{
    return IN_MULTICAST(ntohl(address));
}
