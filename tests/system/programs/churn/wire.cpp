#include "wire.h"

#include <cstring>

namespace {

constexpr uint8_t FLAGS = 0x80;
constexpr uint8_t MEDIA_TYPE = 33;
constexpr uint8_t RESEND_TYPE = 122;
constexpr uint32_t STREAM_MARK = 0x5EA51DE5; // the SSRC and the first word of the payload
constexpr size_t TYPE_AT = 1;
constexpr size_t NUMBER_AT = 2;
constexpr size_t TIMESTAMP_AT = 4;
constexpr size_t SSRC_AT = 8;
constexpr size_t WORD_BYTES = 8;
constexpr uint64_t FEWEST_WORDS = 4; // mark and size, number, one that follows from it, checksum
constexpr uint64_t SOME_WORDS = 8;
constexpr uint64_t MANY_WORDS = 164; // 1328 bytes in all
constexpr size_t TAIL_BYTES = 4; // behind the words: every size is a whole number of words but for these
constexpr uint64_t LARGE_ONE_IN = 64;

constexpr uint8_t STOP[] = { 0xDE, 0xAD, 0xBE, 0xEF };
constexpr uint8_t ID[] = { 0xBA, 0xBE, 0xFA, 0xCE };
constexpr uint8_t ECHO_START[] = { 0, 0, 0xAD, 0xE2 };
constexpr size_t ECHO_BYTES = 9;

bool g_allLarge;

uint64_t Mix(uint64_t value, uint64_t word)
{
    value = (value ^ word) * 0x9E3779B97F4A7C15;
    return value ^ value >> 32;
}

size_t PayloadWords(uint64_t number)
{
    return g_allLarge || number % LARGE_ONE_IN == 0 ? MANY_WORDS : FEWEST_WORDS + Mix(1, number) % SOME_WORDS;
}

uint64_t WordAt(const uint8_t* payload, size_t index)
{
    uint64_t word;
    memcpy(&word, payload + index * WORD_BYTES, sizeof(word));
    return word;
}

void PutWord(uint8_t* payload, size_t index, uint64_t word)
{
    memcpy(payload + index * WORD_BYTES, &word, sizeof(word));
}

// Over all of the payload but its last word, which holds the result.
uint64_t Checksum(const uint8_t* payload, size_t words)
{
    uint64_t sum = words;
    for (size_t i = 0; i + 1 < words; ++i)
        sum = Mix(sum, WordAt(payload, i));
    return sum;
}

template <typename Word>
void Append(Bytes& bytes, Word word)
{
    const auto* begin = reinterpret_cast<const uint8_t*>(&word);
    bytes.insert(bytes.end(), begin, begin + sizeof(word));
}

Bytes Tagged(uint32_t streamId)
{
    Bytes bytes;
    if (streamId != NO_ID) {
        bytes.assign(ID, ID + sizeof(ID));
        Append(bytes, streamId);
    }
    return bytes;
}

} // namespace

void UseLargeMedia(bool all)
{
    g_allLarge = all;
}

size_t MakeMedia(uint64_t number, uint8_t* data)
{
    const size_t words = PayloadWords(number);
    const uint32_t mark = STREAM_MARK;
    data[0] = FLAGS;
    data[TYPE_AT] = MEDIA_TYPE;
    data[NUMBER_AT] = static_cast<uint8_t>(number >> 8);
    data[NUMBER_AT + 1] = static_cast<uint8_t>(number);
    memset(data + TIMESTAMP_AT, 0, 4);
    memcpy(data + SSRC_AT, &mark, sizeof(mark));
    uint8_t* payload = data + HEADER_BYTES;
    PutWord(payload, 0, static_cast<uint64_t>(words) << 32 | mark);
    PutWord(payload, 1, number);
    for (size_t i = 2; i + 1 < words; ++i)
        PutWord(payload, i, Mix(number, i));
    PutWord(payload, words - 1, Checksum(payload, words));
    memcpy(payload + words * WORD_BYTES, &mark, TAIL_BYTES);
    return HEADER_BYTES + words * WORD_BYTES + TAIL_BYTES;
}

