#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <string>

namespace arqrx {

// The loadable encryption library of the proxy, opened for receiving: samples/encryption/sorvanex.h says what its four
// functions are given and answer. Copies are not made; closes and unloads what it opened.
//
// Threads: one opens and closes, one decrypts; never both at a time.
class DecryptionLibrary {
public:
    enum class Result : uint8_t {
        Clear, // it came in clear, as it is now
        Decrypted, // in place
        Undecided // neither in clear nor of this password; the bytes mean nothing any more
    };

    // Loads the library at `path` and opens a session; an empty password is none. Null with a sentence in `problem`.
    static std::unique_ptr<DecryptionLibrary> Open(
        const std::string& path, const std::string& password, std::string& problem);

    DecryptionLibrary(const DecryptionLibrary&) = delete;
    DecryptionLibrary& operator=(const DecryptionLibrary&) = delete;
    ~DecryptionLibrary();

    // What the library says of itself, on one line.
    std::string Description() const;

    // The payload of an RTP datagram. Only MPEG-TS packets are looked at, be they alone or behind an RTP header of
    // their own, as a proxy with -u sends RTP on; everything else is clear.
    Result Decrypt(std::span<uint8_t> payload) const;

private:
    using OpenSession = void* (*)(int32_t mode, const char* password, int32_t length);
    using Data = int32_t (*)(void* session, uint8_t* data, int32_t length);
    using CloseSession = void (*)(void* session);
    using PrintInfo = void (*)(void* session, int32_t zero, FILE* stream);

    explicit DecryptionLibrary(void* library) : m_pLibrary(library) {}
    bool Resolve(std::string& problem);
    bool OpenFor(const std::string& password, std::string& problem);

    void* const m_pLibrary; // from dlopen
    void* m_pSession = nullptr;
    OpenSession m_pOpen = nullptr;
    Data m_pData = nullptr;
    CloseSession m_pClose = nullptr;
    PrintInfo m_pPrintInfo = nullptr;
};

} // namespace arqrx
