# Debian packages (CPack DEB), one per install component:
#   libkmxc-orvane        runtime:     the libraries
#   libkmxc-orvane-dev    development: headers, pkg-config files, CMake package
#   kmxc-orvane-tools     tools:       compass_service, field_log_pair, the virtual phone and its world,
#                                      their docs, the example services' sources
# `cpack --config <build>/CPackConfig.cmake` in a build tree makes them for that build's
# architecture: amd64 natively, armel from the cross build; the presets packages and
# packages-armel configure a build of only what ships (KMXC_BUILD_TESTS and
# KMXC_BUILD_BENCHMARKS off) and make them there. What each holds is listed in
# README.md and checked against the packages by the package_contents test.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kmxc-orvane)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "kmxc_orvane maintainers <kmxc-orvane@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development tools)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT) # <name>_<version>-<release>_<arch>.deb
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "")

# The package architecture is the target's, not the build machine's: ask dpkg which
# Debian architecture the compiler's triplet is (x86_64-linux-gnu -> amd64,
# arm-linux-gnueabi -> armel for the cross build).
find_program(DPKG_ARCHITECTURE dpkg-architecture REQUIRED)
execute_process(COMMAND ${DPKG_ARCHITECTURE} -t ${CMAKE_LIBRARY_ARCHITECTURE} -qDEB_HOST_ARCH
  OUTPUT_VARIABLE KMXC_DEB_ARCH OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET COMMAND_ERROR_IS_FATAL ANY)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${KMXC_DEB_ARCH})

# Dependencies are declared, not bundled. dpkg-shlibdeps derives them from what the
# binaries load, for the package's architecture: Debian's android-liblog for liblog
# (which the library reaches through its RUNPATH, /usr/lib/<multiarch>/android), libc6,
# and on armel libgcc-s1 for the soft-float and division helpers. Only the packages'
# dependencies on each other are written here.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(KMXC_DEB_RUNTIME_NAME libkmxc-orvane)
set(KMXC_DEB_EXACT "${KMXC_DEB_RUNTIME_NAME} (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${KMXC_DEB_RUNTIME_NAME})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "electronic compass library for phones without an FPU (runtime)
libkmxc_orvane.so drives a three-axis magnetometer and an SMB380 accelerometer
behind /dev/compass, calibrates the magnetometer's offset from ordinary
handling and reports heading, attitude and both field vectors. Integer and
fixed-point only on its measurement, calibration and heading paths.
Also holds libkmxc_service.so, the sensor-service kit: the library's
start-up, cycle and shut-down sequence as three calls, with its accuracy
and persistence rules.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${KMXC_DEB_RUNTIME_NAME}-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${KMXC_DEB_EXACT}")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "electronic compass library - development files
The public C headers (under /usr/include/kmxc_orvane), the pkg-config files
kmxc_orvane.pc and kmxc_service.pc, and the CMake package
(find_package(kmxc_orvane): kmxc_orvane::kmxc_orvane, kmxc_orvane::kmxc_service).")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME kmxc-orvane-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${KMXC_DEB_EXACT}")
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS "gnuplot-nox") # compass_service --plot
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "electronic compass library - virtual phone and replay tools
compass_service plays a phone's sensor service against the library on a
virtual phone: scripted handling, raw-data record and replay, report and plot;
field_log_pair makes any phone's logged sensor streams into a field log for it.
libkmxc_vphone.so, the virtual phone, stands in for the kernel driver, both
chips, the phone's files and its monotonic clock; any program runs on it with
LD_PRELOAD, and with libkmxc_vphone_world.so preloaded too the phone is
handled by a scenario or a recorded run. The documentation holds a sensor
service written as a HAL is, to build against the kit and run on it.")

include(CPack)

# The packages of this build (made once per test run), checked: each one's file list
# against README.md, and the shipped example built from them alone and run on the
# shipped virtual phone. Skipped under the sanitizers (nothing there is shipped).
if(KMXC_BUILD_TESTS AND NOT KMXC_SANITIZE)
  find_program(DPKG_DEB dpkg-deb REQUIRED)
  if(TARGET kmxc_service)
    set(KMXC_PACKAGES_HAVE_KIT yes)
  else()
    set(KMXC_PACKAGES_HAVE_KIT no)
  endif()
  set(kmxc_packages ${PROJECT_BINARY_DIR}/packages)
  set(kmxc_deb_version ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})
  add_test(NAME packages_made COMMAND ${CMAKE_CURRENT_LIST_DIR}/make_packages.sh ${PROJECT_BINARY_DIR} ${kmxc_packages})
  set_tests_properties(packages_made PROPERTIES FIXTURES_SETUP kmxc_packages)
  string(TOLOWER "${CMAKE_BUILD_TYPE}" kmxc_config)
  add_test(NAME package_contents
    COMMAND ${CMAKE_CURRENT_LIST_DIR}/check_packages.sh ${kmxc_packages}
      ${PROJECT_BINARY_DIR}/package-test ${PROJECT_SOURCE_DIR}/README.md
      ${CMAKE_LIBRARY_ARCHITECTURE} ${KMXC_DEB_ARCH} ${kmxc_deb_version} ${kmxc_config} ${KMXC_PACKAGES_HAVE_KIT})
  set_tests_properties(package_contents PROPERTIES FIXTURES_REQUIRED kmxc_packages)
  if(KMXC_PACKAGES_HAVE_KIT)
    add_test(NAME install_packaged_example
      COMMAND ${CMAKE_CURRENT_LIST_DIR}/check_packaged_example.sh ${kmxc_packages} ${PROJECT_BINARY_DIR}/packaged-example
        ${KMXC_DEB_ARCH} ${kmxc_deb_version} ${CMAKE_LIBRARY_ARCHITECTURE} ${CMAKE_C_COMPILER} "${CMAKE_C_FLAGS}"
        "${CMAKE_CROSSCOMPILING_EMULATOR}" ${PKG_CONFIG_EXECUTABLE} ${PROJECT_SOURCE_DIR}/service/check_example.sh)
    set_tests_properties(install_packaged_example PROPERTIES FIXTURES_REQUIRED kmxc_packages)
  endif()
endif()