const char* ReadMedia(const uint8_t* data, size_t size, Media* media)
{
    constexpr size_t AROUND = HEADER_BYTES + TAIL_BYTES;
    if (size < AROUND + FEWEST_WORDS * WORD_BYTES || (size - AROUND) % WORD_BYTES != 0)
        return "has a size that none of ours has";
    const uint8_t* payload = data + HEADER_BYTES;
    const size_t words = (size - AROUND) / WORD_BYTES;
    const uint32_t mark = STREAM_MARK;
    media->number = WordAt(payload, 1);
    if (WordAt(payload, 0) != (static_cast<uint64_t>(words) << 32 | STREAM_MARK)
        || words != PayloadWords(media->number) || WordAt(payload, words - 1) != Checksum(payload, words)
        || memcmp(payload + words * WORD_BYTES, &mark, TAIL_BYTES) != 0)
        return "has a payload that is not as it was sent";
    uint32_t ssrc;
    memcpy(&ssrc, data + SSRC_AT, sizeof(ssrc));
    if (data[0] != FLAGS || ssrc != STREAM_MARK)
        return "has a header that is not as it was sent";
    if ((data[NUMBER_AT] << 8 | data[NUMBER_AT + 1]) != static_cast<int>(media->number & 0xFFFF))
        return "has the header of another number";
    if (data[TYPE_AT] != MEDIA_TYPE && data[TYPE_AT] != RESEND_TYPE)
        return "has a payload type that is none of ours";
    media->isResend = data[TYPE_AT] == RESEND_TYPE;
    media->timestamp = static_cast<uint32_t>(data[TIMESTAMP_AT]) << 24 | data[TIMESTAMP_AT + 1] << 16
        | data[TIMESTAMP_AT + 2] << 8 | data[TIMESTAMP_AT + 3];
    return nullptr;
}

bool IsStopMessage(const uint8_t* data, size_t size)
{
    return size == sizeof(STOP) + sizeof(ID) && memcmp(data, STOP, sizeof(STOP)) == 0
        && memcmp(data + sizeof(STOP), ID, sizeof(ID)) == 0;
}

Bytes MakePing(uint32_t streamId)
{
    return streamId != NO_ID ? Tagged(streamId) : Bytes { 'p', 'i', 'n', 'g' };
}

Bytes MakeStop(uint32_t streamId)
{
    Bytes bytes(STOP, STOP + sizeof(STOP));
    if (streamId != NO_ID)
        Append(bytes, streamId);
    return bytes;
}

Bytes MakeRequest(uint32_t streamId, const std::vector<uint64_t>& numbers, Window window)
{
    Bytes bytes = Tagged(streamId);
    uint16_t sum = 0;
    for (const uint64_t number : numbers)
        sum = static_cast<uint16_t>(sum + number);
    Append(bytes, static_cast<uint16_t>(numbers.size()));
    Append(bytes, static_cast<uint16_t>(-sum));
    Append(bytes, window.retries);
    Append(bytes, window.intervalMs);
    Append(bytes, window.extraMs);
    for (const uint64_t number : numbers)
        Append(bytes, static_cast<uint16_t>(number));
    return bytes;
}

Bytes MakeEcho(uint32_t streamId, uint8_t receiver, uint32_t serial)
{
    Bytes bytes = Tagged(streamId);
    bytes.insert(bytes.end(), ECHO_START, ECHO_START + sizeof(ECHO_START));
    Append(bytes, receiver);
    Append(bytes, serial);
    return bytes;
}

bool ReadEcho(const uint8_t* data, size_t size, uint8_t* receiver, uint32_t* serial)
{
    if (size != ECHO_BYTES || memcmp(data, ECHO_START, sizeof(ECHO_START)) != 0)
        return false;
    *receiver = data[sizeof(ECHO_START)];
    memcpy(serial, data + sizeof(ECHO_START) + 1, sizeof(*serial));
    return true;
}
