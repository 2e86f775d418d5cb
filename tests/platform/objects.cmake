# Tests of handles, waits, kernel threads and backing threads on the real platform.
set(ZVX_OBJECTS_LIBS "$<LINK_GROUP:RESCAN,zvx_platform_system,zvx_platform_base>" Threads::Threads)
zvx_test(platform_handle_test SOURCES handle_test.cpp LIBS ${ZVX_OBJECTS_LIBS} LABELS platform)
zvx_test(platform_wait_test SOURCES wait_test.cpp LIBS ${ZVX_OBJECTS_LIBS} TIMEOUT 60 LABELS platform)
zvx_test(platform_thread_test SOURCES thread_test.cpp LIBS ${ZVX_OBJECTS_LIBS} TIMEOUT 60 LABELS platform)
zvx_test(platform_backing_thread_test SOURCES backing_thread_test.cpp LIBS ${ZVX_OBJECTS_LIBS} LABELS platform)
