#pragma once

#include <cstdint>
#include <cstdio>

#include "input/udp_input.h"

// The loadable stream-encryption library. All null when nothing is loaded; the session is null when the
// library is loaded but gave none, and then no data pass through it.
//
// Threads: main loads before the input thread starts and unloads after it has ended; the input thread calls
// the data callback in between.
struct EncryptionPlugin {
    using OpenCallback = void* (*)(int32_t mode, const char* password, int32_t length);
    using DataCallback = InputTransform::Callback;
    using CloseCallback = void (*)(void* session);
    using PrintInfo = void (*)(void* session, int32_t zero, FILE* stream);

    void* library = nullptr; // from dlopen
    void* session = nullptr; // from the open callback
    OpenCallback openCallback = nullptr;
    DataCallback dataCallback = nullptr;
    CloseCallback closeCallback = nullptr;
    PrintInfo printInfo = nullptr;

    // Looks for the library in its two places, opens it and a session with the password (null and 0:
    // none) and says so on standard error. Silent when the library is not installed or gives no session.
    // What was loaded before is overwritten, not closed.
    void Load(const char* password, int32_t length);

    // Opens the library at `path` and resolves its four symbols. On failure prints the loader's text,
    // leaves everything null and returns false.
    bool Open(const char* path);

    // Closes the session, if there is one. The library stays loaded.
    void CloseSession();

    // Unloads the library, if there is one.
    void Unload();

    // What the input is to do with its data.
    InputTransform Transform() const { return { session, dataCallback }; }
};

// Puts the library's two fixed places below another folder; null or "" for "/". For tests.
void SetPluginRoot(const char* root);
