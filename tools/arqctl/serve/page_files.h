#pragma once

#include <cstddef>
#include <string_view>

namespace arqctl {

// A file of the page's folder, as it was when the program was built.
struct PageFile {
    std::string_view name; // in the folder: "index.html"
    std::string_view type; // for Content-Type
    std::string_view tag; // of its bytes, with quotes: for ETag
    std::string_view bytes;
};

// Null when the page has no such file.
const PageFile* FindPageFile(std::string_view name);

} // namespace arqctl
