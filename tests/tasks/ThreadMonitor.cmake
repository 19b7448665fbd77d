# threadmonitor_tests: CThread construction/destruction and the bookkeeping
# in the host's thread-monitor table.
korvex_add_test(threadmonitor_tests
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/ThreadMonitorTest.cpp
  LIBS korvex_tasks halvane_host)
