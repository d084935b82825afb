#include "control/control_thread.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/file_path.h"
#include "base/unique_fd.h"
#include "control/commands.h"
#include "control/control_context.h"
#include "control/paths.h"
#include "control/status_poll.h"
#include "control/unix_address.h"
#include "control/wait_readable.h"
#include "pacing/ms_clock.h"

namespace {

constexpr uint32_t WAIT_MS = 500; // also how soon a cleared run flag is noticed
constexpr int BACKLOG = 5;
constexpr size_t REQUEST_BYTES = 1024;

// What one client sent last, with a zero behind it.
struct Request {
    char text[REQUEST_BYTES + 1] = "";
};

// Removes the socket file of an earlier run, or what a link there points to.
void RemoveStaleFile(const FilePath& path)
{
    char resolved[PATH_MAX];
    if (realpath(path.c_str(), resolved) != nullptr)
        (void)unlink(resolved);
}

UniqueFd OpenControlSocket(const FilePath& path)
{
    RemoveStaleFile(path);
    // Non-blocking: a client that is gone again before it is accepted must not hold this thread.
    UniqueFd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
    if (!listener.IsValid()) {
        perror("creating socket");
        return listener;
    }
    const sockaddr_un address = UnixAddress(path);
    if (bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        perror("binding socket");
        return {};
    }
    (void)listen(listener.Get(), BACKLOG);
    return listener;
}

// A client that never reads its replies must not hold this thread for ever.
void BoundWrites(int client)
{
    const timeval limit { 0, static_cast<suseconds_t>(WAIT_MS) * 1000 };
    (void)setsockopt(client, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
}

void Answer(const ControlContext& context, int client, const Request& request)
{
    Reply reply;
    CarryOutCommand(*context.replicator, request.text, reply);
    const size_t length = std::strlen(reply.text);
    if (length == 0)
        return;
    while (send(client, reply.text, length, MSG_NOSIGNAL) < 0 && errno == EINTR) {}
}

// Reads one request and answers it; returns the result of the read. A failed read leaves the old request
// in place, which is then carried out once more. One that a signal interrupts has not failed.
ssize_t ServeRequest(const ControlContext& context, int client, Request& request)
{
    ssize_t count = 0;
    do {
        count = read(client, request.text, REQUEST_BYTES);
    } while (count < 0 && errno == EINTR);
    if (count == 0)
        return 0;
    if (count > 0)
        request.text[count] = '\0';
    Answer(context, client, request);
    return count;
}

void ServeClient(ControlContext& context, int client)
{
    BoundWrites(client);
    Request request;
    ssize_t lastRead = 1;
    while (context.running && lastRead > 0) {
        if (WaitReadable(client, WAIT_MS))
            lastRead = ServeRequest(context, client, request);
        PollImpairment(context);
    }
}

// Takes the next client. One that went away meanwhile is nothing; without a free descriptor the client is not
// served and the thread waits instead of spinning.
UniqueFd AcceptClient(int listener)
{
    UniqueFd client(accept(listener, nullptr, nullptr));
    if (client.IsValid())
        return client;
    const bool isGone = errno == EAGAIN || errno == ECONNABORTED || errno == EINTR;
    if (!isGone)
        (void)SleepMs(WAIT_MS);
    return client;
}

void Serve(ControlContext& context, int listener)
{
    while (context.running) {
        PollImpairment(context);
        if (!WaitReadable(listener, WAIT_MS))
            continue;
        const UniqueFd client = AcceptClient(listener);
        if (client.IsValid())
            ServeClient(context, client.Get());
    }
}

} // namespace

bool process_request_thread(ControlContext& context)
{
    OpenStatusSocket(context);
    const FilePath path = ControlSocketPath(context.instance);
    UniqueFd listener = OpenControlSocket(path);
    const bool isUp = listener.IsValid();
    if (isUp) {
        context.nextPollMs = GetTimeMs();
        Serve(context, listener.Get());
        listener.Reset();
    }
    (void)unlink(path.c_str());
    fprintf(stderr, "process_request_thread: exiting\n");
    return isUp;
}
