# Unit tests that the thread sanitizer's build leaves out. Each is about a function of its arguments, or an
# object that one thread has to itself: no two threads meet in it, so that the sanitizer has nothing to see.
# All other builds have them. A test file that is not named here is in every build.
set(singleThreadedTests
    arq/arq_budget_test.cpp           # arithmetic on one request's budget
    arq/c_arq_send_age_test.cpp       # the engine's rules, one request after the other; where two threads meet in
    arq/c_arq_send_budget_test.cpp    # it, c_arq_send_build_resend_test, rebuild_mark_test and arq_ring_test look
    arq/c_arq_send_hold_off_test.cpp
    arq/c_arq_send_ping_test.cpp
    arq/c_arq_send_request_test.cpp
    arq/c_arq_send_run_test.cpp
    arq/datagram_kind_test.cpp        # a datagram's first bytes -> what it is
    arq/media_clock_test.cpp          # a time -> ticks
    arq/media_header_test.cpp         # bytes of a header
    arq/protocol_vectors_test.cpp     # bytes of the protocol page, one engine, one thread
    arq/request_list_test.cpp         # a datagram -> its list of numbers
    arq/sliding_extremum_test.cpp     # belongs to one media clock, used under its owner's thread only
    arq/wire_test.cpp                 # sizes and offsets of records
    base/byte_order_test.cpp          # bytes of a number
    control/config_file_test.cpp      # text of a file -> settings
    control/paths_test.cpp            # an instance number -> paths
    control/request_words_test.cpp    # text of a command -> words
    input/address_test.cpp            # text -> address
    main/options_test.cpp             # command line -> options, before any thread is started
    replicator/destinations_test.cpp  # text list -> destinations
    replicator/stream_life_test.cpp   # what a stream was and what came -> a verdict
    replicator/stream_table_model_test.cpp # all orders of steps, gone through by one thread
    replicator/train_rule_test.cpp    # sizes -> how many go together
)

# Takes them out of the list of sources that is named. A file that has gone, or in which a thread has come, ends
# the configuration.
function(leave_out_single_threaded_tests sourcesName)
    set(sources "${${sourcesName}}")
    foreach(test IN LISTS singleThreadedTests)
        set(file "${CMAKE_CURRENT_SOURCE_DIR}/${test}")
        if(NOT file IN_LIST sources)
            message(FATAL_ERROR "SingleThreadedTests.cmake names tests/${test}, which is no unit test")
        endif()
        file(STRINGS "${file}" threads REGEX "std::(thread|async|atomic)|pthread_|PlainWord|PublishedPtr|ThreadCrew")
        if(threads)
            message(FATAL_ERROR "SingleThreadedTests.cmake names tests/${test}, where threads matter: ${threads}")
        endif()
        list(REMOVE_ITEM sources "${file}")
    endforeach()
    set(${sourcesName} "${sources}" PARENT_SCOPE)
endfunction()
