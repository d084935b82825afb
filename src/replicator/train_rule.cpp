#include "replicator/train_rule.h"

#include <algorithm>

int32_t TrainLength(const size_t* bytes, int32_t count)
{
    const int32_t most = std::min(count, MOST_IN_TRAIN);
    const size_t pieceBytes = bytes[0];
    int32_t length = 1;
    size_t sum = pieceBytes;
    // An empty one goes alone: the bytes of a train would not tell of it.
    while (length < most && bytes[length] <= pieceBytes && bytes[length] != 0) {
        sum += bytes[length];
        if (sum > MOST_BYTES_IN_TRAIN)
            break;
        if (bytes[length++] < pieceBytes) // a shorter one ends it
            break;
    }
    return length;
}
