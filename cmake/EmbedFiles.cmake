# embed_files(SOURCE FOLDER): a source SOURCE in the build folder that holds every file of FOLDER as bytes, and defines
# arqctl::FindPageFile of them. Made anew when a file changes, comes or goes. As a script (cmake -P) it makes the source:
# no program but cmake is needed.
if(NOT CMAKE_SCRIPT_MODE_FILE)
    set(EMBED_FILES_SCRIPT "${CMAKE_CURRENT_LIST_FILE}")
    function(embed_files source folder)
        file(GLOB_RECURSE files CONFIGURE_DEPENDS RELATIVE "${folder}" "${folder}/*")
        list(TRANSFORM files PREPEND "${folder}/" OUTPUT_VARIABLE paths)
        add_custom_command(OUTPUT "${source}"
            COMMAND "${CMAKE_COMMAND}" "-DFOLDER=${folder}" "-DFILES=${files}" "-DSOURCE=${source}" -P "${EMBED_FILES_SCRIPT}"
            DEPENDS ${paths} "${EMBED_FILES_SCRIPT}"
            COMMENT "The page's files as bytes" VERBATIM)
    endfunction()
    return()
endif()

set(types html "text/html\; charset=utf-8" js "text/javascript\; charset=utf-8" mjs "text/javascript\; charset=utf-8"
    css "text/css\; charset=utf-8" json "application/json" svg "image/svg+xml" png "image/png" ico "image/x-icon"
    woff2 "font/woff2" webmanifest "application/manifest+json")

function(type_of name result)
    set(${result} "text/plain; charset=utf-8" PARENT_SCOPE)
    get_filename_component(extension "${name}" LAST_EXT)
    string(REPLACE "." "" extension "${extension}")
    list(FIND types "${extension}" at)
    if(NOT extension STREQUAL "" AND NOT at EQUAL -1)
        math(EXPR at "${at} + 1")
        list(GET types ${at} type)
        set(${result} "${type}" PARENT_SCOPE)
    endif()
endfunction()

set(arrays "")
set(rows "")
set(number 0)
foreach(name IN LISTS FILES)
    file(READ "${FOLDER}/${name}" bytes HEX)
    file(SHA256 "${FOLDER}/${name}" tag)
    string(SUBSTRING "${tag}" 0 16 tag)
    type_of("${name}" type)
    string(LENGTH "${bytes}" size)
    math(EXPR size "${size} / 2")
    # A line of 32 bytes each, and a zero so that an empty file has an array too.
    string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${bytes}")
    string(REGEX REPLACE "((0x[0-9a-f][0-9a-f],)(0x[0-9a-f][0-9a-f],)(0x[0-9a-f][0-9a-f],)(0x[0-9a-f][0-9a-f],)(0x[0-9a-f][0-9a-f],)(0x[0-9a-f][0-9a-f],)(0x[0-9a-f][0-9a-f],)(0x[0-9a-f][0-9a-f],))" "\\1\n" bytes "${bytes}")
    string(APPEND arrays "constexpr unsigned char BYTES_${number}[] = {\n${bytes} 0 };\n")
    string(APPEND rows "    { \"${name}\", \"${type}\", \"\\\"${tag}\\\"\", Bytes(BYTES_${number}, ${size}) },\n")
    math(EXPR number "${number} + 1")
endforeach()

file(WRITE "${SOURCE}.new" "// Made of the page's folder by EmbedFiles.cmake.
#include \"arqctl/serve/page_files.h\"

namespace arqctl {

namespace {

${arrays}
std::string_view Bytes(const unsigned char* bytes, size_t size)
{
    return { reinterpret_cast<const char*>(bytes), size };
}

} // namespace

const PageFile* FindPageFile(std::string_view name)
{
    static const PageFile FILES[] = {
${rows}    };
    for (const PageFile& file : FILES) {
        if (file.name == name)
            return &file;
    }
    return nullptr;
}

} // namespace arqctl
")
file(RENAME "${SOURCE}.new" "${SOURCE}")
