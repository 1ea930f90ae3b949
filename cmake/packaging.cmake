# Installation and the Debian package.
#
# `cmake --install` (DESTDIR honoured) puts the daemon in sbin/, the procd
# init script in /etc/init.d and the systemd unit in lib/systemd/system/
# (under the prefix: /usr/lib/systemd/system with /usr, where systemd looks
# as well as in /lib); tests, the simulator and the sysroot stay in the
# build. `cpack` in a build folder makes dorvand_VERSION_ARCH.deb in
# <build>/packages, for the build's target: amd64 natively, armhf with
# cmake/toolchains/armhf.cmake.
#
# The package enables and starts nothing: it has no maintainer scripts. The
# image that installs it decides how the daemon starts (`/etc/init.d/dorvand
# enable` under procd, `systemctl enable dorvand` under systemd), as it also
# provides the configuration daemon, the driver and the transition script
# that the daemon needs.
include(GNUInstallDirs)
install(TARGETS dorvand RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
# The init script's place is fixed by procd's rc.common, whatever the prefix.
install(PROGRAMS ${CMAKE_SOURCE_DIR}/packaging/dorvand.init DESTINATION /etc/init.d RENAME dorvand)
install(FILES ${CMAKE_SOURCE_DIR}/packaging/dorvand.service DESTINATION lib/systemd/system)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME dorvand)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "dorvand maintainers <maintainers@dorvand.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "802.11r key-holder sync and background channel scans for wireless APs")
set(CPACK_PACKAGE_DESCRIPTION
    "Keeps the 802.11r key holders of an access point's neighbours up to date and scans\n\
the radios' channels in the background into one SQLite database per band.")
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# A local change to the init script survives an upgrade, as for any file of /etc.
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_SOURCE_DIR}/packaging/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# The target's Debian architecture: dpkg would name the build machine's.
if(CMAKE_LIBRARY_ARCHITECTURE STREQUAL "arm-linux-gnueabihf")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
elseif(CMAKE_LIBRARY_ARCHITECTURE STREQUAL "x86_64-linux-gnu")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
endif()

# Written out rather than found by dpkg-shlibdeps, which cannot read the
# libraries of a foreign architecture that is not installed.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6 (>= 2.34), libsqlite3-0 (>= 3.5.9)")
if(NOT DORVAND_STATIC_RUNTIME)
  string(APPEND CPACK_DEBIAN_PACKAGE_DEPENDS ", libgcc-s1 (>= 3.0), libstdc++6 (>= 5)")
endif()

include(CPack)
