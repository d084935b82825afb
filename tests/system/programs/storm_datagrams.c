/* Datagrams that look like what receivers and encoders send, and what is close to it. */
#include <string.h>

#include "storm.h"

enum {
    LONGEST_LIST = 763,
    FIRST_ID = 0x0bad0000,
    STREAM_IDS = 60,
    LARGEST_SENDING = HEADER_BYTES + SLICE_BYTES
};

static const uint8_t magics[4][4] = { { 0xba, 0xbe, 0xfa, 0xce }, { 0xce, 0xfa, 0xbe, 0xba },
    { 0xde, 0xad, 0xbe, 0xef }, { 0xef, 0xbe, 0xad, 0xde } };
static const uint8_t echo_start[4] = { 0, 0, 0xad, 0xe2 };
static const uint16_t words[] = { 0, 1, 2, 200, 255, 256, 32767, 32768, 65535 };
static const uint16_t counts[] = { 0, 1, 763, 764, 4096, 32768, 65535 };
static const uint16_t list_lengths[] = { 0, 1, 1, 2, 2, 8, 30, LONGEST_LIST };

#define ONE_OF(draw, list) ((list)[draw_below(draw, sizeof(list) / sizeof((list)[0]))])

static uint16_t host16(const uint8_t* data)
{
    uint16_t value;
    memcpy(&value, data, sizeof(value));
    return value;
}

static void set16(uint8_t* data, uint16_t value)
{
    memcpy(data, &value, sizeof(value));
}

static void append(Datagram* to, const void* data, size_t size)
{
    if (size > MOST_BYTES - to->size)
        size = MOST_BYTES - to->size;
    memcpy(to->data + to->size, data, size);
    to->size += size;
}

static void append_random(Draw* draw, Datagram* to, size_t size)
{
    uint8_t data[MOST_BYTES];
    draw_bytes(draw, data, size);
    append(to, data, size);
}

/* ---- What a datagram is to the proxy */

bool read_tag(const Datagram* datagram, uint32_t* id)
{
    *id = 0;
    if (datagram->size < TAG_BYTES)
        return false;
    for (size_t i = 0; i < 4; ++i) {
        if (memcmp(datagram->data, magics[i], 4) == 0) {
            memcpy(id, datagram->data + 4, 4);
            return true;
        }
    }
    return false;
}

size_t request_body(const Datagram* datagram, const uint8_t** body)
{
    uint32_t id;
    const size_t size = datagram->size < SLICE_BYTES ? datagram->size : SLICE_BYTES;
    const size_t skipped = read_tag(datagram, &id) && id != 0 ? TAG_BYTES : 0;
    *body = datagram->data + skipped;
    return size - skipped;
}

bool is_echo(const uint8_t* body, size_t size)
{
    return size >= sizeof(echo_start) && size < REQUEST_BYTES
        && memcmp(body, echo_start, sizeof(echo_start)) == 0;
}

static uint16_t list_sum(const uint8_t* body, size_t size)
{
    uint16_t sum = 0;
    size_t i = REQUEST_BYTES;
    for (; i + 1 < size; i += 2)
        sum = (uint16_t)(sum + host16(body + i));
    return i < size ? (uint16_t)(sum + body[i]) : sum;
}

uint64_t resend_bound(const uint8_t* body, size_t size)
{
    if (size < REQUEST_BYTES || (uint16_t)(host16(body + 2) + list_sum(body, size)) != 0)
        return 0;
    const uint32_t delay = (uint32_t)host16(body + 4) * host16(body + 6) + host16(body + 8);
    const uint64_t budget = (uint32_t)(delay * (uint32_t)GROSS_BIT_RATE) / 8000;
    const uint64_t listed = (uint64_t)host16(body) * LARGEST_SENDING;
    return budget < listed ? budget : listed;
}

/* ---- Request port */

size_t make_request(uint8_t* to, const uint16_t window[3], const uint16_t* numbers, uint16_t count)
{
    const size_t size = REQUEST_BYTES + (size_t)count * 2;
    set16(to, count);
    memcpy(to + 4, window, 6);
    memcpy(to + REQUEST_BYTES, numbers, (size_t)count * 2);
    set16(to + 2, (uint16_t)-list_sum(to, size));
    return size;
}

