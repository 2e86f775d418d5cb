# Handles, files, threads and waits on the scripted operating system.
foreach(test handle_table io_call thread_call wait_call postwait ringlog)
  zvx_test(${test}_test SOURCES ${test}_test.cpp LIBS zvx_unit LABELS unit)
endforeach()
