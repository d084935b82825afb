/* The loadable encryption library, for whoever writes one: four functions with C names.
 *
 * tx_proxy (-z, -Z PASSWORD) loads it to transform the media that it takes in, and arqrx (--decrypt) to transform them
 * back. docs/encryption.md tells where the proxy looks for it, and which datagrams it never shows.
 *
 * Threads: a host opens, prints and closes on one thread and calls for data on one thread, never two calls at a time
 * for one session. There may be several sessions in a process: the proxy opens two when it has both -z and -Z.
 *
 * A function must not throw, end the process, wait or change signals, locale or environment. The call for data stands
 * between the network and the stream: what it takes, every packet takes. The host runs with all its rights in it.
 */
#pragma once

#include <stdint.h> /* NOLINT(modernize-deprecated-headers): a header for C, too */
#include <stdio.h> /* NOLINT(modernize-deprecated-headers) */

#ifdef __cplusplus
extern "C" {
#endif

#define SORVANEX_EXPORT __attribute__((visibility("default")))

enum {
    SORVANEX_RECEIVE = 0, /* arqrx: from what was received to what is played */
    SORVANEX_SEND = 1 /* the proxy: from what came in to what is sent */
};

enum {
    SORVANEX_UNDECIDED = -1, /* neither in clear nor of this password: not to be played */
    SORVANEX_CLEAR = 0, /* nothing was to be done */
    SORVANEX_DONE = 1 /* transformed */
};

/* Opens a session. `mode` is one of the two above; refuse others. `password` is null and `length` 0 when none was given;
 * otherwise `length` bytes, at least one, that may be gone after the call: copy what is needed. Returns a handle for the
 * other calls, or null: the proxy then goes on with media in clear and without a word, so say why on standard error;
 * arqrx does not start. */
SORVANEX_EXPORT void* sorvanex_open_callback(int32_t mode, const char* password, int32_t length);

/* Transforms `length` bytes at `data` in place: no byte more or fewer, none outside of the region.
 *
 * SORVANEX_SEND: the region is what the proxy's loader makes it, which need not be the datagram. It may end before the
 * datagram does, or go on behind its end into bytes that are never sent, and its first byte is the datagram's first or
 * its 189th. Only the length and the bytes tell; nothing before `data` may be read. The result is not used.
 *
 * SORVANEX_RECEIVE: the region is the MPEG-TS packets of one datagram, whole ones, in the order of play-out and each
 * datagram once; between two there may be a loss. Any packet may still be in clear. Returns SORVANEX_UNDECIDED,
 * SORVANEX_CLEAR or SORVANEX_DONE; after SORVANEX_UNDECIDED the bytes are not looked at. */
SORVANEX_EXPORT int32_t sorvanex_data_callback(void* session, uint8_t* data, int32_t length);

/* Ends the session. The proxy's own end is a signal as a rule, and then there is no call. */
SORVANEX_EXPORT void sorvanex_close_callback(void* session);

/* Writes to `stream` who the library is, without a line end and without the password. `zero` is 0. The proxy puts
 * "Loaded " in front; `stream` has no descriptor and does not outlive the call. */
SORVANEX_EXPORT void sorvanex_print_info(void* session, int32_t zero, FILE* stream);

#ifdef __cplusplus
}
#endif
