# The scheduler on the test's own thread: orders, hand-overs and waits, the same every run.
foreach(test switch message)
  zvx_test(sched_${test}_test SOURCES sched_${test}_test.cpp LIBS zvx_unit LABELS unit)
endforeach()
