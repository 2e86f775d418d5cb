# The scripted operating system itself; trace, statistics, time, settings, allocator.
foreach(test scripted_os settings trace fatal stats timesource alloc)
  zvx_test(${test}_test SOURCES ${test}_test.cpp LIBS zvx_unit)
endforeach()
target_compile_definitions(stats_test PRIVATE ZVX_TEST_DATA="${CMAKE_SOURCE_DIR}/tests/data")
