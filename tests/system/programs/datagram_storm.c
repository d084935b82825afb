/* Hostile datagrams on the three ports and the control socket of a proxy, beside a stream to two bystanders.
 *
 *   datagram_storm --input PORT --ping PORT --request PORT --control PATH [--udp-input] [--seed N] [--count N]
 *                  [--warm-up N] [--seconds N]
 *
 * The proxy has the one destination 127.0.0.2; that and 127.0.0.5, which joins with an ID, are the bystanders. All
 * that reaches the input is media to them, the hostile datagrams too: it must come whole and in order. Strangers send
 * from 127.0.2.x. Whatever any socket here receives must be media that was sent, media sent again, an echo of what was
 * sent, or the stop message; and who never pinged gets nothing. A step ends when the media are there and an echo that
 * was asked for last is back, so nothing is lost on the way and every datagram has really been read.
 *
 * First comes a warm-up of its own count. Before and after what follows, the strangers leave, the program prints a
 * line and waits for one, so that its caller can measure. At the end both bystanders ask for a packet, and NAME=COUNT
 * lines say what was done. The seed and the counts repeat what is sent; how it meets the clock differs. */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <time.h>

#include "storm.h"

enum {
    STRANGERS = 48,
    FIRST_MUTE = 40, /* from here on they send to the request port only */
    ADDED = 4, /* destinations that the control client adds */
    SOCKETS = 2 + STRANGERS + ADDED,
    BATCH_PAIRS = 60,
    BATCH_BYTES
    = 150000, /* of the kernel's memory: with one datagram more still less than a receive buffer */
    DATAGRAM_OVERHEAD = 1300,
    GOOD_MEDIA = 10, /* a step; with HOSTILE_MEDIA it keeps the places of a ring younger than the pool */
    HOSTILE_MEDIA = 2,
    FIRST_NUMBER = 65000,
    FORMS = 1 << 21,
    IDS = 1 << 20,
    STALL_SECONDS = 60,
    MOST_PRINTED = 10,
    TAKEN_AT_ONCE = 32,
    ECHO_BYTES = 8
};

typedef struct {
    int socket;
    struct sockaddr_in address;
    bool mayReceive;
    size_t arrived; /* media of a bystander, in order */
    uint64_t wanted; /* hash of the answer that a bystander asked for; 0 for none */
    bool isAnswered, isEchoed;
    uint64_t echo; /* hash of the echo that a bystander waits for */
} Place;

static struct {
    uint64_t seed, count, warm_up;
    double seconds;
    uint16_t input, ping, request;
    const char* control;
    bool isUdpInput;
} options = { .seed = 1, .count = 10000, .warm_up = 1000, .seconds = 600 };

static Place places[SOCKETS]; /* the bystanders first */
static int poller, input_socket;
static struct sockaddr_in input_address, ping_address, request_address;
static Known firsts, agains, echoes, stream_ids;
static uint64_t* in_order; /* hash of every input datagram as it leaves */
static size_t media_sent, media_index;
static uint16_t newest;
static uint32_t echo_serial;
static uint64_t sent[3]; /* hostile datagrams to input, ping port, request port */
static uint64_t echoes_sent, again_bound;
static uint64_t got_first, got_again, got_again_bytes, got_echoes, got_stops, faults;
static Draw input_draw, ping_draw, request_draw, place_draw;

void die(const char* what)
{
    fflush(stdout);
    perror(what);
    exit(1);
}

static double now(void)
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (double)time.tv_sec + (double)time.tv_nsec / 1e9;
}

static struct sockaddr_in address_of(const char* host, unsigned last, uint16_t port)
{
    char text[32];
    snprintf(text, sizeof(text), host, last);
    struct sockaddr_in result = { .sin_family = AF_INET, .sin_port = htons(port) };
    inet_pton(AF_INET, text, &result.sin_addr);
    return result;
}