static void draw_numbers(Draw* draw, uint16_t newest, uint16_t* numbers, uint16_t count)
{
    const bool isRun = draw_percent(draw, 30);
    const uint16_t first = (uint16_t)(newest - draw_below(draw, 5000));
    for (uint16_t i = 0; i < count; ++i) {
        const uint32_t near = newest - draw_below(draw, 300);
        numbers[i] = (uint16_t)(isRun ? first + i : draw_percent(draw, 70) ? near : draw_word(draw));
    }
}

static uint16_t draw_count(Draw* draw, uint16_t right)
{
    if (draw_percent(draw, 80))
        return right;
    /* Long lists cost the proxy a millisecond each. */
    return draw_percent(draw, 90) ? (uint16_t)(right + draw_below(draw, 5) - 2) : ONE_OF(draw, counts);
}

static void append_request(Draw* draw, uint16_t newest, Datagram* to)
{
    uint16_t numbers[LONGEST_LIST], window[3];
    uint8_t data[REQUEST_BYTES + LONGEST_LIST * 2 + 1];
    const uint16_t count = ONE_OF(draw, list_lengths);
    draw_numbers(draw, newest, numbers, count);
    for (int i = 0; i < 3; ++i)
        window[i] = draw_percent(draw, 70) ? ONE_OF(draw, words) : (uint16_t)draw_word(draw);
    size_t size = make_request(data, window, numbers, count);
    if (draw_percent(draw, 10))
        data[size++] = (uint8_t)draw_word(draw);
    set16(data, draw_count(draw, count));
    set16(data + 2, (uint16_t)((draw_percent(draw, 90) ? 0 : draw_word(draw)) - list_sum(data, size)));
    append(to, data, size);
}

static void append_echo(Draw* draw, Datagram* to)
{
    uint8_t data[REQUEST_BYTES + 2];
    draw_bytes(draw, data, sizeof(data));
    memcpy(data, echo_start, draw_percent(draw, 80) ? 4 : draw_below(draw, 4));
    append(to, data, draw_below(draw, sizeof(data)));
}

static void append_tag(Draw* draw, Datagram* to)
{
    uint8_t tag[TAG_BYTES];
    /* Leaves are few: what joins must stay for a while, or nothing is sent to anybody. */
    memcpy(tag, magics[draw_below(draw, 2) + (draw_percent(draw, 3) ? 2 : 0)], 4);
    const uint32_t known = FIRST_ID + draw_below(draw, STREAM_IDS);
    const uint32_t id = draw_percent(draw, 90) ? known
        : draw_percent(draw, 80)               ? 0
                                               : (uint32_t)draw_word(draw);
    memcpy(tag + 4, &id, 4);
    if (draw_percent(draw, 3))
        tag[draw_below(draw, 4)] ^= (uint8_t)(1 << draw_below(draw, 8)); /* close to a tag */
    append(to, tag, draw_percent(draw, 95) ? TAG_BYTES : draw_below(draw, TAG_BYTES));
}

/* Flips, cuts, doubles; half of the time the checksum is put right again, so that the list is read. */
static void mutate(Draw* draw, Datagram* made)
{
    for (uint32_t i = draw_below(draw, 4); made->size > 0 && i > 0; --i)
        made->data[draw_below(draw, (uint32_t)made->size)] = (uint8_t)draw_word(draw);
    if (draw_percent(draw, 30))
        made->size = draw_below(draw, (uint32_t)made->size + 1);
    else if (draw_percent(draw, 10))
        append(made, made->data, made->size);
    uint32_t id;
    uint8_t* body = made->data + (read_tag(made, &id) && id != 0 ? TAG_BYTES : 0);
    const size_t whole = made->size < SLICE_BYTES ? made->size : SLICE_BYTES;
    const size_t size = whole - (size_t)(body - made->data);
    if (size >= REQUEST_BYTES && draw_percent(draw, 50))
        set16(body + 2, (uint16_t)-list_sum(body, size));
}

