# The Debian package: `cpack -G DEB` in the build folder makes
# orlanbeck_<version>-<release>_amd64.deb from what `cmake --install` installs
# with the prefix /usr (the configuration then goes to /etc), plus:
#   /etc/logrotate.d/orlanbeck     rotation of the log, reloading the daemon
#   /lib/systemd/system/           the unit and its template orlanbeck@.service
#                                  (moved there from /usr/lib)
#   the manual page with the paths of the package, gzipped; the copyright
#   file and changelog.Debian.gz
# /etc/orlanbeck.conf (mode 0640) and the logrotate file are conffiles. The
# maintainer scripts never enable the unit (`systemctl enable --now
# orlanbeck` does). The dependencies are computed by dpkg-shlibdeps from the
# libraries the daemon uses.

set(ORLANBECK_DEB_RELEASE 1)
set(ORLANBECK_DEB_VERSION ${PROJECT_VERSION}-${ORLANBECK_DEB_RELEASE})
set(ORLANBECK_DEB_MAINTAINER "orlanbeck developers <orlanbeck@example.org>")
string(TIMESTAMP ORLANBECK_DEB_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(${PROJECT_SOURCE_DIR}/cmake/debian/changelog.in
               ${CMAKE_CURRENT_BINARY_DIR}/debian/changelog.Debian @ONLY)
# The manual page with the package's paths, whatever prefix the build has.
function(orlanbeck_package_man_page)
  set(ORLANBECK_MAN_SYSCONFDIR /etc)
  set(ORLANBECK_MAN_DOCDIR /usr/share/doc/orlanbeck)
  set(ORLANBECK_MAN_UNITDIR /lib/systemd/system)
  configure_file(${PROJECT_SOURCE_DIR}/docs/orlanbeck.8.in
                 ${CMAKE_CURRENT_BINARY_DIR}/debian/orlanbeck.8 @ONLY)
endfunction()
orlanbeck_package_man_page()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME orlanbeck)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${ORLANBECK_DEB_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "hotel PMS (FIAS) to Asterisk middle layer")
# CPack puts the summary in front, as the synopsis.
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "orlanbeck connects a hotel's property management system (PMS), over its
FIAS interface, with an Asterisk telephone exchange: guest check-ins,
check-outs, phone barring, do-not-disturb and wake-up calls become SQL
statements on the exchange's databases, and calls made from the rooms are
posted to the PMS, taken from the call records or the Asterisk Manager.")
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${ORLANBECK_DEB_RELEASE})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS logrotate)
set(CPACK_STRIP_FILES ON)
set(CPACK_SET_DESTDIR ON)  # installs with DESTDIR, so the unit names /usr paths
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/cmake/debian/conffiles ${PROJECT_SOURCE_DIR}/cmake/debian/postinst
    ${PROJECT_SOURCE_DIR}/cmake/debian/prerm ${PROJECT_SOURCE_DIR}/cmake/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_ORLANBECK_SOURCE_DIR ${PROJECT_SOURCE_DIR})
set(CPACK_ORLANBECK_BINARY_DIR ${CMAKE_CURRENT_BINARY_DIR})
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/debian/stage.cmake)
include(CPack)
