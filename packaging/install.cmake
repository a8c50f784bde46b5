# What `cmake --install` puts where (GNU directories), the pkg-config files and the
# CMake package. Included last from the top CMakeLists.txt.
#
#   <libdir>/libkmxc_orvane.so, libkmxc_service.so       the libraries (component runtime)
#   <includedir>/kmxc_orvane/<subsystem>/<subsystem>.h   public C headers, common/common.h
#                                                        among them (development)
#   <libdir>/pkgconfig/kmxc_orvane.pc, kmxc_service.pc   pkg-config files (development)
#   <libdir>/cmake/kmxc_orvane/                          CMake package (development)
#   <bindir>/compass_service                             the demo service (tools)
#   <bindir>/field_log_pair                              a phone's two sensor streams
#                                                        made into a field log (tools)
#   <libdir>/kmxc_orvane/libkmxc_vphone.so               the virtual phone (tools)
#   <libdir>/kmxc_orvane/libkmxc_vphone_world.so         the world that moves it (tools)
#   <datadir>/doc/kmxc-orvane-tools/                     their documentation and the
#                                                        example services' sources (tools)
#
# Headers keep their subsystem folders, so `-I<includedir>/kmxc_orvane` serves the
# includes the headers make of each other ("numerics/numerics.h", ...).
#
# The library's file name is its SONAME, unversioned: services load it by the name
# libkmxc_orvane.so and that name is part of the contract, so no VERSION/SOVERSION
# (which would make the file libkmxc_orvane.so.1 and the link name a symlink).

# Debian puts libraries in the multiarch directory; so do we, whatever the prefix, so
# a temporary install has the layout of the package.
if(NOT DEFINED CMAKE_INSTALL_LIBDIR AND CMAKE_LIBRARY_ARCHITECTURE)
  set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE PATH "Object code libraries (lib)")
endif()
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(KMXC_INCLUDE_SUBDIR ${CMAKE_INSTALL_INCLUDEDIR}/kmxc_orvane)
set(KMXC_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kmxc_orvane)
set(KMXC_TOOLS_DOCDIR ${CMAKE_INSTALL_DATADIR}/doc/kmxc-orvane-tools)
set(KMXC_PRELOAD_DIR ${CMAKE_INSTALL_LIBDIR}/kmxc_orvane)

# --- Libraries and headers ------------------------------------------------------------
set(kmxc_exported kmxc_orvane)
if(TARGET kmxc_service)
  list(APPEND kmxc_exported kmxc_service)
  # The kit loads libkmxc_orvane.so from beside itself, wherever the pair is installed
  # (a program's own RUNPATH does not serve the libraries it loads).
  set_property(TARGET kmxc_service APPEND PROPERTY INSTALL_RPATH "\$ORIGIN")
endif()
# In the build the libraries' users include from the source tree; installed, from
# <includedir>/kmxc_orvane (INCLUDES DESTINATION below). The source path must not reach
# the exported package, so it is kept to the build.
foreach(target ${kmxc_exported})
  get_target_property(dirs ${target} INTERFACE_INCLUDE_DIRECTORIES)
  if(dirs)
    list(TRANSFORM dirs REPLACE "^(${PROJECT_SOURCE_DIR}|${PROJECT_BINARY_DIR})(/.*)?$" "$<BUILD_INTERFACE:\\0>")
    set_property(TARGET ${target} PROPERTY INTERFACE_INCLUDE_DIRECTORIES ${dirs})
  endif()
endforeach()
install(TARGETS ${kmxc_exported} EXPORT kmxc_orvane_targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime
  INCLUDES DESTINATION ${KMXC_INCLUDE_SUBDIR})

foreach(subsystem common platform numerics smb380 drivers calibration orientation)
  install(FILES ${PROJECT_SOURCE_DIR}/${subsystem}/${subsystem}.h
    DESTINATION ${KMXC_INCLUDE_SUBDIR}/${subsystem} COMPONENT development)
endforeach()
if(TARGET kmxc_service)
  install(FILES ${PROJECT_SOURCE_DIR}/service/kmxc_service.h
    DESTINATION ${KMXC_INCLUDE_SUBDIR}/service COMPONENT development)
endif()

# --- pkg-config ---------------------------------------------------------------------
# Written at install time, so prefix= is where the files actually went (cmake --install
# --prefix DIR, or /usr inside the Debian package). liblog is not a pkg-config package
# on Debian; the library finds it through its RUNPATH, and static-style links get it
# from Libs.private.
set(KMXC_PC_FILES kmxc_orvane)
if(TARGET kmxc_service)
  list(APPEND KMXC_PC_FILES kmxc_service)
