# Every target of ours has tx_proxy_options: warnings and sanitizers. The proxy, its core and the benchmarks
# also have tx_proxy_hardening; the unit tests have not, since it needs an optimised build.
add_library(tx_proxy_options INTERFACE)
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