static void open_place(size_t i, struct sockaddr_in local)
{
    const int on = 1, bytes = 64 << 20;
    Place* place = &places[i];
    place->socket = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    setsockopt(place->socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    setsockopt(place->socket, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof(bytes));
    if (place->socket < 0 || bind(place->socket, (const struct sockaddr*)&local, sizeof(local)) != 0)
        die("bind");
    struct epoll_event event = { .events = EPOLLIN, .data.u64 = i };
    if (epoll_ctl(poller, EPOLL_CTL_ADD, place->socket, &event) != 0)
        die("epoll_ctl");
    place->address = local;
    place->mayReceive = true;
}

static void open_places(void)
{
    poller = epoll_create1(0);
    input_socket = socket(AF_INET, SOCK_DGRAM, 0);
    open_place(0, address_of("127.0.0.%u", 2, options.ping));
    open_place(1, address_of("127.0.0.%u", 5, 0));
    for (unsigned i = 0; i < STRANGERS; ++i) {
        /* Two ports an address; the mute ones have addresses of their own. */
        open_place(2 + i, address_of("127.0.2.%u", 1 + (i < FIRST_MUTE ? i / 2 : i), 0));
        places[2 + i].mayReceive = i < FIRST_MUTE;
    }
    for (unsigned i = 0; i < ADDED; ++i)
        open_place(2 + STRANGERS + i, address_of("127.0.3.%u", 1 + i, options.ping));
}

static void transmit(int from, const void* data, size_t size, const struct sockaddr_in* to)
{
    if (sendto(from, data, size, 0, (const struct sockaddr*)to, sizeof(*to)) < 0)
        die("sendto");
}

/* ---- What may arrive */

/* The bytes that the proxy may choose: the time, and with a header of its own the source's number too. */
static void mask(uint8_t* data, size_t size)
{
    const size_t end = options.isUdpInput ? 12 : 8;
    for (size_t i = 4; i < end && i < size; ++i)
        data[i] = 0;
}

/* The input datagram as it leaves; `number` counts all of them. Returns its size. */
static size_t as_sent(const Datagram* input, size_t number, uint8_t* to)
{
    const size_t size = input->size < SLICE_BYTES ? input->size : SLICE_BYTES;
    const size_t header = options.isUdpInput ? HEADER_BYTES : 0;
    memset(to, 0, header);
    memcpy(to + header, input->data, size);
    if (options.isUdpInput) {
        to[0] = 0x80;
        to[1] = 33;
        to[2] = (uint8_t)((number + 1) >> 8);
        to[3] = (uint8_t)(number + 1);
    }
    mask(to, header + size);
    return header + size;
}

static uint64_t again_hash(uint8_t* data, size_t size)
{
    if (size > 1)
        data[1] = (uint8_t)((data[1] & 0x80) | 122);
    return hash_of(data, size);
}

static void fault(const Place* place, const char* what, const uint8_t* data, size_t size)
{
    if (++faults > MOST_PRINTED)
        return;
    printf("fault: %s:%u got %s, %zu bytes:", inet_ntoa(place->address.sin_addr),
        ntohs(place->address.sin_port), what, size);
    for (size_t i = 0; i < size && i < 48; ++i)
        printf(" %02x", data[i]);
    printf("\n");
}

static void take_as_bystander(Place* place, uint8_t* data, size_t size)
{
    /* The echo first: but for the time, a hostile input datagram may be the same. */
    if (hash_of(data, size) == place->echo) {
        place->isEchoed = true;
        return;
    }
    mask(data, size);
    const uint64_t hash = hash_of(data, size);
    if (place->arrived < media_sent && in_order[place->arrived] == hash)
        ++place->arrived;
    else if (hash == place->wanted)
        place->isAnswered = true;
    else
        fault(place, "not the next packet, nor what it asked for", data, size);
}

static void take_as_stranger(Place* place, uint8_t* data, size_t size)
{
    static const uint8_t stop[] = { 0xde, 0xad, 0xbe, 0xef, 0xba, 0xbe, 0xfa, 0xce };
    if (!place->mayReceive)
        fault(place, "something, though it never pinged", data, size);
    const bool isStop = size == sizeof(stop) && memcmp(data, stop, size) == 0;
    const bool isEcho = is_echo(data, size) && known_has(&echoes, hash_of(data, size));
    mask(data, size);
    const uint64_t hash = hash_of(data, size);
    if (known_has(&firsts, hash))
        ++got_first;
    else if (known_has(&agains, hash)) {
        ++got_again;
        got_again_bytes += size;
    } else if (isEcho)
        ++got_echoes;
    else if (isStop)
        ++got_stops;
    else
        fault(place, "what nobody sent", data, size);
}

static void take(size_t i)
{
    static uint8_t data[TAKEN_AT_ONCE][MOST_BYTES];
    struct mmsghdr messages[TAKEN_AT_ONCE];
    struct iovec parts[TAKEN_AT_ONCE];
    memset(messages, 0, sizeof(messages));
    for (int k = 0; k < TAKEN_AT_ONCE; ++k) {
        parts[k] = (struct iovec) { data[k], MOST_BYTES };
        messages[k].msg_hdr.msg_iov = &parts[k];
        messages[k].msg_hdr.msg_iovlen = 1;
    }
    const int count = recvmmsg(places[i].socket, messages, TAKEN_AT_ONCE, MSG_DONTWAIT, NULL);
    for (int k = 0; k < count; ++k)
        (i < 2 ? take_as_bystander : take_as_stranger)(&places[i], data[k], messages[k].msg_len);
}

static void take_what_came(int waitMs)
{
    struct epoll_event events[SOCKETS];
    const int count = epoll_wait(poller, events, SOCKETS, waitMs);
    for (int i = 0; i < count; ++i)
        take(events[i].data.u64);
}

/* ---- Bystanders */

static size_t with_tag(const Place* place, uint8_t* to)
{
    const uint32_t magic = 0xbabeface, id = BYSTANDER_ID;
    if (place == &places[0])
        return 0;
    memcpy(to, &magic, 4);
    memcpy(to + 4, &id, 4);
    return TAG_BYTES;
}

static void keep_alive(void)
{
    static double last = -10;
    uint8_t data[TAG_BYTES];
    if (now() - last < 0.5)
        return;
    last = now();
    transmit(places[1].socket, data, with_tag(&places[1], data), &ping_address);
}

static void ask_echo(Place* place)
{
    uint8_t data[TAG_BYTES + ECHO_BYTES] = { 0 };
    const size_t start = with_tag(place, data);
    const uint8_t magic[] = { 0, 0, 0xad, 0xe2 };
    ++echo_serial;
    memcpy(data + start, magic, 4);
    memcpy(data + start + 4, &echo_serial, 4);
    place->echo = hash_of(data + start, ECHO_BYTES);
    place->isEchoed = false;
    transmit(place->socket, data, start + ECHO_BYTES, &request_address);
}

/* Takes what comes until everything asked for is there. */
static void settle(void)
{
    const double limit = now() + STALL_SECONDS;
    while (!places[0].isEchoed || places[0].arrived < media_sent || places[1].arrived < media_sent) {
        take_what_came(100);
        keep_alive();
        if (now() > limit || faults > 1000) {
            printf("stalled: %zu media sent, %zu and %zu arrived, echo %d\n", media_sent, places[0].arrived,
                places[1].arrived, places[0].isEchoed);
            exit(3);
        }
    }
}

static void join(void)
{
    const double limit = now() + STALL_SECONDS;
    while (!places[1].isEchoed) {
        keep_alive();
        ask_echo(&places[1]);
        take_what_came(100);
        if (now() > limit)
            die("the bystander could not join");
    }
}

/* A packet that both have is asked for, until it has come again. */
static void ask_for(const Datagram* media, size_t number)
{
    const uint16_t window[] = { 2, 20000, 0 };
    uint8_t data[TAG_BYTES + REQUEST_BYTES + 2], form[MOST_BYTES];
    const size_t size = as_sent(media, number, form);
    const uint16_t seq = (uint16_t)(form[2] << 8 | form[3]);
    const double limit = now() + STALL_SECONDS;
    for (size_t i = 0; i < 2; ++i) {
        Place* place = &places[i];
        const size_t start = with_tag(place, data);
        place->wanted = again_hash(form, size);
        while (!place->isAnswered && now() < limit) {
            transmit(
                place->socket, data, start + make_request(data + start, window, &seq, 1), &request_address);
            take_what_came(150);
        }
    }
}

/* ---- One step */

static void send_media(const Datagram* input)
{
    uint8_t form[MOST_BYTES];
    const size_t size = as_sent(input, media_sent, form);
    in_order[media_sent++] = hash_of(form, size);
    known_add(&firsts, hash_of(form, size));
    known_add(&agains, again_hash(form, size));
    transmit(input_socket, input->data, input->size, &input_address);
}

static void send_media_of_a_step(void)
{
    Datagram made;
    for (int i = 0; i < GOOD_MEDIA + HOSTILE_MEDIA; ++i) {
        if (i % (GOOD_MEDIA / HOSTILE_MEDIA + 1) == 0) {
            make_hostile_input(&input_draw, newest, &made);
            ++sent[0];
        } else {
            /* With -u the proxy numbers. */
            newest = (uint16_t)(options.isUdpInput ? media_sent + 1 : FIRST_NUMBER + media_index);
            make_media(media_index++, newest, &made);
        }
        send_media(&made);
    }
}

/* What the proxy's socket has to hold for it, at most. */
static size_t kernel_bytes(const Datagram* datagram)
{
    return DATAGRAM_OVERHEAD + 2 * datagram->size;
}

static size_t send_request(void)
{
    Datagram made;
    const uint8_t* body;
    make_request_datagram(&request_draw, newest, &made);
    const size_t size = request_body(&made, &body);
    if (is_echo(body, size)) {
        ++echoes_sent;
        known_add(&echoes, hash_of(body, size));
    }
    again_bound += resend_bound(body, size);
    ++sent[2];
    transmit(places[2 + draw_below(&place_draw, STRANGERS)].socket, made.data, made.size, &request_address);
    return kernel_bytes(&made);
}

static size_t send_ping(void)
{
    Datagram made;
    uint32_t id;
    make_ping_datagram(&ping_draw, newest, &made);
    if (read_tag(&made, &id))
        known_add(&stream_ids, (hash_of((const uint8_t*)&id, 4) & ~0xffffffffULL) | id);
    ++sent[1];
    transmit(places[2 + draw_below(&place_draw, FIRST_MUTE)].socket, made.data, made.size, &ping_address);
    return kernel_bytes(&made);
}

/* No more pings than requests: the listen thread takes one of each in turn, so both have been read when the echo of the
 * last request is back. */
static void step(void)
{
    size_t pings = 0, requests = 0;
    for (int i = 0; i < BATCH_PAIRS && pings < BATCH_BYTES && requests < BATCH_BYTES; ++i) {
        pings += send_ping();
        requests += send_request();
    }
    send_media_of_a_step();
    ask_echo(&places[0]);
    settle();
}

static uint64_t all_sent(void)
{
    return sent[0] + sent[1] + sent[2];
}

static void storm(uint64_t count, double seconds)
{
    const double end = now() + seconds;
    control_start(options.control, options.seed + count);
    for (const uint64_t before = all_sent(); all_sent() - before < count && now() < end;)
        step();
    control_stop();
}

/* ---- Quiet */

static void leave(size_t place, uint32_t id)
{
    uint8_t data[TAG_BYTES] = { 0xde, 0xad, 0xbe, 0xef };
    memcpy(data + 4, &id, 4);
    transmit(places[place].socket, data, id == 0 ? 4 : TAG_BYTES, &ping_address);
}

/* All strangers leave under every ID that they have ever used, so that what is left over is nobody's. */
static void leave_all(void)
{
    int batch = 0;
    for (size_t i = 0; i <= stream_ids.mask; ++i) {
        const uint32_t id = (uint32_t)stream_ids.slots[i];
        if (id == 0)
            continue;
        leave(2, id);
        if (++batch % 64 == 0) {
            ask_echo(&places[0]);
            settle();
        }
    }
    for (size_t i = 2; i < 2 + FIRST_MUTE; ++i)
        leave(i, 0);
    ask_echo(&places[0]);
    settle();
}

static void wait_for_caller(const char* text)
{
    char line[16];
    printf("%s\n", text);
    fflush(stdout);
    (void)!fgets(line, sizeof(line), stdin);
}

static void check_requests(void)
{
    Datagram asked, made;
    make_media(media_index++, FIRST_NUMBER, &asked);
    const size_t number = media_sent;
    send_media(&asked);
    make_media(media_index++, FIRST_NUMBER + 1, &made); /* one more: then the one before is remembered */
    send_media(&made);
    ask_echo(&places[0]);
    settle();
    ask_for(&asked, number);
}

static void report(double seconds)
{
    printf("SEED=%lu\nHOSTILE=%lu\nTO_INPUT=%lu\nTO_PING=%lu\nTO_REQUEST=%lu\nMEDIA=%zu\n", options.seed,
        all_sent(), sent[0], sent[1], sent[2], media_sent);
    printf("ARRIVED_CONFIGURED=%zu\nARRIVED_LEARNT=%zu\nANSWERED=%d\n", places[0].arrived, places[1].arrived,
        places[0].isAnswered + places[1].isAnswered);
    printf("FIRST=%lu\nAGAIN=%lu\nAGAIN_BYTES=%lu\nAGAIN_BOUND=%lu\nECHOES=%lu\nECHOES_SENT=%lu\nSTOPS=%lu\n",
        got_first, got_again, got_again_bytes, again_bound, got_echoes, echoes_sent, got_stops);
    printf("COMMANDS=%lu\nREPLIES=%lu\nCONTROL_FAULTS=%lu\nFAULTS=%lu\nMILLISECONDS=%.0f\n", control_requests,
        control_replies, control_faults, faults, seconds * 1000);
}

static void read_options(int argc, char** argv)
{
    static const struct option known[] = { { "input", 1, NULL, 'i' }, { "ping", 1, NULL, 'p' },
        { "request", 1, NULL, 'r' }, { "control", 1, NULL, 'c' }, { "udp-input", 0, NULL, 'u' },
        { "seed", 1, NULL, 's' }, { "count", 1, NULL, 'n' }, { "warm-up", 1, NULL, 'w' },
        { "seconds", 1, NULL, 't' }, { NULL, 0, NULL, 0 } };
    int letter;
    while ((letter = getopt_long(argc, argv, "", known, NULL)) != -1) {
        switch (letter) {
        case 'i':
            options.input = (uint16_t)atoi(optarg);
            break;
        case 'p':
            options.ping = (uint16_t)atoi(optarg);
            break;
        case 'r':
            options.request = (uint16_t)atoi(optarg);
            break;
        case 'c':
            options.control = optarg;
            break;
        case 'u':
            options.isUdpInput = true;
            break;
        case 's':
            options.seed = strtoul(optarg, NULL, 10);
            break;
        case 'n':
            options.count = strtoul(optarg, NULL, 10);
            break;
        case 'w':
            options.warm_up = strtoul(optarg, NULL, 10);
            break;
        case 't':
            options.seconds = atof(optarg);
            break;
        default:
            exit(2);
        }
    }
    if (options.input == 0 || options.ping == 0 || options.request == 0 || options.control == NULL)
        exit(2);
}

int main(int argc, char** argv)
{
    read_options(argc, argv);
    input_address = address_of("127.0.0.%u", 1, options.input);
    ping_address = address_of("127.0.0.%u", 1, options.ping);
    request_address = address_of("127.0.0.%u", 1, options.request);
    input_draw = draw_for(options.seed, 1);
    ping_draw = draw_for(options.seed, 2);
    request_draw = draw_for(options.seed, 3);
    place_draw = draw_for(options.seed, 5);
    known_init(&firsts, FORMS);
    known_init(&agains, FORMS);
    known_init(&echoes, FORMS);
    known_init(&stream_ids, IDS);
    in_order = calloc(FORMS, sizeof(*in_order));
    open_places();
    join();
    printf("SEED=%lu\n", options.seed);
    storm(options.warm_up, options.seconds);
    leave_all();
    wait_for_caller("WARM");
    const double begin = now();
    storm(options.count, options.seconds);
    const double seconds = now() - begin;
    leave_all();
    check_requests();
    report(seconds);
    wait_for_caller("END");
    return 0;
}
