#include "main/encryption_plugin.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

namespace fs = std::filesystem;

// A part of the C library that nothing here is linked with, so that loading and unloading it can be seen.
constexpr char OTHER_LIBRARY[] = "libBrokenLocale.so.1";

bool IsLoaded(const char* library)
{
    void* handle = dlopen(library, RTLD_LAZY | RTLD_NOLOAD);
    if (handle != nullptr)
        (void)dlclose(handle);
    return handle != nullptr;
}

void ExpectNothingLoaded(const EncryptionPlugin& plugin)
{
    EXPECT_EQ(plugin.library, nullptr);
    EXPECT_EQ(plugin.session, nullptr);
    EXPECT_EQ(plugin.openCallback, nullptr);
    EXPECT_EQ(plugin.dataCallback, nullptr);
    EXPECT_EQ(plugin.closeCallback, nullptr);
    EXPECT_EQ(plugin.printInfo, nullptr);
}

int s_closed = 0;
void* s_closedSession = nullptr;

void RecordClose(void* session)
{
    ++s_closed;
    s_closedSession = session;
}

// The library's two places lie below a folder of the test's own.
class EncryptionPluginTest : public testing::Test {
protected:
    EncryptionPluginTest()
    {
        std::string name = testing::TempDir() + "/plugin_test_XXXXXX";
        m_root = mkdtemp(name.data());
        SetPluginRoot(m_root.c_str());
        s_closed = 0;
        s_closedSession = nullptr;
    }
    ~EncryptionPluginTest() override
    {
        SetPluginRoot(nullptr);
        fs::remove_all(m_root);
    }

    std::string InstalledPath() const { return m_root + "/usr/local/bin/libsorvanex.so.1.0"; }
    std::string DiskPath() const { return m_root + "/disk/sorvanex/libsorvanex.so.1.0"; }

    static void WriteText(const std::string& path)
    {
        fs::create_directories(fs::path(path).parent_path());
        std::ofstream(path) << "not a library, but long enough to be read as the head of one\n";
    }

    std::string MessagesOfLoad(const char* password = nullptr, int32_t length = 0)
    {
        testing::internal::CaptureStderr();
        m_plugin.Load(password, length);
        return testing::internal::GetCapturedStderr();
    }

    std::string m_root;
    EncryptionPlugin m_plugin;
};

TEST_F(EncryptionPluginTest, WithNeitherFilePresentLoadingIsSilent)
{
    EXPECT_EQ(MessagesOfLoad(), "");
    ExpectNothingLoaded(m_plugin);
    EXPECT_EQ(MessagesOfLoad("secret", 6), "");
    ExpectNothingLoaded(m_plugin);
}

TEST_F(EncryptionPluginTest, TheInstalledFileIsOpenedByItsPath)
{
    WriteText(InstalledPath());
    const std::string messages = MessagesOfLoad();
    EXPECT_EQ(messages.find(InstalledPath() + ": "), 0U) << messages;
    EXPECT_EQ(messages.find('\n'), messages.size() - 1) << messages;
    ExpectNothingLoaded(m_plugin);
}

TEST_F(EncryptionPluginTest, TheInstalledFileWinsOverTheOneOnDisk)
{
    WriteText(InstalledPath());
    WriteText(DiskPath());
    const std::string messages = MessagesOfLoad();
    EXPECT_EQ(messages.find(InstalledPath() + ": "), 0U) << messages;
}

TEST_F(EncryptionPluginTest, TheFileOnDiskIsLookedForByItsBareName)
{
    WriteText(DiskPath());
    EXPECT_EQ(
        MessagesOfLoad(), "libsorvanex.so: cannot open shared object file: No such file or directory\n");
    ExpectNothingLoaded(m_plugin);
}

TEST_F(EncryptionPluginTest, AMissingLibraryIsReportedWithTheLoadersText)
{
    testing::internal::CaptureStderr();
    const bool isOpen = m_plugin.Open("/nowhere/lib.so");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
        "/nowhere/lib.so: cannot open shared object file: No such file or directory\n");
    EXPECT_FALSE(isOpen);
    ExpectNothingLoaded(m_plugin);
}

TEST_F(EncryptionPluginTest, ALibraryWithoutTheSymbolsIsRejectedAndUnloaded)
{
    ASSERT_FALSE(IsLoaded(OTHER_LIBRARY));
    testing::internal::CaptureStderr();
    const bool isOpen = m_plugin.Open(OTHER_LIBRARY);
    const std::string messages = testing::internal::GetCapturedStderr();
    EXPECT_FALSE(isOpen);
    EXPECT_NE(messages.find("undefined symbol: sorvanex_open_callback\n"), std::string::npos) << messages;
    EXPECT_EQ(messages.find('\n'), messages.size() - 1) << messages; // the first error only
    ExpectNothingLoaded(m_plugin);
    EXPECT_FALSE(IsLoaded(OTHER_LIBRARY));
}

TEST_F(EncryptionPluginTest, AFailedOpenForgetsWhatWasThere)
{
    m_plugin.session = &s_closed;
    m_plugin.closeCallback = RecordClose;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(m_plugin.Open("/nowhere/lib.so"));
    (void)testing::internal::GetCapturedStderr();
    ExpectNothingLoaded(m_plugin);
    EXPECT_EQ(s_closed, 0); // overwritten, not closed
}

TEST_F(EncryptionPluginTest, AnOlderLoaderErrorIsNotTakenForItsOwn)
{
    EXPECT_EQ(dlopen("/nowhere/other.so", RTLD_LAZY), nullptr); // its text is left unread
    testing::internal::CaptureStderr();
    EXPECT_FALSE(m_plugin.Open(OTHER_LIBRARY));
    const std::string messages = testing::internal::GetCapturedStderr();
    EXPECT_EQ(messages.find("/nowhere"), std::string::npos) << messages;
}

TEST_F(EncryptionPluginTest, ClosingCallsTheCloseCallbackWithTheSession)
{
    m_plugin.session = &m_plugin;
    m_plugin.closeCallback = RecordClose;
    m_plugin.CloseSession();
    EXPECT_EQ(s_closed, 1);
    EXPECT_EQ(s_closedSession, &m_plugin);
}

TEST_F(EncryptionPluginTest, WithoutASessionNothingIsClosed)
{
    m_plugin.closeCallback = RecordClose;
    m_plugin.CloseSession();
    EXPECT_EQ(s_closed, 0);
    EncryptionPlugin empty;
    empty.CloseSession();
}

TEST_F(EncryptionPluginTest, UnloadingClosesTheLibraryAndForgetsEverything)
{
    m_plugin.library = dlopen(OTHER_LIBRARY, RTLD_LAZY);
    ASSERT_NE(m_plugin.library, nullptr);
    m_plugin.session = &m_plugin;
    m_plugin.closeCallback = RecordClose;
    m_plugin.Unload();
    EXPECT_FALSE(IsLoaded(OTHER_LIBRARY));
    ExpectNothingLoaded(m_plugin);
    EXPECT_EQ(s_closed, 0); // the session is closed by itself, before
}

TEST_F(EncryptionPluginTest, UnloadingWithoutALibraryDoesNothing)
{
    m_plugin.session = &m_plugin;
    m_plugin.Unload();
    EXPECT_EQ(m_plugin.session, &m_plugin);
}

} // namespace
