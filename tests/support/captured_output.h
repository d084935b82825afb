#pragma once

#include <cctype>
#include <cstdio>
#include <string>

#include <gtest/gtest.h>

namespace test_support {

// What the process writes to standard output and standard error while the object lives or until Stop.
class CapturedOutput {
public:
    CapturedOutput()
    {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
    }
    CapturedOutput(const CapturedOutput&) = delete;
    CapturedOutput& operator=(const CapturedOutput&) = delete;
    ~CapturedOutput()
    {
        Stop();
        if (testing::Test::HasFailure())
            printf("captured output:\n%s\ncaptured errors:\n%s\n", m_out.c_str(), m_err.c_str());
    }

    void Stop()
    {
        if (m_bStopped)
            return;
        m_bStopped = true;
        m_out = testing::internal::GetCapturedStdout();
        m_err = testing::internal::GetCapturedStderr();
    }

    // Both end the capture.
    const std::string& Out()
    {
        Stop();
        return m_out;
    }
    const std::string& Err()
    {
        Stop();
        return m_err;
    }

    // Standard error with each time stamp written as "<time> ".
    std::string StampedErr()
    {
        constexpr size_t STAMP_CHARS = 17;
        std::string text = Err();
        for (size_t at = 0; at + STAMP_CHARS <= text.size(); ++at) {
            if (IsStamp(text.c_str() + at))
                text.replace(at, STAMP_CHARS, "<time> ");
        }
        return text;
    }

private:
    // Whether the text begins like "Nov  3 07:08:09: ".
    static bool IsStamp(const char* text)
    {
        constexpr char FORM[] = "Aaa 00 00:00:00: ";
        for (const char* form = FORM; *form != '\0'; ++form, ++text) {
            const auto c = static_cast<unsigned char>(*text);
            const bool fits = *form == 'A' ? std::isupper(c) != 0
                : *form == 'a'             ? std::islower(c) != 0
                : *form == '0'             ? std::isdigit(c) != 0 || c == ' '
                                           : c == static_cast<unsigned char>(*form);
            if (!fits)
                return false;
        }
        return true;
    }

    bool m_bStopped = false;
    std::string m_out;
    std::string m_err;
};

inline size_t CountOf(const std::string& text, const std::string& part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
        ++count;
    return count;
}

} // namespace test_support
