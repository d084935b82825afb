# Compilers run through ccache where it is installed. A precompiled header needs two liberties: its macros
# need not be compared again, and __TIME__ (which nobody uses) may be old.
if(NOT TX_PROXY_USE_CCACHE)
    return()
endif()
find_program(TX_PROXY_CCACHE ccache DOC "Compiler cache")
mark_as_advanced(TX_PROXY_CCACHE)
if(TX_PROXY_CCACHE AND (NOT CMAKE_CXX_COMPILER_LAUNCHER OR CMAKE_CXX_COMPILER_LAUNCHER MATCHES "(^|/)ccache$"))
    find_program(envProgram env REQUIRED NO_CACHE)
    set(CMAKE_CXX_COMPILER_LAUNCHER
        "${envProgram};CCACHE_SLOPPINESS=pch_defines,time_macros;${TX_PROXY_CCACHE}")
endif()
