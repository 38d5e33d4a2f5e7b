# What `cmake --install` puts under the prefix: the daemon in sbin and the exporter in bin, their
# manual pages in man8 and man1, the record reference in the documentation directory, and the
# systemd unit.
#
# The unit's ExecStart names the installed daemon, so the unit is written at install time, when
# the prefix given to `cmake --install --prefix` is known.
#
# Run with `cmake -P` (the systemd_unit test), this file checks the unit instead.

if(CMAKE_SCRIPT_MODE_FILE)
  # A copy of the unit that names the built daemon, and the manual page where `man` finds it,
  # since `systemd-analyze verify` checks both.
  file(REMOVE_RECURSE ${WORK_DIR})
  file(MAKE_DIRECTORY ${WORK_DIR}/man8)
  file(COPY ${SOURCE_DIR}/packaging/ekadcdf.8 DESTINATION ${WORK_DIR}/man8)
  file(READ ${SOURCE_DIR}/packaging/ekadcdf.service unit)
  string(REPLACE "${DEFAULT_BINARY}" "${BINARY}" unit "${unit}")
  file(WRITE ${WORK_DIR}/ekadcdf.service "${unit}")
  set(ENV{MANPATH} ${WORK_DIR})
  execute_process(COMMAND ${ANALYZE} verify ${WORK_DIR}/ekadcdf.service
                  RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT status EQUAL 0 OR out MATCHES "ekadcdf")
    message(FATAL_ERROR "systemd-analyze verify found problems in the unit:\n${out}")
  endif()
  return()
endif()

set(EKADCDF_SYSTEMD_UNIT_DIR "lib/systemd/system"
    CACHE STRING "Directory of the systemd unit: relative to the install prefix, or absolute")

install(TARGETS ekadcdf RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS ekadcdf-export RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${CMAKE_SOURCE_DIR}/packaging/ekadcdf.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES ${CMAKE_SOURCE_DIR}/packaging/ekadcdf-export.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${CMAKE_SOURCE_DIR}/docs/records.md DESTINATION ${CMAKE_INSTALL_DOCDIR})

# The unit in the source tree names the daemon under the default prefix.
set(EKADCDF_UNIT_DEFAULT_BINARY "/usr/local/sbin/ekadcdf")
install(CODE "
  set(sbindir \"${CMAKE_INSTALL_SBINDIR}\")
  if(NOT IS_ABSOLUTE \"\${sbindir}\")
    set(sbindir \"\${CMAKE_INSTALL_PREFIX}/\${sbindir}\")
  endif()
  set(unitdir \"${EKADCDF_SYSTEMD_UNIT_DIR}\")
  if(NOT IS_ABSOLUTE \"\${unitdir}\")
    set(unitdir \"\${CMAKE_INSTALL_PREFIX}/\${unitdir}\")
  endif()
  file(READ \"${CMAKE_SOURCE_DIR}/packaging/ekadcdf.service\" unit)
  string(REPLACE \"${EKADCDF_UNIT_DEFAULT_BINARY}\" \"\${sbindir}/ekadcdf\" unit \"\${unit}\")
  file(WRITE \"${CMAKE_BINARY_DIR}/packaging/ekadcdf.service\" \"\${unit}\")
  file(INSTALL \"${CMAKE_BINARY_DIR}/packaging/ekadcdf.service\" DESTINATION \"\${unitdir}\")
")

if(EKADCDF_TESTS)
  # The manual pages must render without warnings.
  find_program(EKADCDF_GROFF groff)
  if(EKADCDF_GROFF)
    foreach(page ekadcdf.8 ekadcdf-export.1)
      add_test(NAME manual_page_${page}
               COMMAND ${EKADCDF_GROFF} -t -ww -man -z ${CMAKE_SOURCE_DIR}/packaging/${page})
      set_tests_properties(manual_page_${page} PROPERTIES FAIL_REGULAR_EXPRESSION "warning|error")
    endforeach()
  endif()
  # The unit must pass systemd's own check, run on a copy that names the built daemon and with
  # the manual page where `man` finds it.
  find_program(EKADCDF_SYSTEMD_ANALYZE systemd-analyze)
  if(EKADCDF_SYSTEMD_ANALYZE)
    set(unit_check_dir ${CMAKE_BINARY_DIR}/unit-check)
    add_test(NAME systemd_unit
             COMMAND ${CMAKE_COMMAND}
                     -DSOURCE_DIR=${CMAKE_SOURCE_DIR} -DWORK_DIR=${unit_check_dir}
                     -DBINARY=$<TARGET_FILE:ekadcdf> -DDEFAULT_BINARY=${EKADCDF_UNIT_DEFAULT_BINARY}
                     -DANALYZE=${EKADCDF_SYSTEMD_ANALYZE}
                     -P ${CMAKE_SOURCE_DIR}/cmake/install.cmake)
  endif()
endif()
