/* An encryption library for the tests: flips bits and writes down every call.
 *
 * NAME                what print_info calls it
 * WITHOUT_<SYMBOL>    leaves that symbol out
 * NO_SESSION          opens no session
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define XOR 0x5A
#define MAX_SESSIONS 4

struct session {
    int number;
};

static struct session s_sessions[MAX_SESSIONS];
static int s_opened;

static FILE* Record(void)
{
    const char* path = getenv("SORVANEX_RECORD");
    return path != NULL ? fopen(path, "a") : NULL;
}

#define RECORD(...)                         \
    do {                                    \
        FILE* file = Record();              \
        if (file != NULL) {                 \
            fprintf(file, __VA_ARGS__);     \
            fclose(file);                   \
        }                                   \
    } while (0)

__attribute__((destructor)) static void Unloaded(void)
{
    RECORD("%s unloaded\n", NAME);
}

#ifndef WITHOUT_OPEN_CALLBACK
void* sorvanex_open_callback(int32_t mode, const char* password, int32_t length)
{
    RECORD("%s open %d %.*s %d\n", NAME, (int)mode, password != NULL ? (int)strlen(password) : 6,
        password != NULL ? password : "(null)", (int)length);
#ifdef NO_SESSION
    return NULL;
#endif
    if (s_opened == MAX_SESSIONS)
        return NULL;
    struct session* session = &s_sessions[s_opened];
    session->number = ++s_opened;
    return session;
}
#endif

#ifndef WITHOUT_DATA_CALLBACK
void sorvanex_data_callback(struct session* session, uint8_t* data, int32_t length)
{
    RECORD("%s data %d %d\n", NAME, session->number, (int)length);
    for (int32_t i = 0; i < length; ++i)
        data[i] ^= XOR;
}
#endif

#ifndef WITHOUT_CLOSE_CALLBACK
void sorvanex_close_callback(struct session* session)
{
    RECORD("%s close %d\n", NAME, session->number);
}
#endif

#ifndef WITHOUT_PRINT_INFO
void sorvanex_print_info(struct session* session, int32_t zero, FILE* stream)
{
    fprintf(stream, "%s cipher, session %d, %d", NAME, session->number, (int)zero);
}
#endif
