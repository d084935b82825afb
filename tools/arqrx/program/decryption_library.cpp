#include "arqrx/program/decryption_library.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>

#include "base/rtp.h"

namespace arqrx {

namespace {

constexpr int32_t RECEIVE_MODE = 0;
constexpr int32_t UNDECIDED = -1;
constexpr int32_t CLEAR = 0;
constexpr size_t TRANSPORT_PACKET_BYTES = 188;

std::string LoaderError()
{
    const char* const text = dlerror(); // NOLINT(concurrency-mt-unsafe): glibc keeps it per thread
    return text != nullptr ? text : "";
}

template <typename Function>
bool ResolveOne(void* library, const char* name, Function& function, std::string& problem)
{
    function = reinterpret_cast<Function>(dlsym(library, name));
    if (function != nullptr)
        return true;
    problem = LoaderError() + "; it is no library for -z and -Z of the proxy";
    return false;
}

// The MPEG-TS packets of a payload; nothing when it is something else.
std::span<uint8_t> TransportPackets(std::span<uint8_t> payload)
{
    if (payload.size() % TRANSPORT_PACKET_BYTES == 0)
        return payload;
    if (payload.size() % TRANSPORT_PACKET_BYTES == RTP_HEADER_BYTES)
        return payload.subspan(RTP_HEADER_BYTES);
    return {};
}

} // namespace

std::unique_ptr<DecryptionLibrary> DecryptionLibrary::Open(
    const std::string& path, const std::string& password, std::string& problem)
{
    void* const handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        problem = LoaderError();
        return nullptr;
    }
    std::unique_ptr<DecryptionLibrary> library(new DecryptionLibrary(handle));
    if (library->Resolve(problem) && library->OpenFor(password, problem))
        return library;
    return nullptr;
}

DecryptionLibrary::~DecryptionLibrary()
{
    if (m_pSession != nullptr)
        m_pClose(m_pSession);
    (void)dlclose(m_pLibrary);
}

bool DecryptionLibrary::Resolve(std::string& problem)
{
    return ResolveOne(m_pLibrary, "sorvanex_open_callback", m_pOpen, problem)
        && ResolveOne(m_pLibrary, "sorvanex_data_callback", m_pData, problem)
        && ResolveOne(m_pLibrary, "sorvanex_close_callback", m_pClose, problem)
        && ResolveOne(m_pLibrary, "sorvanex_print_info", m_pPrintInfo, problem);
}

bool DecryptionLibrary::OpenFor(const std::string& password, std::string& problem)
{
    const char* const text = password.empty() ? nullptr : password.c_str();
    m_pSession = m_pOpen(RECEIVE_MODE, text, static_cast<int32_t>(password.size()));
    if (m_pSession != nullptr)
        return true;
    problem = password.empty()
        ? "the library gives no session without a password; name a file that holds it with --password-file"
        : "the library gives no session with this password, or none for receivers";
    return false;
}

std::string DecryptionLibrary::Description() const
{
    char* text = nullptr;
    size_t length = 0;
    FILE* const stream = open_memstream(&text, &length);
    if (stream == nullptr)
        return "";
    m_pPrintInfo(m_pSession, 0, stream);
    (void)fclose(stream);
    std::string description(text, length);
    std::free(text);
    std::replace(description.begin(), description.end(), '\n', ' ');
    return description;
}

DecryptionLibrary::Result DecryptionLibrary::Decrypt(std::span<uint8_t> payload) const
{
    const std::span<uint8_t> packets = TransportPackets(payload);
    if (packets.empty())
        return Result::Clear;
    const int32_t result = m_pData(m_pSession, packets.data(), static_cast<int32_t>(packets.size()));
    if (result == CLEAR)
        return Result::Clear;
    return result == UNDECIDED ? Result::Undecided : Result::Decrypted;
}

} // namespace arqrx
