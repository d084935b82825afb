#pragma once

#include <cstdint>
#include <string_view>

#include "base/plain_word.h"

// Writes the text, however long its reader takes, in pieces of 4096 bytes at most that end at line ends where
// they can: a pipe takes such a piece whole, so that lines of several processes do not mix. Waits also where
// the descriptor does not block. What cannot be written, because the reader is gone or the disk is full, is
// thrown away. Adds 1 to `progress` for every piece; only the caller's thread writes that word.
void WriteAll(int fd, std::string_view text, PlainWord<uint32_t>& progress);
