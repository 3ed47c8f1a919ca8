# Sets ZELTA_INF_DATE for the INF, as mm/dd/yyyy in universal time: the date of the sources, so that
# builds are reproducible. It is SOURCE_DATE_EPOCH or that of the last commit in SOURCE, and not
# later than now: a package dated ahead of the signing machine's day would be refused.
#
# As a script, cmake -DSOURCE=FOLDER -P InfDate.cmake, it prints the date.
set(date "$ENV{SOURCE_DATE_EPOCH}")
unset(ENV{SOURCE_DATE_EPOCH})  # TIMESTAMP would take it for the time
if(date STREQUAL "" AND EXISTS ${SOURCE}/.git)
  execute_process(COMMAND git -C ${SOURCE} log -1 --format=%ct
                  OUTPUT_VARIABLE date OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
string(TIMESTAMP now "%s" UTC)
if(NOT date MATCHES "^[0-9]+$" OR date GREATER now)
  set(date ${now})
endif()
set(ENV{SOURCE_DATE_EPOCH} ${date})
string(TIMESTAMP ZELTA_INF_DATE "%m/%d/%Y" UTC)
unset(ENV{SOURCE_DATE_EPOCH})
if(CMAKE_SCRIPT_MODE_FILE)
  message(STATUS ${ZELTA_INF_DATE})
endif()
