# Trace and fatal exit; dumps; statistics and time; settings; the allocator.
foreach(test trace diag settings alloc dump)
  zvx_test(${test}_test SOURCES ${test}_test.cpp LIBS zvx_unit LABELS unit)
endforeach()
target_compile_definitions(diag_test PRIVATE ZVX_TEST_DATA="${CMAKE_SOURCE_DIR}/tests/data")
