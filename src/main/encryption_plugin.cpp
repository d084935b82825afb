#include "main/encryption_plugin.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>

#include "base/file_path.h"

namespace {

constexpr int32_t OPEN_MODE = 1;

FilePath s_libraryRoot("%s", "");

FilePath InstalledPath()
{
    return FilePath("%s/usr/local/bin/libsorvanex.so.1.0", s_libraryRoot.c_str());
}

FilePath DiskPath()
{
    return FilePath("%s/disk/sorvanex/libsorvanex.so.1.0", s_libraryRoot.c_str());
}

// Prints the loader's last error; false when there was none.
bool ReportLoaderError()
{
    const char* text = dlerror(); // NOLINT(concurrency-mt-unsafe): glibc keeps it per thread
    if (text == nullptr)
        return false;
    fprintf(stderr, "%s\n", text);
    return true;
}

template <typename Function>
bool Resolve(void* library, const char* name, Function* function)
{
    *function = reinterpret_cast<Function>(dlsym(library, name));
    return !ReportLoaderError();
}

} // namespace

void SetPluginRoot(const char* root)
{
    s_libraryRoot = FilePath("%s", root != nullptr ? root : "");
}

void EncryptionPlugin::Load(const char* password, int32_t length)
{
    bool isOpen = false;
    if (access(InstalledPath().c_str(), F_OK) == 0)
        isOpen = Open(InstalledPath().c_str());
    else if (access(DiskPath().c_str(), F_OK) == 0)
        isOpen = Open("libsorvanex.so"); // by its bare name on purpose: the loader's own search path decides
    if (!isOpen)
        return;
    session = openCallback(OPEN_MODE, password, length);
    if (session == nullptr)
        return;
    fprintf(stderr, "Loaded ");
    printInfo(session, 0, stderr);
    fprintf(stderr, "\n");
}

bool EncryptionPlugin::Open(const char* path)
{
    *this = {};
    (void)dlerror(); // NOLINT(concurrency-mt-unsafe): forget what failed before
    library = dlopen(path, RTLD_LAZY);
    if (!ReportLoaderError() && Resolve(library, "sorvanex_open_callback", &openCallback)
        && Resolve(library, "sorvanex_data_callback", &dataCallback)
        && Resolve(library, "sorvanex_close_callback", &closeCallback)
        && Resolve(library, "sorvanex_print_info", &printInfo))
        return true;
    Unload();
    return false;
}

void EncryptionPlugin::CloseSession()
{
    if (session != nullptr)
        closeCallback(session);
}

void EncryptionPlugin::Unload()
{
    if (library == nullptr)
        return;
    (void)dlclose(library);
    *this = {};
}
