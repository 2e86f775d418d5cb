# Crash dumps, opened in lldb. The names of the host's functions and their arguments are looked for. ThreadSanitizer
# holds back the signal by which a thread shows its registers, so there is too little to see with it.
if(ZVX_SANITIZE MATCHES "thread")
  return()
endif()
zvx_test(dumps_test SOURCES dump_test.cpp LIBS zvxkvt LABELS integration TIMEOUT 120)
target_compile_options(dumps_test PRIVATE -g -O0)
