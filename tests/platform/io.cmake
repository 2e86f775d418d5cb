# Tests of ports, overlapped operations and files. Each case runs on both back ends; a case that chooses its back end
# itself is registered once.
set(ZVX_IO_LIBS "$<LINK_GROUP:RESCAN,zvx_platform_system,zvx_platform_base>" Threads::Threads)

# zvx_io_test(name SOURCES... [TIMEOUT seconds])
function(zvx_io_test name)
  cmake_parse_arguments(T "" "TIMEOUT" "SOURCES" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE zvx_flags ${ZVX_IO_LIBS} GTest::gtest GTest::gtest_main)
  target_include_directories(${name} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 60)
  endif()
  foreach(backend io_uring epoll)
    gtest_discover_tests(${name} TEST_PREFIX "${name}.${backend}." TEST_LIST ${name}_${backend} DISCOVERY_TIMEOUT 60
                         PROPERTIES TIMEOUT ${T_TIMEOUT} LABELS platform ENVIRONMENT "ZVXKVT_IO=${backend}")
  endforeach()
endfunction()

zvx_io_test(platform_port_test SOURCES port_test.cpp)
zvx_io_test(platform_overlapped_test SOURCES overlapped_test.cpp)
zvx_io_test(platform_cancel_test SOURCES cancel_test.cpp)
zvx_io_test(platform_file_test SOURCES file_test.cpp)
zvx_io_test(platform_filelock_test SOURCES filelock_test.cpp)
zvx_test(platform_backend_test SOURCES backend_test.cpp LIBS ${ZVX_IO_LIBS} LABELS platform)