static void append_noise(Draw* draw, Datagram* to)
{
    append_random(draw, to,
        draw_below(draw,
            draw_percent(draw, 80)       ? 24
                : draw_percent(draw, 95) ? 1600
                                         : 4000));
}

/* Nobody but the bystander sends its ID: one bit less and it is another. */
static void spare_bystander(Datagram* made)
{
    uint32_t id;
    if (read_tag(made, &id) && id == BYSTANDER_ID)
        made->data[4] ^= 1;
}

void make_request_datagram(Draw* draw, uint16_t newest, Datagram* made)
{
    made->size = 0;
    if (draw_percent(draw, 60))
        append_tag(draw, made);
    if (draw_percent(draw, 5))
        append_tag(draw, made);
    const uint32_t kind = draw_below(draw, 100);
    if (kind < 65)
        append_request(draw, newest, made);
    else if (kind < 80)
        append_echo(draw, made);
    else
        append_noise(draw, made);
    if (draw_percent(draw, 20))
        mutate(draw, made);
    spare_bystander(made);
}

/* ---- Ping port */

/* A stream of any other ID stays until it is dropped for its silence: more than a few, and no place is left. */
static void keep_to_known_ids(Draw* draw, Datagram* made)
{
    uint32_t id;
    if (!read_tag(made, &id) || id - FIRST_ID < STREAM_IDS || draw_below(draw, 5000) == 0)
        return;
    id = FIRST_ID + id % STREAM_IDS;
    memcpy(made->data + 4, &id, 4);
}

void make_ping_datagram(Draw* draw, uint16_t newest, Datagram* made)
{
    const uint32_t kind = draw_below(draw, 100);
    made->size = 0;
    if (kind < 70)
        append_tag(draw, made);
    if (kind >= 50 && kind < 80)
        append_noise(draw, made);
    else if (kind >= 80 && kind < 95)
        make_request_datagram(draw, newest, made);
    if (draw_percent(draw, 10))
        mutate(draw, made);
    keep_to_known_ids(draw, made);
    spare_bystander(made);
}

/* ---- Input */

static void append_header(Draw* draw, uint16_t newest, Datagram* to)
{
    uint8_t header[HEADER_BYTES];
    draw_bytes(
        draw, header, sizeof(header)); /* any version, padding, extension, sources, marker, payload type */
    if (draw_percent(draw, 50))
        header[0] = (uint8_t)(0x80 | draw_below(draw, 0x40));
    const uint16_t number
        = (uint16_t)(draw_percent(draw, 70) ? newest + draw_below(draw, 64) - 32 : draw_word(draw));
    header[2] = (uint8_t)(number >> 8);
    header[3] = (uint8_t)number;
    append(to, header, sizeof(header));
}

void make_hostile_input(Draw* draw, uint16_t newest, Datagram* made)
{
    static const size_t sizes[] = { 0, 1, 188, 1316, 1324, 1524, 1525, 1536, 2000, 8000 };
    const uint32_t kind = draw_below(draw, 100);
    made->size = 0;
    if (kind < 80)
        append_header(draw, newest, made);
    append_random(draw, made, draw_percent(draw, 30) ? ONE_OF(draw, sizes) : draw_below(draw, 300));
    if (kind >= 60 && kind < 80) /* a piece, from any place to any place */
        made->size = draw_below(draw, (uint32_t)made->size + 1);
    if (kind >= 80 && kind < 90)
        make_request_datagram(draw, newest, made);
    if (made->size == 0)
        made->data[made->size++] = 0x80;
}

void make_media(uint64_t index, uint16_t number, Datagram* made)
{
    const uint8_t header[HEADER_BYTES]
        = { 0x80, 33, (uint8_t)(number >> 8), (uint8_t)number, 0, 0, 0, 0, 0x44, 0x33, 0x22, 0x11 };
    Draw filler = draw_for(index, 0);
    const size_t size = index % 64 == 0 ? 1300 : 40 + index % 128;
    made->size = 0;
    append(made, header, sizeof(header));
    append(made, &index, sizeof(index));
    append_random(&filler, made, size);
    const uint64_t sum = hash_of(made->data + HEADER_BYTES, made->size - HEADER_BYTES);
    append(made, &sum, sizeof(sum));
}
