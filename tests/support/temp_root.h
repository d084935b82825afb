#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "control/paths.h"

namespace test_support {

// A folder of its own for the files under /dev and /var/run, removed with all that is in it.
class TempRoot {
public:
    TempRoot()
    {
        char path[] = "/tmp/txXXXXXX"; // short: socket paths have 107 characters
        EXPECT_NE(mkdtemp(path), nullptr);
        m_path = path;
        std::filesystem::create_directories(m_path + "/dev");
        std::filesystem::create_directories(m_path + "/var/run");
        SetPathRoot(m_path.c_str());
    }
    TempRoot(const TempRoot&) = delete;
    TempRoot& operator=(const TempRoot&) = delete;
    ~TempRoot()
    {
        SetPathRoot(nullptr);
        std::error_code error;
        std::filesystem::remove_all(m_path, error);
    }

    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
};

inline void WriteFile(std::string_view path, const std::string& text = "")
{
    std::ofstream(std::string(path), std::ios::binary) << text;
}

inline bool FileExists(std::string_view path)
{
    return std::filesystem::exists(std::filesystem::symlink_status(path));
}

} // namespace test_support
