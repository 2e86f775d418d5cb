# What `cmake --install` puts where, in three components: Runtime (the library), Development (headers, CMake and
# pkg-config files, documents, examples) and Tools (programs, man pages, the gdb script).
if(NOT TARGET zvxkvt)
  return()
endif()
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(ZVX_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zvxkvt)
install(TARGETS zvxkvt EXPORT zvxkvt-targets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime NAMELINK_COMPONENT Development
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/zvxkvt DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT Development FILES_MATCHING PATTERN "*.h")

install(EXPORT zvxkvt-targets NAMESPACE zvxkvt:: DESTINATION ${ZVX_CMAKE_DIR} COMPONENT Development)
configure_package_config_file(cmake/zvxkvt-config.cmake.in ${CMAKE_BINARY_DIR}/zvxkvt-config.cmake
                              INSTALL_DESTINATION ${ZVX_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/zvxkvt-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/zvxkvt-config.cmake ${CMAKE_BINARY_DIR}/zvxkvt-config-version.cmake
        DESTINATION ${ZVX_CMAKE_DIR} COMPONENT Development)

file(RELATIVE_PATH ZVX_PC_TO_PREFIX /p/${CMAKE_INSTALL_LIBDIR}/pkgconfig /p)
string(REGEX REPLACE "/$" "" ZVX_PC_TO_PREFIX "${ZVX_PC_TO_PREFIX}")
configure_file(cmake/zvxkvt.pc.in ${CMAKE_BINARY_DIR}/zvxkvt.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/zvxkvt.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)

file(GLOB ZVX_DOCUMENTS CONFIGURE_DEPENDS docs/*.md)
install(FILES README.md CHANGES.md ${ZVX_DOCUMENTS} DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT Development)
install(DIRECTORY docs/charts DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT Development)
install(DIRECTORY examples/consumer DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT Development)

# A man page goes with its program.
find_program(ZVX_GZIP gzip REQUIRED)
function(zvx_compress from to)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${from})
  execute_process(COMMAND ${ZVX_GZIP} -9nc ${from} OUTPUT_FILE ${to} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

foreach(program keyhost zvxctl)
  if(TARGET ${program})
    # In a folder of its own the program finds the library beside it; below /usr the loader does without help.
    if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
      file(RELATIVE_PATH to_lib /p/${CMAKE_INSTALL_BINDIR} /p/${CMAKE_INSTALL_LIBDIR})
      set_target_properties(${program} PROPERTIES INSTALL_RPATH "$ORIGIN/${to_lib}")
    endif()
    install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Tools)
    if(EXISTS ${CMAKE_SOURCE_DIR}/docs/man/${program}.1)
      zvx_compress(${CMAKE_SOURCE_DIR}/docs/man/${program}.1 ${CMAKE_BINARY_DIR}/${program}.1.gz)
      install(FILES ${CMAKE_BINARY_DIR}/${program}.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT Tools)
    endif()
  endif()
endforeach()

# gdb loads a script whose name is the library's when it lies in gdb's own folder, which is below /usr.
if(EXISTS ${CMAKE_SOURCE_DIR}/tools/gdb/zvx.py)
  set(ZVX_GDB_DIR ${CMAKE_INSTALL_DATADIR}/zvxkvt/gdb)
  install(FILES tools/gdb/zvx.py DESTINATION ${ZVX_GDB_DIR} COMPONENT Tools)
  if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/auto-load-gdb.py @ONLY
         CONTENT "import gdb\n\ngdb.execute(\"source @CMAKE_INSTALL_PREFIX@/@ZVX_GDB_DIR@/zvx.py\")\n")
    install(FILES ${CMAKE_BINARY_DIR}/auto-load-gdb.py RENAME libzvxkvt.so.${PROJECT_VERSION}-gdb.py
            DESTINATION ${CMAKE_INSTALL_DATADIR}/gdb/auto-load${CMAKE_INSTALL_FULL_LIBDIR} COMPONENT Tools)
  endif()
endif()
