# Sockets on the scripted operating system.
zvx_test(net_call_test SOURCES net_call_test.cpp LIBS zvx_unit LABELS unit)
