#include "arqrx/program/password_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include "base/unique_fd.h"

namespace arqrx {

namespace {

constexpr size_t LONGEST_PASSWORD = 1024; // more is another file, given by mistake

bool Fail(std::string& problem, const std::string& path, const std::string& why)
{
    problem = "password file " + path + ": " + why;
    return false;
}

} // namespace

bool PasswordFile::Read(const std::string& path, std::string& problem)
{
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    std::array<char, LONGEST_PASSWORD + 2> text {}; // a line end and a character too many
    const ssize_t length
        = file.IsValid() && fstat(file.Get(), &status) == 0 ? read(file.Get(), text.data(), text.size()) : -1;
    if (length < 0)
        return Fail(problem, path, std::error_code(errno, std::generic_category()).message());
    password.assign(text.data(), static_cast<size_t>(length));
    password.erase(std::min(password.find('\n'), password.size()));
    if (password.ends_with('\r'))
        password.pop_back();
    if (password.empty())
        return Fail(problem, path, "its first line is empty; write the password of the proxy's -Z there");
    if (password.size() > LONGEST_PASSWORD)
        return Fail(problem, path, "its first line is longer than 1024 bytes: is it the right file?");
    if (password.find('\0') != std::string::npos)
        return Fail(problem, path, "it has a zero byte, which no -Z can have: is it the right file?");
    isReadByOthers = (status.st_mode & (S_IRGRP | S_IROTH)) != 0;
    return true;
}

} // namespace arqrx