endif()
foreach(pc ${KMXC_PC_FILES})
  install(CODE "
    set(PROJECT_VERSION \"${PROJECT_VERSION}\")
    set(KMXC_PC_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
    set(KMXC_PC_INCLUDEDIR \"${KMXC_INCLUDE_SUBDIR}\")
    set(ANDROID_LOG_LIBRARY_DIR \"${ANDROID_LOG_LIBRARY_DIR}\")
    set(pc_out \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig/${pc}.pc\")
    message(STATUS \"Installing: \${pc_out}\")
    configure_file(\"${CMAKE_CURRENT_LIST_DIR}/${pc}.pc.in\" \"\${pc_out}\" @ONLY)
    " COMPONENT development)
endforeach()

# --- CMake package: find_package(kmxc_orvane) ------------------------------------------
install(EXPORT kmxc_orvane_targets NAMESPACE kmxc_orvane:: FILE kmxc_orvaneTargets.cmake
  DESTINATION ${KMXC_CMAKE_DIR} COMPONENT development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/kmxc_orvaneConfig.cmake.in
  ${PROJECT_BINARY_DIR}/kmxc_orvaneConfig.cmake INSTALL_DESTINATION ${KMXC_CMAKE_DIR})
# Same major version is compatible: the exports only ever grow within one.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kmxc_orvaneConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kmxc_orvaneConfig.cmake ${PROJECT_BINARY_DIR}/kmxc_orvaneConfigVersion.cmake
  DESTINATION ${KMXC_CMAKE_DIR} COMPONENT development)

# --- Tools --------------------------------------------------------------------------
# The virtual phone interposes open, read, ioctl, ... for any program that loads it, so
# it lives in a private directory, never on the loader's default path; programs get it
# by LD_PRELOAD or, like compass_service, through their RUNPATH. The world library
# beside it is preloaded after it and finds it already loaded.
set_target_properties(kmxc_vphone_world PROPERTIES INSTALL_RPATH "\$ORIGIN")  # ... or loads it from there
install(TARGETS kmxc_vphone kmxc_vphone_world LIBRARY DESTINATION ${KMXC_PRELOAD_DIR} COMPONENT tools)
file(RELATIVE_PATH kmxc_bin_to_lib /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
set_target_properties(compass_service PROPERTIES
  INSTALL_RPATH "\$ORIGIN/${kmxc_bin_to_lib}/kmxc_orvane;\$ORIGIN/${kmxc_bin_to_lib}")
install(TARGETS compass_service field_log_pair RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
# The documentation written for the package's users (installed paths and names only;
# the install tests check that), and two programs to start from.
install(FILES ${PROJECT_SOURCE_DIR}/vphone/preloading.md DESTINATION ${KMXC_TOOLS_DOCDIR} RENAME vphone.md
  COMPONENT tools)
install(FILES ${PROJECT_SOURCE_DIR}/tools/compass_service.md ${PROJECT_SOURCE_DIR}/docs/record-format.md
  ${PROJECT_SOURCE_DIR}/docs/field-log-format.md
  ${PROJECT_SOURCE_DIR}/vphone/preload_demo.c ${PROJECT_SOURCE_DIR}/service/example_service.c
  DESTINATION ${KMXC_TOOLS_DOCDIR} COMPONENT tools)

# --- Tests of the installed tree --------------------------------------------------------
# Install into a scratch prefix, build the two consumers against it (pkg-config and
# find_package), run them on the virtual phone; under a cross build, through the
# emulator. Skipped under the sanitizers, whose runtime the installed tree lacks.
if(KMXC_BUILD_TESTS AND NOT KMXC_SANITIZE)
  find_program(PKG_CONFIG_EXECUTABLE NAMES pkg-config pkgconf REQUIRED)
  set(kmxc_consumer_cflags "${CMAKE_C_FLAGS}")
  if(CMAKE_SYSROOT)
    string(APPEND kmxc_consumer_cflags " --sysroot=${CMAKE_SYSROOT}")
  endif()
  add_test(NAME install_consumers
    COMMAND ${CMAKE_CURRENT_LIST_DIR}/check_install.sh
      ${PROJECT_BINARY_DIR} ${PROJECT_BINARY_DIR}/install-test ${CMAKE_INSTALL_LIBDIR}
      ${PROJECT_VERSION} ${CMAKE_C_COMPILER} "${kmxc_consumer_cflags}" "${CMAKE_TOOLCHAIN_FILE}"
      "${CMAKE_CROSSCOMPILING_EMULATOR}" ${PKG_CONFIG_EXECUTABLE})
endif()
