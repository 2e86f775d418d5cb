# Settings, time and the allocator; trace and fatal exit; dumps.
foreach(test foundation trace dump)
  zvx_test(${test}_test SOURCES ${test}_test.cpp LIBS zvx_unit LABELS unit)
endforeach()
