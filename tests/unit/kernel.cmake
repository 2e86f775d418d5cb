# Handles, files, sockets, threads, waits and routines on the scripted operating system.
foreach(test io_call thread_call postwait)
  zvx_test(${test}_test SOURCES ${test}_test.cpp LIBS zvx_unit LABELS unit)
endforeach()
