# The scheduler on the test's own thread: orders, hand-overs and waits, the same every run.
zvx_test(sched_switch_test SOURCES sched_switch_test.cpp LIBS zvx_unit LABELS unit)
zvx_test(sched_completion_test SOURCES sched_completion_test.cpp LIBS zvx_unit LABELS unit)
zvx_test(sched_timer_test SOURCES sched_timer_test.cpp LIBS zvx_unit LABELS unit)
zvx_test(sched_message_test SOURCES sched_message_test.cpp LIBS zvx_unit LABELS unit)
zvx_test(sched_fatal_test SOURCES sched_fatal_test.cpp LIBS zvx_unit LABELS unit)
