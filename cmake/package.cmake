# Debian packages, by `cpack -G DEB` (packaging/build-deb configures a build for it): libzvxkvt3, zvxkvt-dev,
# zvxkvt-tools, and one with debug information for each that has code.
if(NOT TARGET zvxkvt)
  return()
endif()
set(CPACK_PACKAGE_NAME zvxkvt)
set(CPACK_PACKAGE_VENDOR "zvxkvt maintainers")
set(CPACK_PACKAGE_CONTACT "zvxkvt maintainers <maintainers@localhost>" CACHE STRING "Maintainer field of the packages")
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL Runtime Development Tools)
set(CPACK_DEB_COMPONENT_INSTALL ON)

set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/lib)
# Strips what is packaged and keeps the symbols under their build identifiers.
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
set(version ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libzvxkvt${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "user-mode thread scheduler for blocking servers
Runs every thread of a host that is written in the blocking,
thread-per-session style as a fiber on a few kernel threads.
This package has the library that hosts are linked against.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME zvxkvt-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libzvxkvt${PROJECT_VERSION_MAJOR} (= ${version})")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "user-mode thread scheduler, development files
Headers, CMake and pkg-config files, documents and an example
for programs that run on libzvxkvt.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME zvxkvt-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libzvxkvt${PROJECT_VERSION_MAJOR} (= ${version})")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "gdb, redis-tools")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "user-mode thread scheduler, programs
The durable key-value server keyhost, which redis-cli can talk to,
and what an operator of programs on libzvxkvt uses to look inside.")

# Files that only a package has: a full installation leaves them out.
zvx_compress(${CMAKE_SOURCE_DIR}/packaging/changelog ${CMAKE_BINARY_DIR}/changelog.Debian.gz)
foreach(component Runtime Development Tools)
  string(TOUPPER ${component} upper)
  install(FILES packaging/copyright ${CMAKE_BINARY_DIR}/changelog.Debian.gz COMPONENT ${component} EXCLUDE_FROM_ALL
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
endforeach()
include(CPack)
