#include "arqrx/program/password_file.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

namespace {

using arqrx::PasswordFile;

// A file with this content, for the time of a test.
class SecretFile {
public:
    explicit SecretFile(const std::string& content, mode_t mode = 0600)
    {
        const int fd = mkstemp(m_path);
        EXPECT_GE(fd, 0);
        (void)close(fd);
        std::ofstream(m_path, std::ios::binary) << content;
        EXPECT_EQ(chmod(m_path, mode), 0);
    }
    SecretFile(const SecretFile&) = delete;
    SecretFile& operator=(const SecretFile&) = delete;
    ~SecretFile() { (void)unlink(m_path); }
    std::string Path() const { return m_path; }

private:
    char m_path[32] = "/tmp/password_file_XXXXXX";
};

std::string PasswordOf(const std::string& content)
{
    PasswordFile file;
    std::string problem;
    EXPECT_TRUE(file.Read(SecretFile(content).Path(), problem)) << problem;
    return file.password;
}

bool IsRefused(const std::string& content)
{
    PasswordFile file;
    std::string problem;
    return !file.Read(SecretFile(content).Path(), problem) && !problem.empty();
}

TEST(ArqrxPasswordFile, TheFirstLineIsThePasswordWithItsBlanks)
{
    for (const char* text : { " a secret ", " a secret \n", " a secret \r\n", " a secret \nand more\n" })
        EXPECT_EQ(PasswordOf(text), " a secret ") << text;
}

TEST(ArqrxPasswordFile, ItHas1024BytesAtMost)
{
    const std::string longest(1024, 'x');
    EXPECT_EQ(PasswordOf(longest), longest);
    EXPECT_EQ(PasswordOf(longest + "\n"), longest);
    EXPECT_EQ(PasswordOf(longest + "\r\n"), longest);
    EXPECT_TRUE(IsRefused(longest + "x"));
    EXPECT_TRUE(IsRefused(longest + "x\n"));
}

TEST(ArqrxPasswordFile, AnEmptyOneAndAZeroByteAreRefused)
{
    for (const std::string& text :
        { std::string(), std::string("\n"), std::string("\r\n"), std::string("\nx") })
        EXPECT_TRUE(IsRefused(text)) << text;
    EXPECT_TRUE(IsRefused(std::string("a\0b", 3)));
}

TEST(ArqrxPasswordFile, WhoElseCanReadItIsNoticed)
{
    for (const mode_t mode : { 0600U, 0400U, 0640U, 0604U }) {
        PasswordFile file;
        std::string problem;
        ASSERT_TRUE(file.Read(SecretFile("x", mode).Path(), problem));
        EXPECT_EQ(file.isReadByOthers, (mode & 0044U) != 0) << mode;
    }
}

TEST(ArqrxPasswordFile, WhatCannotBeReadIsTold)
{
    PasswordFile file;
    std::string problem;
    EXPECT_FALSE(file.Read("/nowhere/at/all", problem));
    EXPECT_EQ(problem, "password file /nowhere/at/all: No such file or directory");
    EXPECT_FALSE(file.Read("/", problem));
    EXPECT_EQ(problem, "password file /: Is a directory");
}

} // namespace
