# serializer_tests: the task serializer's queues, worker thread, trace lines
# and a multi-threaded stress run. Label "serializer" selects them.
korvex_add_test(serializer_tests
  SOURCES
    ${CMAKE_CURRENT_SOURCE_DIR}/SerializerAllocWatch.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/SerializerQueueTest.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/SerializerWorkerTest.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/SerializerTraceLevelTest.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/SerializerStressTest.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/SerializerLeakProbeTest.cpp
  LIBS korvex_tasks korvex_message halvane_host
  LABELS serializer)

# The records that TerminateSerialization drops are unreachable on purpose;
# the leak checker of address-sanitizer builds is told so by one narrow
# suppression (tests/sanitizer/lsan.supp). The test cases are discovered
# only when ctest runs, so the environment is attached then: this file is
# read by ctest after the discovered list (serializer_tests_TESTS) and gives
# every serializer case the suppression. Run the program by hand with the
# same LSAN_OPTIONS to get the same result.
set(KORVEX_LSAN_SUPPRESSIONS ${PROJECT_SOURCE_DIR}/tests/sanitizer/lsan.supp)
set(_serializer_lsan "LSAN_OPTIONS=suppressions=${KORVEX_LSAN_SUPPRESSIONS}:print_suppressions=0")
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/serializer_tests_environment.cmake
  "if(serializer_tests_TESTS)\n"
  "  set_tests_properties(\${serializer_tests_TESTS} PROPERTIES ENVIRONMENT \"${_serializer_lsan}\")\n"
  "endif()\n")
set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES
  ${CMAKE_CURRENT_BINARY_DIR}/serializer_tests_environment.cmake)

# With the leak checker on, prove that the suppression is needed and narrow:
# without it the dropped records are reported (they really are unreachable),
# with it they are not, while an unrelated leak in the same run still is.
if(KORVEX_SANITIZE MATCHES "address|leak")
  add_test(NAME serializer_lsan_dropped_records_are_unreachable
    COMMAND serializer_tests --gtest_also_run_disabled_tests
      --gtest_filter=SerializerLeakProbe.DISABLED_DroppedRecords)
  set_tests_properties(serializer_lsan_dropped_records_are_unreachable PROPERTIES
    ENVIRONMENT "LSAN_OPTIONS=print_suppressions=0"
    PASS_REGULAR_EXPRESSION "CTaskSerializer<SipJson>::InsertTask"
    LABELS "unit;serializer")
  add_test(NAME serializer_lsan_suppression_is_narrow
    COMMAND serializer_tests --gtest_also_run_disabled_tests
      --gtest_filter=SerializerLeakProbe.DISABLED_DroppedRecordsAndAnUnrelatedLeak)
  set_tests_properties(serializer_lsan_suppression_is_narrow PROPERTIES
    ENVIRONMENT "${_serializer_lsan}"
    PASS_REGULAR_EXPRESSION "LeakCheckCanary"
    FAIL_REGULAR_EXPRESSION "InsertTask"
    LABELS "unit;serializer")
endif()
