#pragma once

#include <string>

namespace arqrx {

// What --password-file names: a file whose first line is the password, so that it stands in no command line.
struct PasswordFile {
    std::string password;
    bool isReadByOthers = false; // its mode lets others than its owner read it

    // False with a sentence in `problem`. Waits for nothing: a pipe without a writer is an empty file.
    bool Read(const std::string& path, std::string& problem);
};

} // namespace arqrx
