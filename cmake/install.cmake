# Installation of everything besides the daemon binary (src/CMakeLists.txt
# installs that to sbin/):
#
#   <sysconfdir>/orlanbeck.conf               the sample configuration with
#                                             absolute paths; an existing file
#                                             is never overwritten
#   lib/systemd/system/orlanbeck.service      the systemd unit
#   lib/systemd/system/orlanbeck@.service     its template, one instance per
#                                             property (<sysconfdir>/orlanbeck/<name>.conf)
#   <mandir>/man8/orlanbeck.8                 the manual page
#   <docdir>/README.md, <docdir>/*.md         the operator documentation
#
# <sysconfdir> follows the prefix as GNUInstallDirs' CMAKE_INSTALL_FULL_SYSCONFDIR
# does (prefix/etc; /etc for the prefixes / and /usr; /etc/opt/X for /opt/X).
# The configuration and the unit are placed at install time, so that both
# follow the prefix actually used (`cmake --install <build> --prefix <dir>`)
# and DESTDIR; the paths written into the unit never contain DESTDIR.

# --- the sample configuration, with absolute paths ---------------------------
# The repository's sample uses paths relative to the working directory (fine
# for trying the daemon in the foreground). The installed copy gets the paths
# of a system installation: the unit's StateDirectory= creates /var/lib/orlanbeck.
set(ORLANBECK_CONF_SOURCE ${PROJECT_SOURCE_DIR}/etc/orlanbeck.conf)
set(ORLANBECK_CONF_BUILT ${CMAKE_CURRENT_BINARY_DIR}/etc/orlanbeck.conf)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${ORLANBECK_CONF_SOURCE})
file(READ ${ORLANBECK_CONF_SOURCE} _orlanbeck_conf)
foreach(_pair
        "statesfile = run/orlanbeck.db=>statesfile = /var/lib/orlanbeck/orlanbeck.db"
        "log_file = run/orlanbeck.log=>log_file = /var/log/orlanbeck.log"
        "database = run/pbx.db=>database = /var/lib/orlanbeck/pbx.db")
  string(REPLACE "=>" ";" _pair "${_pair}")
  list(GET _pair 0 _from)
  list(GET _pair 1 _to)
  string(FIND "${_orlanbeck_conf}" "\n${_from}\n" _at)
  if(_at EQUAL -1)
    message(WARNING "etc/orlanbeck.conf has no line \"${_from}\": the installed "
                    "configuration keeps that setting as it is")
  endif()
  string(REPLACE "\n${_from}\n" "\n${_to}\n" _orlanbeck_conf "${_orlanbeck_conf}")
endforeach()
# Rewritten only when it changes, so that nothing depending on it is redone.
set(_orlanbeck_conf_old "")
if(EXISTS ${ORLANBECK_CONF_BUILT})
  file(READ ${ORLANBECK_CONF_BUILT} _orlanbeck_conf_old)
endif()
if(NOT _orlanbeck_conf STREQUAL _orlanbeck_conf_old)
  file(WRITE ${ORLANBECK_CONF_BUILT} "${_orlanbeck_conf}")
endif()

# --- the manual page ----------------------------------------------------------
# Filled in with the version and the paths of the configured prefix.
string(TIMESTAMP ORLANBECK_MAN_DATE "%Y-%m-%d")  # honours SOURCE_DATE_EPOCH
set(ORLANBECK_MAN_SBINDIR ${CMAKE_INSTALL_FULL_SBINDIR})
set(ORLANBECK_MAN_SYSCONFDIR ${CMAKE_INSTALL_FULL_SYSCONFDIR})
set(ORLANBECK_MAN_DOCDIR ${CMAKE_INSTALL_FULL_DOCDIR})
if(IS_ABSOLUTE "${CMAKE_INSTALL_PREFIX}")
  string(REGEX REPLACE "/+$" "" _orlanbeck_prefix "${CMAKE_INSTALL_PREFIX}")
  set(ORLANBECK_MAN_UNITDIR ${_orlanbeck_prefix}/lib/systemd/system)
else()
  set(ORLANBECK_MAN_UNITDIR lib/systemd/system)
