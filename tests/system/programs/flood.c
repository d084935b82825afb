/* Sends datagrams to one address, at a rate or as fast as it can, until a signal or its time ends it:
 *
 *     flood ADDRESS PORT SOURCE_ADDRESS SOURCE_PORT SECONDS THREADS NUMBERED RATE < datagrams
 *
 * Standard input has the datagrams to send in turn, each behind its length (2 bytes, little-endian). With NUMBERED
 * not 0 the 16-bit number at byte 2 (big-endian) and the 32-bit one at byte 12 (little-endian) count up from 0.
 * Rate 0 is as fast as it can, and otherwise datagrams a second and thread. Port 0 is any; with more threads than
 * one each has a socket of its own. The end says how many were sent. */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

enum { MOST_DATAGRAMS = 4096, LONGEST = 65507, BATCH = 32, MOST_THREADS = 4, NUMBERED_BYTES = 16 };

static struct {
    uint8_t* data;
    size_t size;
} datagrams[MOST_DATAGRAMS];
static int count;
static struct sockaddr_in target, source;
static int is_numbered;
static double rate;
static volatile sig_atomic_t has_ended;
static unsigned long sent[MOST_THREADS];

static void die(const char* what)
{
    perror(what);
    exit(1);
}

static void end(int signal_number)
{
    (void)signal_number;
    has_ended = 1;
}

static struct sockaddr_in address(const char* host, int port)
{
    struct sockaddr_in result = { .sin_family = AF_INET, .sin_port = htons((uint16_t)port) };
    if (inet_pton(AF_INET, host, &result.sin_addr) != 1)
        die(host);
    return result;
}

static void read_datagrams(void)
{
    uint8_t size[2];
    while (count < MOST_DATAGRAMS && fread(size, 1, sizeof(size), stdin) == sizeof(size)) {
        datagrams[count].size = (size_t)(size[0] | size[1] << 8);
        datagrams[count].data = calloc(1, datagrams[count].size + 1);
        if (fread(datagrams[count].data, 1, datagrams[count].size, stdin) != datagrams[count].size)
            die("standard input");
        ++count;
    }
    if (count == 0)
        die("no datagram");
}

static double now(void)
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (double)time.tv_sec + 1e-9 * (double)time.tv_nsec;
}

static void keep_rate(double began, unsigned long done)
{
    const double early = began + (double)done / rate - now();
    if (early > 0)
        usleep((useconds_t)(early * 1e6));
}

/* Batches of copies, because each has its own number. */
static void number(uint8_t* data, size_t size, uint32_t value)
{
    if (size < NUMBERED_BYTES)
        return;
    data[2] = (uint8_t)(value >> 8);
    data[3] = (uint8_t)value;
    memcpy(data + 12, &value, sizeof(value));
}

static void* send_all(void* slot)
{
    static uint8_t copies[MOST_THREADS][BATCH][2048];
    const int self = (int)(intptr_t)slot;
    const int descriptor = socket(AF_INET, SOCK_DGRAM, 0);
    const int on = 1;
    (void)setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (bind(descriptor, (struct sockaddr*)&source, sizeof(source)) != 0)
        die("bind");
    int next = 0;
    const double began = now();
    while (!has_ended) {
        if (rate > 0)
            keep_rate(began, sent[self]);
        struct mmsghdr messages[BATCH];
        struct iovec parts[BATCH];
        memset(messages, 0, sizeof(messages));
        for (int i = 0; i < BATCH; ++i, next = (next + 1) % count) {
            parts[i] = (struct iovec) { datagrams[next].data, datagrams[next].size };
            if (is_numbered && parts[i].iov_len <= sizeof(copies[self][i])) {
                memcpy(copies[self][i], parts[i].iov_base, parts[i].iov_len);
                parts[i].iov_base = copies[self][i];
                number(copies[self][i], parts[i].iov_len, (uint32_t)(sent[self] + (unsigned long)i));
            }
            messages[i].msg_hdr.msg_name = &target;
            messages[i].msg_hdr.msg_namelen = sizeof(target);
            messages[i].msg_hdr.msg_iov = &parts[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
        for (int done = 0; done < BATCH && !has_ended;) {
            const int went = sendmmsg(descriptor, messages + done, (unsigned)(BATCH - done), 0);
            if (went < 0)
                die("sendmmsg");
            done += went;
            sent[self] += (unsigned long)went;
        }
    }
    close(descriptor);
    return NULL;
}

int main(int argc, char** argv)
{
    if (argc != 9)
        return 2;
    target = address(argv[1], atoi(argv[2]));
    source = address(argv[3], atoi(argv[4]));
    const int threads = atoi(argv[6]);
    is_numbered = atoi(argv[7]);
    rate = atof(argv[8]);
    if (threads < 1 || threads > MOST_THREADS)
        return 2;
    read_datagrams();
    signal(SIGTERM, end);
    signal(SIGALRM, end);
    alarm((unsigned)atoi(argv[5]));
    pthread_t others[MOST_THREADS];
    for (int i = 1; i < threads; ++i)
        if (pthread_create(&others[i], NULL, send_all, (void*)(intptr_t)i) != 0)
            die("pthread_create");
    send_all(NULL);
    unsigned long total = sent[0];
    for (int i = 1; i < threads; ++i) {
        pthread_join(others[i], NULL);
        total += sent[i];
    }
    printf("SENT=%lu\n", total);
    return 0;
}
