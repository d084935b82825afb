/* What the parts of datagram_storm share. Single threaded but for storm_control.c, whose thread draws for itself. */
#pragma once

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

enum {
    MOST_BYTES = 9000,
    SLICE_BYTES = 1536, /* the proxy cuts off what is longer */
    HEADER_BYTES = 12,
    TAG_BYTES = 8,
    REQUEST_BYTES = 10,
    GROSS_BIT_RATE = 50000000 /* the default of -G */
};

/* The bystander's stream: whoever else used this ID could end it, as the protocol has it. */
#define BYSTANDER_ID 0x600D600DU

/* A generator for each purpose: a draw more in one place leaves the others alone. */
typedef struct {
    uint64_t state;
} Draw;

Draw draw_for(uint64_t seed, uint64_t purpose);
uint64_t draw_word(Draw* draw);
uint32_t draw_below(Draw* draw, uint32_t limit);
bool draw_percent(Draw* draw, uint32_t percent);
void draw_bytes(Draw* draw, uint8_t* data, size_t size);

typedef struct {
    uint8_t data[MOST_BYTES];
    size_t size;
} Datagram;

/* `newest` is the number of the media packet that was sent last: many requests ask for something near it. */
void make_request_datagram(Draw* draw, uint16_t newest, Datagram* made);
void make_ping_datagram(Draw* draw, uint16_t newest, Datagram* made);
void make_hostile_input(Draw* draw, uint16_t newest, Datagram* made); /* never empty: that would be nothing */
void make_media(uint64_t index, uint16_t number, Datagram* made); /* the payload carries index and checksum */

/* What a datagram is to the proxy. */
bool read_tag(const Datagram* datagram, uint32_t* id); /* true when it carries one */
/* What stands behind the tag, or all of it. Returns the number of bytes. */
size_t request_body(const Datagram* datagram, const uint8_t** body);
bool is_echo(const uint8_t* body, size_t size);
/* The most bytes that may be sent again for this body; 0 when it is no valid request. */
uint64_t resend_bound(const uint8_t* body, size_t size);
size_t make_request(uint8_t* to, const uint16_t window[3], const uint16_t* numbers, uint16_t count);

/* A set of hashes; never full: it dies instead. */
typedef struct {
    uint64_t* slots;
    size_t mask, used;
} Known;

uint64_t hash_of(const uint8_t* data, size_t size);
void known_init(Known* known, size_t places); /* a power of two */
bool known_add(Known* known, uint64_t hash); /* true when it is new */
bool known_has(const Known* known, uint64_t hash);

/* The slow client of the control socket, between start and stop. */
void control_start(const char* path, uint64_t seed);
void control_stop(void);
extern unsigned long control_requests, control_replies, control_faults;

__attribute__((noreturn)) void die(const char* what);
