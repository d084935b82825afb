/* A sender and a receiver in one, for a proxy in UDP input mode that numbers its input from 1.
 *
 *   arq_race INPUT_PORT MEDIA_PORT REQUEST_PORT RING_SIZE SECONDS RECEIVER_ADDRESS
 *
 * Sends payloads that hold their own number, and asks all the time for the oldest numbers of the proxy's ring,
 * so that requests meet packets that are just being replaced. Each request is followed by a ping that comes back
 * when the request is done; no more than WINDOW payloads are sent ahead of the last ping that came back and of the
 * last one that arrived. Thus no socket or queue overflows, and no buffer of the proxy comes round while an answer
 * is sent from it.
 *
 * Prints what came, as NAME=COUNT lines, and up to MOST_PRINTED faults. The status is 0 when all went its way,
 * faults or not. */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>

enum {
    HEADER_BYTES = 12,
    PAYLOAD_BYTES = 64,
    PING_BYTES = 8,
    WINDOW = 400,
    LISTED = 24,
    IN_FLIGHT = 3,
    BATCH = 32,
    MOST_PRINTED = 10,
    MOST_SENT = 20 * 1000 * 1000,
    MEDIA_TYPE = 33,
    ANSWER_TYPE = 122,
    END_SECONDS = 60
};

static uint8_t first_sendings[MOST_SENT];
static _Atomic uint32_t sent, pinged, newest;
static unsigned long again, faults;
static int input_socket, receiver_socket;
static struct sockaddr_in input_address, request_address;
static uint32_t ring_size;
static double seconds;

static double now(void)
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (double)time.tv_sec + (double)time.tv_nsec / 1e9;
}

static void die(const char* what)
{
    perror(what);
    exit(1);
}

static struct sockaddr_in address(const char* text, int port)
{
    struct sockaddr_in result = { .sin_family = AF_INET, .sin_port = htons((uint16_t)port) };
    inet_pton(AF_INET, text, &result.sin_addr);
    return result;
}

