# What `cmake --install` puts under the prefix: the daemon in sbin and the exporter in bin, their
# manual pages in man8 and man1, the record reference and the example instance settings in the
# documentation directory, and the systemd units (ekadcdf.service for one mail server,
# ekadcdf@.service for several).
#
# The units' ExecStart names the installed daemon, so the units are written at install time, when
# the prefix given to `cmake --install --prefix` is known.
#
# Run with `cmake -P` (the systemd_unit and systemd_unit_sandbox tests), this file checks the
# units instead.

# Each shipped unit, and the unit name the checks load it as (an instance for the template).
set(EKADCDF_UNITS "ekadcdf.service=ekadcdf.service" "ekadcdf@.service=ekadcdf@mail1.service")

if(CMAKE_SCRIPT_MODE_FILE)
  # Copies of the units that name the built daemon, and the manual page where `man` finds it,
  # since `systemd-analyze verify` checks both.
  file(REMOVE_RECURSE ${WORK_DIR})
  file(MAKE_DIRECTORY ${WORK_DIR}/man8)
  file(COPY ${SOURCE_DIR}/packaging/ekadcdf.8 DESTINATION ${WORK_DIR}/man8)
  set(ENV{MANPATH} ${WORK_DIR})
  foreach(entry IN LISTS EKADCDF_UNITS)
    string(REGEX REPLACE "=.*" "" file "${entry}")
    string(REGEX REPLACE ".*=" "" name "${entry}")
    file(READ ${SOURCE_DIR}/packaging/${file} unit)
    string(REPLACE "${DEFAULT_BINARY}" "${BINARY}" unit "${unit}")
    file(WRITE ${WORK_DIR}/${file} "${unit}")
    if(CHECK STREQUAL "verify")
      # systemd's own check: any complaint naming the unit or the daemon fails.
      execute_process(COMMAND ${ANALYZE} verify ${WORK_DIR}/${name}
                      RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE out)
      if(NOT status EQUAL 0 OR out MATCHES "ekadcdf")
        message(FATAL_ERROR "systemd-analyze verify found problems in ${file}:\n${out}")
      endif()
    else()
      # The sandbox: a real account that is not root, files created without access for others,
      # and an exposure of at most 2.5 in systemd's own review.
      if(NOT unit MATCHES "\nUser=([^\n]*)" OR CMAKE_MATCH_1 MATCHES "^(|root|0)$"
         OR unit MATCHES "\nDynamicUser=(yes|true|on|1)")
        message(FATAL_ERROR
                "${file} must run as a dedicated account: User=, not root, not DynamicUser=")
      endif()
      if(NOT unit MATCHES "\nUMask=0027\n")
        message(FATAL_ERROR "${file} must set UMask=0027")
      endif()
      execute_process(COMMAND ${ANALYZE} security --offline=true --no-pager ${WORK_DIR}/${name}
                      RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE out)
      if(NOT out MATCHES "Overall exposure level for [^:]+: ([0-9.]+)")
        message(FATAL_ERROR "systemd-analyze security gave no exposure for ${file}:\n${out}")
      endif()
      set(exposure ${CMAKE_MATCH_1})
      message(STATUS "${name}: exposure ${exposure}")
      if(exposure GREATER 2.5)
        message(FATAL_ERROR "${file}: exposure ${exposure} is over 2.5:\n${out}")
      endif()
    endif()
  endforeach()
  return()
endif()

set(EKADCDF_SYSTEMD_UNIT_DIR "lib/systemd/system"
    CACHE STRING "Directory of the systemd units: relative to the install prefix, or absolute")

install(TARGETS ekadcdf RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS ekadcdf-export RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${CMAKE_SOURCE_DIR}/packaging/ekadcdf.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
# What `cmake --install` puts under the prefix: the daemon in sbin and the exporter in bin, their
# manual pages in man8 and man1, the record reference and the example instance settings in the
# documentation directory, and the systemd units (ekadcdf.service for one mail server,
# ekadcdf@.service for several).

# The units in the source tree name the daemon under the default prefix.
set(EKADCDF_UNIT_DEFAULT_BINARY "/usr/local/sbin/ekadcdf")
foreach(entry IN LISTS EKADCDF_UNITS)
  string(REGEX REPLACE "=.*" "" file "${entry}")
  install(CODE "
    set(sbindir \"${CMAKE_INSTALL_SBINDIR}\")
    if(NOT IS_ABSOLUTE \"\${sbindir}\")
      set(sbindir \"\${CMAKE_INSTALL_PREFIX}/\${sbindir}\")
    endif()
    set(unitdir \"${EKADCDF_SYSTEMD_UNIT_DIR}\")
    if(NOT IS_ABSOLUTE \"\${unitdir}\")
      set(unitdir \"\${CMAKE_INSTALL_PREFIX}/\${unitdir}\")
    endif()
    file(READ \"${CMAKE_SOURCE_DIR}/packaging/${file}\" unit)
    string(REPLACE \"${EKADCDF_UNIT_DEFAULT_BINARY}\" \"\${sbindir}/ekadcdf\" unit \"\${unit}\")
    file(WRITE \"${CMAKE_BINARY_DIR}/packaging/${file}\" \"\${unit}\")
    file(INSTALL \"${CMAKE_BINARY_DIR}/packaging/${file}\" DESTINATION \"\${unitdir}\")
  ")
endforeach()

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
  # Each unit must pass systemd's own check (systemd_unit), run on a copy that names the built
  # daemon and with the manual page where `man` finds it, and keep its sandbox
  # (systemd_unit_sandbox).
  find_program(EKADCDF_SYSTEMD_ANALYZE systemd-analyze)
  if(EKADCDF_SYSTEMD_ANALYZE)
    set(unit_check_args -DSOURCE_DIR=${CMAKE_SOURCE_DIR} -DBINARY=$<TARGET_FILE:ekadcdf>
                        -DDEFAULT_BINARY=${EKADCDF_UNIT_DEFAULT_BINARY}
                        -DANALYZE=${EKADCDF_SYSTEMD_ANALYZE})
    add_test(NAME systemd_unit
             COMMAND ${CMAKE_COMMAND} -DCHECK=verify -DWORK_DIR=${CMAKE_BINARY_DIR}/unit-check
                     ${unit_check_args} -P ${CMAKE_SOURCE_DIR}/cmake/install.cmake)
    add_test(NAME systemd_unit_sandbox
             COMMAND ${CMAKE_COMMAND} -DCHECK=sandbox -DWORK_DIR=${CMAKE_BINARY_DIR}/unit-sandbox
                     ${unit_check_args} -P ${CMAKE_SOURCE_DIR}/cmake/install.cmake)
  endif()
endif()
