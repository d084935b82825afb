/* Random numbers that a seed repeats, and the set of hashes. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "storm.h"

static uint64_t mix(uint64_t word)
{
    word = (word ^ (word >> 30)) * 0xbf58476d1ce4e5b9U;
    word = (word ^ (word >> 27)) * 0x94d049bb133111ebU;
    return word ^ (word >> 31);
}

Draw draw_for(uint64_t seed, uint64_t purpose)
{
    return (Draw) { mix(seed + 1) ^ mix(purpose * 0x9e3779b97f4a7c15U) };
}

uint64_t draw_word(Draw* draw)
{
    draw->state += 0x9e3779b97f4a7c15U;
    return mix(draw->state);
}

uint32_t draw_below(Draw* draw, uint32_t limit)
{
    return (uint32_t)(((draw_word(draw) >> 32) * limit) >> 32);
}

bool draw_percent(Draw* draw, uint32_t percent)
{
    return draw_below(draw, 100) < percent;
}

void draw_bytes(Draw* draw, uint8_t* data, size_t size)
{
    for (size_t i = 0; i < size; i += 8) {
        const uint64_t word = draw_word(draw);
        memcpy(data + i, &word, size - i < 8 ? size - i : 8);
    }
}

uint64_t hash_of(const uint8_t* data, size_t size)
{
    uint64_t hash = size + 1;
    for (size_t i = 0; i < size; i += 8) {
        uint64_t word = 0;
        memcpy(&word, data + i, size - i < 8 ? size - i : 8);
        hash = (hash ^ word) * 0x9e3779b97f4a7c15U;
        hash ^= hash >> 32;
    }
    hash = mix(hash);
    return hash == 0 ? 1 : hash; /* 0 is an empty place */
}

void known_init(Known* known, size_t places)
{
    *known = (Known) { calloc(places, sizeof(uint64_t)), places - 1, 0 };
    if (known->slots == NULL)
        die("calloc");
}

static size_t place_of(const Known* known, uint64_t hash)
{
    size_t place = hash & known->mask;
    while (known->slots[place] != 0 && known->slots[place] != hash)
        place = (place + 1) & known->mask;
    return place;
}

bool known_add(Known* known, uint64_t hash)
{
    const size_t place = place_of(known, hash);
    if (known->slots[place] == hash)
        return false;
    if (++known->used > known->mask / 2)
        die("more was sent than can be remembered");
    known->slots[place] = hash;
    return true;
}

bool known_has(const Known* known, uint64_t hash)
{
    return known->slots[place_of(known, hash)] == hash;
}