endif()
configure_file(${PROJECT_SOURCE_DIR}/docs/orlanbeck.8.in ${CMAKE_CURRENT_BINARY_DIR}/docs/orlanbeck.8
               @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/docs/orlanbeck.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)

# --- the operator documentation ----------------------------------------------
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/docs/configuration.md
              ${PROJECT_SOURCE_DIR}/docs/asterisk.md ${PROJECT_SOURCE_DIR}/docs/operation.md
              ${PROJECT_SOURCE_DIR}/docs/troubleshooting.md
        DESTINATION ${CMAKE_INSTALL_DOCDIR})

# --- configuration and unit, placed at install time -------------------------
# The values known now, handed to the install-time code below.
install(CODE "
set(_orlanbeck_conf_built [[${ORLANBECK_CONF_BUILT}]])
set(_orlanbeck_unit_templates [[${PROJECT_SOURCE_DIR}/etc/orlanbeck.service;${PROJECT_SOURCE_DIR}/etc/orlanbeck@.service]])
set(_orlanbeck_work [[${CMAKE_CURRENT_BINARY_DIR}/install-time]])
set(_orlanbeck_sbindir [[${CMAKE_INSTALL_SBINDIR}]])
set(_orlanbeck_sysconfdir [[${CMAKE_INSTALL_SYSCONFDIR}]])
set(_orlanbeck_docdir [[${CMAKE_INSTALL_DOCDIR}]])
")
install(CODE [[
string(REGEX REPLACE "/+$" "" _orlanbeck_prefix "${CMAKE_INSTALL_PREFIX}")

# Full paths as GNUInstallDirs makes them, for the prefix of this install.
if(IS_ABSOLUTE "${_orlanbeck_sbindir}")
  set(ORLANBECK_SBINDIR "${_orlanbeck_sbindir}")
else()
  set(ORLANBECK_SBINDIR "${_orlanbeck_prefix}/${_orlanbeck_sbindir}")
endif()
if(IS_ABSOLUTE "${_orlanbeck_docdir}")
  set(ORLANBECK_DOCDIR "${_orlanbeck_docdir}")
else()
  set(ORLANBECK_DOCDIR "${_orlanbeck_prefix}/${_orlanbeck_docdir}")
endif()
if(IS_ABSOLUTE "${_orlanbeck_sysconfdir}")
  set(ORLANBECK_SYSCONFDIR "${_orlanbeck_sysconfdir}")
elseif(_orlanbeck_prefix STREQUAL "" OR _orlanbeck_prefix STREQUAL "/usr")
  set(ORLANBECK_SYSCONFDIR "/${_orlanbeck_sysconfdir}")
elseif(_orlanbeck_prefix MATCHES "^/opt/(.*)")
  set(ORLANBECK_SYSCONFDIR "/${_orlanbeck_sysconfdir}/opt/${CMAKE_MATCH_1}")
else()
  set(ORLANBECK_SYSCONFDIR "${_orlanbeck_prefix}/${_orlanbeck_sysconfdir}")
endif()

# The configuration: only when there is none yet (the operator's file stays).
# It may hold passwords, so it is readable by its owner and group only.
if(EXISTS "$ENV{DESTDIR}${ORLANBECK_SYSCONFDIR}/orlanbeck.conf")
  message(STATUS "Keeping existing: $ENV{DESTDIR}${ORLANBECK_SYSCONFDIR}/orlanbeck.conf")
else()
  file(INSTALL DESTINATION "${ORLANBECK_SYSCONFDIR}" TYPE FILE
       PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ
       FILES "${_orlanbeck_conf_built}")
endif()

# The units, with the paths of this install (without DESTDIR).
foreach(_unit IN LISTS _orlanbeck_unit_templates)
  get_filename_component(_name "${_unit}" NAME)
  configure_file("${_unit}" "${_orlanbeck_work}/${_name}" @ONLY)
  file(INSTALL DESTINATION "${_orlanbeck_prefix}/lib/systemd/system" TYPE FILE
       FILES "${_orlanbeck_work}/${_name}")
endforeach()
]])
