# Every target of ours has tx_proxy_options: warnings and sanitizers. The proxy, its core and the benchmarks
# also have tx_proxy_hardening; the unit tests have not, since it needs an optimised build. The proxy and its core
# also have tx_proxy_strict: the warnings that are worth it where a mistake costs a channel.
add_library(tx_proxy_options INTERFACE)
add_library(tx_proxy_strict INTERFACE)
add_library(tx_proxy_hardening INTERFACE)
target_compile_options(tx_proxy_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(TX_PROXY_WARNINGS_AS_ERRORS)
    target_compile_options(tx_proxy_options INTERFACE -Werror)
endif()
# Not -fPIC: no library of ours is shared, and -fPIC keeps the compiler from inlining public functions.
target_compile_options(tx_proxy_options INTERFACE -fPIE)
target_link_options(tx_proxy_options INTERFACE -pie)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    target_compile_options(tx_proxy_options INTERFACE -Wthread-safety)
endif()

# The library checks its own use, the index of a vector for one. Not in what is installed: the packet path pays for it.
if(TX_PROXY_SANITIZE OR CMAKE_BUILD_TYPE STREQUAL "Debug")
    target_compile_definitions(tx_proxy_options INTERFACE _GLIBCXX_ASSERTIONS)
endif()
if(TX_PROXY_SANITIZE)
    set(sanitizerFlags -fsanitize=${TX_PROXY_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_compile_options(tx_proxy_options INTERFACE ${sanitizerFlags})
    target_link_options(tx_proxy_options INTERFACE ${sanitizerFlags})
elseif(CMAKE_BUILD_TYPE STREQUAL "Release")
    target_compile_options(tx_proxy_hardening INTERFACE
        -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 -fstack-protector-strong -fstack-clash-protection)
    if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64|i.86")
        target_compile_options(tx_proxy_hardening INTERFACE -fcf-protection) # no other processor has it
    endif()
    target_link_options(tx_proxy_hardening INTERFACE
        -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack -Wl,-z,separate-code)
endif()

# What is installed is the same in whatever folder it was built. (A test may want the path of its own source.)
target_compile_options(tx_proxy_hardening INTERFACE
    "-ffile-prefix-map=${CMAKE_BINARY_DIR}=build" "-ffile-prefix-map=${CMAKE_SOURCE_DIR}=.")

# Left out: formats that are no literal (the messages of the number options stand in a table), useless casts (a
# type may be another one on another machine).
target_compile_options(tx_proxy_strict INTERFACE
    -Wformat=2 -Wno-format-nonliteral -Wcast-qual -Wold-style-cast -Wextra-semi -Wnon-virtual-dtor -Woverloaded-virtual
    -Wsuggest-override -Wimplicit-fallthrough -Wredundant-decls -Wzero-as-null-pointer-constant -Wundef -Wunused-macros
    -Wvla -Wswitch-enum -Wfloat-conversion -Wdouble-promotion)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    target_compile_options(tx_proxy_strict INTERFACE
        -Wthread-safety-beta -Wshadow-all -Wcomma -Wunreachable-code-aggressive -Wconditional-uninitialized
        -Wloop-analysis -Wcast-align -Wmissing-prototypes -Wmissing-variable-declarations
        -Wundefined-reinterpret-cast -Wassign-enum -Wheader-hygiene)
else()
    target_compile_options(tx_proxy_strict INTERFACE
        -Wcast-align=strict -Wduplicated-cond -Wduplicated-branches -Wlogical-op -Wmissing-declarations -Walloca
        -Wformat-signedness -Wplacement-new=2 -Wtrampolines)
    # These follow values through a whole function, which the compiler does well only when it optimises. A frame may
    # hold a path of the system's longest, no more; -fstack-clash-protection touches each page of one that is larger
    # than a page, so that no overflow of the stack jumps over the page that guards its end.
    if(CMAKE_BUILD_TYPE STREQUAL "Release" AND NOT TX_PROXY_SANITIZE)
        target_compile_options(tx_proxy_strict INTERFACE
            -Wnull-dereference -Warray-bounds=2 -Wstringop-overflow=4 -Wformat-overflow=2 -Wformat-truncation=2
            -Wframe-larger-than=8191)
    endif()
endif()
