# Trace and fatal exit; dumps; statistics and time; settings; the allocator.
foreach(test trace diag settings alloc dump)
  zvx_test(${test}_test SOURCES ${test}_test.cpp LIBS zvx_unit LABELS unit)
endforeach()