static int make_socket(const struct sockaddr_in* local)
{
    const int on = 1, bytes = 64 << 20;
    const int made = socket(AF_INET, SOCK_DGRAM, 0);
    setsockopt(made, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    setsockopt(made, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof(bytes));
    if (made < 0 || bind(made, (const struct sockaddr*)local, sizeof(*local)) != 0)
        die("bind");
    return made;
}

static void transmit(int from, const void* data, size_t size, const struct sockaddr_in* to)
{
    if (sendto(from, data, size, 0, (const struct sockaddr*)to, sizeof(*to)) < 0)
        die("sendto");
}

static void fill(uint8_t* payload, uint32_t number)
{
    for (int i = 0; i < PAYLOAD_BYTES; i += 4)
        memcpy(payload + i, &number, 4);
}

static void* send_media(void* unused)
{
    const double end = now() + seconds;
    uint8_t payload[PAYLOAD_BYTES];
    for (uint32_t number = 1; number < MOST_SENT && now() < end; ++number) {
        while (number - pinged > WINDOW || number - newest > WINDOW)
            sched_yield();
        fill(payload, number);
        sent = number;
        transmit(input_socket, payload, sizeof(payload), &input_address);
    }
    return unused;
}

/* From the oldest number on that the ring can hold, as far as we know. */
static void ask(void)
{
    uint16_t words[5 + LISTED] = { LISTED, 0, 2, 200, 0 };
    uint16_t sum = 0;
    const uint32_t oldest = newest - ring_size + 1;
    for (uint16_t i = 0; i < LISTED; ++i) {
        words[5 + i] = (uint16_t)(oldest + i);
        sum = (uint16_t)(sum + words[5 + i]);
    }
    words[1] = (uint16_t)-sum;
    transmit(receiver_socket, words, sizeof(words), &request_address);
}

static void ping(void)
{
    uint8_t data[PING_BYTES] = { 0, 0, 0xad, 0xe2 };
    const uint32_t mark = sent;
    memcpy(data + 4, &mark, sizeof(mark));
    transmit(receiver_socket, data, sizeof(data), &request_address);
}

static void fault(const char* what, uint32_t number, const uint8_t* header)
{
    if (++faults <= MOST_PRINTED)
        printf("payload %u: %s (flags %02x, type %u, number %u)\n", number, what, header[0], header[1],
            (unsigned)(header[2] << 8 | header[3]));
}

static void check_media(const uint8_t* data)
{
    uint32_t number;
    uint8_t wanted[PAYLOAD_BYTES];
    memcpy(&number, data + HEADER_BYTES, sizeof(number));
    fill(wanted, number);
    if (number == 0 || number > sent || memcmp(wanted, data + HEADER_BYTES, PAYLOAD_BYTES) != 0)
        fault("the payload is none that was sent", number, data);
    else if ((data[2] << 8 | data[3]) != (number & 0xffff))
        fault("goes with another number", number, data);
    else if (data[0] != 0x80)
        fault("the header is not whole", number, data);
    else if (data[1] == ANSWER_TYPE)
        ++again;
    else if (data[1] != MEDIA_TYPE)
        fault("the payload type is none of ours", number, data);
    else if (first_sendings[number]++ != 0)
        fault("came again unmarked", number, data);
    else if (number > newest)
        newest = number;
}

static void take(const uint8_t* data, size_t size)
{
    if (size == PING_BYTES) {
        uint32_t mark;
        memcpy(&mark, data + 4, sizeof(mark));
        pinged = mark;
        ask();
        ping();
    } else if (size == HEADER_BYTES + PAYLOAD_BYTES) {
        check_media(data);
    } else {
        fault("the size is none of ours", 0, data);
    }
}

/* One batch; a short wait when there is nothing. */
static void receive(void)
{
    static uint8_t data[BATCH][256];
    struct mmsghdr messages[BATCH];
    struct iovec parts[BATCH];
    memset(messages, 0, sizeof(messages));
    for (int i = 0; i < BATCH; ++i) {
        parts[i] = (struct iovec) { data[i], sizeof(data[i]) };
        messages[i].msg_hdr.msg_iov = &parts[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    struct pollfd readable = { receiver_socket, POLLIN, 0 };
    if (poll(&readable, 1, 100) <= 0)
        return;
    const int count = recvmmsg(receiver_socket, messages, BATCH, MSG_DONTWAIT, NULL);
    for (int i = 0; i < count; ++i)
        take(data[i], messages[i].msg_len);
}

/* The sender has ended: whatever it sent has arrived when a ping sent after that is back and nothing is on its way. */
static void receive_rest(void)
{
    const double limit = now() + END_SECONDS;
    double last = now();
    uint32_t seen = newest;
    while ((pinged != sent || newest != sent) && now() - last < END_SECONDS / 10.0 && now() < limit) {
        receive();
        if (newest != seen)
            last = now();
        seen = newest;
    }
}

static void* receive_all(void* sender_ended)
{
    while (!*(_Atomic int*)sender_ended)
        receive();
    receive_rest();
    return NULL;
}

static unsigned long count_marked(void)
{
    unsigned long marked = 0;
    for (uint32_t number = 1; number <= sent; ++number)
        marked += first_sendings[number] == 0;
    return marked;
}

int main(int argc, char** argv)
{
    if (argc != 7)
        return 2;
    const char* host = "127.0.0.1";
    input_address = address(host, atoi(argv[1]));
    request_address = address(host, atoi(argv[3]));
    ring_size = (uint32_t)atoi(argv[4]);
    seconds = atof(argv[5]);
    const struct sockaddr_in any = address("0.0.0.0", 0);
    const struct sockaddr_in media = address(argv[6], atoi(argv[2]));
    input_socket = make_socket(&any);
    receiver_socket = make_socket(&media);
    static _Atomic int sender_ended;
    pthread_t sender, receiver;
    for (int i = 0; i < IN_FLIGHT; ++i)
        ping();
    if (pthread_create(&receiver, NULL, receive_all, &sender_ended) != 0
        || pthread_create(&sender, NULL, send_media, NULL) != 0)
        die("pthread_create");
    pthread_join(sender, NULL);
    sender_ended = 1;
    pthread_join(receiver, NULL);
    printf("SENT=%u\nARRIVED=%u\nAGAIN=%lu\nNEVER_UNMARKED=%lu\nFAULTS=%lu\n", (unsigned)sent,
        (unsigned)newest, again, count_marked(), faults);
    return 0;
}
