# What `cmake --install` puts under the prefix: the daemon in sbin and the exporter in bin, their
# manual pages in man8 and man1, the record reference and the example settings in the
# documentation directory, the systemd units (ekadcdf.service and ekadcdf-export.service for one
# mail server, ekadcdf@.service and ekadcdf-export@.service for several) and the exporter units'
# start script in libexec/ekadcdf. Every destination is relative to the prefix; the Debian
# package puts the settings file into /etc and creates the account itself (debian/).
#
# The units and the script name the installed programs, so they are written at install time,
# when the prefix given to `cmake --install --prefix` is known.
#
# Run with `cmake -P` (the systemd_unit and systemd_unit_sandbox tests), this file checks the
# units instead.

# Each shipped unit, and the unit name the checks load it as (an instance for the template).
set(EKADCDF_UNITS "ekadcdf.service=ekadcdf.service" "ekadcdf@.service=ekadcdf@mail1.service"
    "ekadcdf-export.service=ekadcdf-export.service"
    "ekadcdf-export@.service=ekadcdf-export@mail1.service")
# The installed programs' paths as the files in packaging/ name them (under the default prefix).
set(EKADCDF_DEFAULT_SCRIPT "/usr/local/libexec/ekadcdf/export-service")

if(CMAKE_SCRIPT_MODE_FILE)
  # Copies of the units that name the built daemon, and the manual page where `man` finds it,
  # since `systemd-analyze verify` checks both.
  file(REMOVE_RECURSE ${WORK_DIR})
  file(MAKE_DIRECTORY ${WORK_DIR}/man8 ${WORK_DIR}/man1)
  file(COPY ${SOURCE_DIR}/packaging/ekadcdf.8 DESTINATION ${WORK_DIR}/man8)
  file(COPY ${SOURCE_DIR}/packaging/ekadcdf-export.1 DESTINATION ${WORK_DIR}/man1)
  set(ENV{MANPATH} ${WORK_DIR})
  foreach(entry IN LISTS EKADCDF_UNITS)
    string(REGEX REPLACE "=.*" "" file "${entry}")
    string(REGEX REPLACE ".*=" "" name "${entry}")
    file(READ ${SOURCE_DIR}/packaging/${file} unit)
    string(REPLACE "${DEFAULT_BINARY}" "${BINARY}" unit "${unit}")
    string(REPLACE "${EKADCDF_DEFAULT_SCRIPT}" "${SOURCE_DIR}/packaging/export-service" unit
                   "${unit}")
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
      # state directories the node exporter's account passes through (to the metrics files, which
      # its links name) but cannot list, and an exposure of at most 2.5 in systemd's own review.
      if(NOT unit MATCHES "\nUser=([^\n]*)" OR CMAKE_MATCH_1 MATCHES "^(|root|0)$"
         OR unit MATCHES "\nDynamicUser=(yes|true|on|1)")
        message(FATAL_ERROR
                "${file} must run as a dedicated account: User=, not root, not DynamicUser=")
      endif()
      foreach(line "UMask=0027" "NoNewPrivileges=yes" "ProtectSystem=strict" "MemoryMax=[0-9]+M"
                   "StateDirectory=ekadcdf[^\n]* ekadcdf/metrics" "StateDirectoryMode=0751")
        if(NOT unit MATCHES "\n${line}\n")
          message(FATAL_ERROR "${file} must set ${line}")
        endif()
      endforeach()
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

install(TARGETS ekadcdf RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS ekadcdf-export RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${CMAKE_SOURCE_DIR}/packaging/ekadcdf.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES ${CMAKE_SOURCE_DIR}/packaging/ekadcdf-export.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${CMAKE_SOURCE_DIR}/docs/records.md ${CMAKE_SOURCE_DIR}/packaging/example.conf
        DESTINATION ${CMAKE_INSTALL_DOCDIR})

# The units and the start script, with /usr/local/{sbin,bin,libexec}/ replaced by the installed
# directories. Units go to lib/systemd/system under the prefix (Debian 12's unit directory for
# packages installed under /usr).
set(EKADCDF_SYSTEMD_UNIT_DIR "lib/systemd/system"
    CACHE STRING "Directory of the systemd units, relative to the install prefix")
set(EKADCDF_UNIT_DEFAULT_BINARY "/usr/local/sbin/ekadcdf")
set(installed_files "export-service=${CMAKE_INSTALL_LIBEXECDIR}/ekadcdf")
foreach(entry IN LISTS EKADCDF_UNITS)
  string(REGEX REPLACE "=.*" "" file "${entry}")
  list(APPEND installed_files "${file}=${EKADCDF_SYSTEMD_UNIT_DIR}")
endforeach()
foreach(entry IN LISTS installed_files)
  string(REGEX REPLACE "=.*" "" file "${entry}")
  string(REGEX REPLACE ".*=" "" destination "${entry}")
  set(permissions OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  if(file STREQUAL "export-service")
    list(APPEND permissions OWNER_EXECUTE GROUP_EXECUTE WORLD_EXECUTE)
  endif()
  install(CODE "
    set(text \"\")
    file(READ \"${CMAKE_SOURCE_DIR}/packaging/${file}\" text)
    foreach(dir sbin=${CMAKE_INSTALL_SBINDIR} bin=${CMAKE_INSTALL_BINDIR}
                libexec=${CMAKE_INSTALL_LIBEXECDIR})
      string(REGEX REPLACE \"=.*\" \"\" default \"\${dir}\")
      string(REGEX REPLACE \".*=\" \"\" installed \"\${dir}\")
      if(NOT IS_ABSOLUTE \"\${installed}\")
        set(installed \"\${CMAKE_INSTALL_PREFIX}/\${installed}\")
      endif()
      string(REPLACE \"/usr/local/\${default}/\" \"\${installed}/\" text \"\${text}\")
    endforeach()
    file(WRITE \"${CMAKE_BINARY_DIR}/packaging/${file}\" \"\${text}\")
    file(INSTALL \"${CMAKE_BINARY_DIR}/packaging/${file}\"
         DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${destination}\"
         FILE_PERMISSIONS ${permissions})
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
