# TX_PROXY_BUILD_KIND: release, debug, asan or tsan. The system tests adapt their expectations
# (memory, linked libraries) to it. TX_PROXY_TIME_SCALE stretches their time limits.
if(TX_PROXY_SANITIZE MATCHES "address")
    set(TX_PROXY_BUILD_KIND asan)
    set(TX_PROXY_TIME_SCALE 3)
elseif(TX_PROXY_SANITIZE MATCHES "thread")
    set(TX_PROXY_BUILD_KIND tsan)
    set(TX_PROXY_TIME_SCALE 5)
elseif(CMAKE_BUILD_TYPE STREQUAL "Debug")
    set(TX_PROXY_BUILD_KIND debug)
    set(TX_PROXY_TIME_SCALE 1)
else()
    set(TX_PROXY_BUILD_KIND release)
    set(TX_PROXY_TIME_SCALE 1)
endif()

# What a test process needs in its environment, as NAME=value.
set(TX_PROXY_TEST_ENVIRONMENT "")
if(TX_PROXY_BUILD_KIND STREQUAL "asan")
    list(APPEND TX_PROXY_TEST_ENVIRONMENT
        "ASAN_OPTIONS=halt_on_error=1:abort_on_error=0:detect_leaks=1:detect_stack_use_after_return=1:strict_string_checks=1"
        "UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1")
elseif(TX_PROXY_BUILD_KIND STREQUAL "tsan")
    set(tsanOptions "halt_on_error=1:second_deadlock_stack=1:atexit_sleep_ms=0") # a second at every end otherwise
    if(EXISTS "${CMAKE_SOURCE_DIR}/tests/tsan.supp")
        string(APPEND tsanOptions ":suppressions=${CMAKE_SOURCE_DIR}/tests/tsan.supp")
    endif()
    list(APPEND TX_PROXY_TEST_ENVIRONMENT "TSAN_OPTIONS=${tsanOptions}")
endif()
