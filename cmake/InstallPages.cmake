# Run by `cmake --install`: puts the pages of SOURCE and its docs/ into one folder, FOLDER below the prefix, and lets their links
# lead from page to page there as they do in the sources.
set(TARGET_FOLDER "${CMAKE_INSTALL_PREFIX}/${FOLDER}")
file(GLOB PAGES "${SOURCE}/docs/*.md")
foreach(name README CHANGELOG CONTRIBUTING SECURITY)
    list(APPEND PAGES "${SOURCE}/${name}.md")
endforeach()
foreach(page IN LISTS PAGES)
    if(EXISTS "${page}") # an image is built from fewer
        get_filename_component(name "${page}" NAME)
        message(STATUS "Installing: $ENV{DESTDIR}${TARGET_FOLDER}/${name}")
        file(READ "${page}" text)
        string(REPLACE "](docs/" "](" text "${text}")
        string(REPLACE "](../" "](" text "${text}")
        file(WRITE "$ENV{DESTDIR}${TARGET_FOLDER}/${name}" "${text}")
        file(CHMOD "$ENV{DESTDIR}${TARGET_FOLDER}/${name}" PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
        list(APPEND CMAKE_INSTALL_MANIFEST_FILES "${TARGET_FOLDER}/${name}")
    endif()
endforeach()
