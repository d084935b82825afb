/* A client of the control socket: some requests are right, the others close to it, long, binary or many at once.
 * It adds and deletes destinations 127.0.3.1 to 127.0.3.4 only, and waits for replies as a good client does. */
#define _GNU_SOURCE
#include <poll.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "storm.h"

enum { LONGEST = 5000, LONGEST_REQUEST = 1024, PAUSE_US = 10000, REPLY_MS = 300, PER_CONNECTION = 8 };

unsigned long control_requests, control_replies, control_faults;

static pthread_t thread;
static atomic_bool is_running;
static struct sockaddr_un address = { .sun_family = AF_UNIX };
static Draw draw;

static const char* const commands[]
    = { "List", "AllStats", "RxStat", "Debug", "Nothing", "list", "List ", " List", "", "   ", "Add",
          "Delete", "List\n", "AllStats x y z 1 2 3 4 5 6 7 8 9 0", "ListListList", "StatClea" };

static size_t destination_command(char* to)
{
    const char* const word
        = draw_percent(&draw, 20) ? "Delete" : "Add"; /* each Delete holds the pings for 100 ms */
    return (size_t)sprintf(
        to, "%s %s127.0.3.%u", word, draw_percent(&draw, 20) ? "  " : "", 1 + draw_below(&draw, 4));
}

/* No digit and no blank comes in, so that no other address comes out. */
static void spoil(char* text, size_t size)
{
    for (uint32_t i = 1 + draw_below(&draw, 3); i > 0; --i)
        text[draw_below(&draw, (uint32_t)size)] = (char)('a' + draw_below(&draw, 26));
}

static size_t binary(char* to)
{
    const size_t size = 1 + draw_below(&draw, draw_percent(&draw, 90) ? 64 : LONGEST);
    draw_bytes(&draw, (uint8_t*)to, size);
    to[0] = (char)0xff; /* begins no command */
    for (size_t i = 1; i < size; ++i)
        to[i] = (char)(to[i] == 'A' || to[i] == 'D' ? 0 : to[i]); /* nor does a piece of a long one */
    return size;
}

static size_t make_command(char* to)
{
    const uint32_t kind = draw_below(&draw, 100);
    if (kind < 15)
        return destination_command(to);
    if (kind < 20)
        return binary(to);
    if (kind < 25) {
        const size_t size = draw_below(&draw, LONGEST);
        memset(to, draw_percent(&draw, 50) ? ' ' : 'L', size);
        return size;
    }
    size_t size
        = (size_t)sprintf(to, "%s", commands[draw_below(&draw, sizeof(commands) / sizeof(commands[0]))]);
    if (kind < 40) {
        size = destination_command(to);
        spoil(to, size);
    }
    return size;
}

static bool is_reply(const char* text, size_t size)
{
    static const char* const starts[]
        = { "OK: ", "RECV_PACKETS=", "NET_TOTAL_PACKETS=", "command not implemented" };
    for (size_t i = 0; i < sizeof(starts) / sizeof(starts[0]); ++i) {
        if (size >= strlen(starts[i]) && memcmp(text, starts[i], strlen(starts[i])) == 0)
            return true;
    }
    return strspn(text, "0123456789.,") == size;
}

/* False when none came: it may come later. */
static bool take_reply(int client, bool isOne)
{
    char text[8193];
    struct pollfd readable = { client, POLLIN, 0 };
    if (poll(&readable, 1, REPLY_MS) <= 0)
        return false;
    const ssize_t size = recv(client, text, sizeof(text) - 1, 0);
    if (size <= 0)
        return false;
    text[size] = '\0';
    ++control_replies;
    if (isOne && !is_reply(text, (size_t)size) && ++control_faults < 5)
        printf("no reply of ours: %.60s\n", text);
    return true;
}

static void serve_connection(int client)
{
    char text[LONGEST + 1];
    /* One reply at a time: as long as each is waited for, and no request is cut into several. */
    bool isOne = true;
    for (int i = 0; i < PER_CONNECTION && is_running; ++i) {
        const size_t size = make_command(text);
        ++control_requests;
        if (send(client, text, size, MSG_NOSIGNAL) < 0)
            return;
        isOne = isOne && size <= LONGEST_REQUEST;
        isOne = draw_percent(&draw, 90) && take_reply(client, isOne) && isOne;
        usleep(PAUSE_US);
    }
}

static void* run(void* unused)
{
    while (is_running) {
        const int client = socket(AF_UNIX, SOCK_STREAM, 0);
        if (client < 0 || connect(client, (const struct sockaddr*)&address, sizeof(address)) != 0)
            die("control socket");
        serve_connection(client);
        close(client);
    }
    return unused;
}

void control_start(const char* path, uint64_t seed)
{
    snprintf(address.sun_path, sizeof(address.sun_path), "%s", path);
    draw = draw_for(seed, 4);
    is_running = true;
    if (pthread_create(&thread, NULL, run, NULL) != 0)
        die("pthread_create");
}

void control_stop(void)
{
    is_running = false;
    pthread_join(thread, NULL);
}
