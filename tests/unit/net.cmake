# Sockets on the scripted operating system.
foreach(test net_transfer net_accept net_select)
  zvx_test(${test}_test SOURCES ${test}_test.cpp LIBS zvx_unit LABELS unit)
endforeach()
