# Running the Windows build's tests under Wine, in a prefix that is made for the run and removed
# behind it. Its server stays up between the programs, since starting it takes longer than most of
# them. There is no debugger: a program that crashed under it would end with 0. Nobody has to be
# there: no display, no windows, no menus, no browser. Wine makes file names of the locale's
# characters, so that is one with all of them.
find_program(ZELTA_WINE wine REQUIRED)
find_program(ZELTA_WINESERVER wineserver REQUIRED)
set(ZELTA_WINE_PREFIX ${CMAKE_BINARY_DIR}/wine-prefix)
set(ZELTA_WINE_ENVIRONMENT
    WINEPREFIX=${ZELTA_WINE_PREFIX} WINEARCH=win64 WINEDEBUG=-all LC_ALL=C.UTF-8
    WINEDLLOVERRIDES=mscoree,mshtml,winemenubuilder.exe,winedbg.exe=)
set(ZELTA_WINE_DISPLAY DISPLAY=unset: WAYLAND_DISPLAY=unset:)

foreach(action make remove)
  add_test(NAME wine_prefix_${action}
           COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/wine_prefix.sh ${action} ${ZELTA_WINE_PREFIX})
  set_tests_properties(wine_prefix_${action} PROPERTIES TIMEOUT 600
    ENVIRONMENT "${ZELTA_WINE_ENVIRONMENT}" ENVIRONMENT_MODIFICATION "${ZELTA_WINE_DISPLAY}")
endforeach()
set_tests_properties(wine_prefix_make PROPERTIES FIXTURES_SETUP wine_prefix)
set_tests_properties(wine_prefix_remove PROPERTIES FIXTURES_CLEANUP wine_prefix)

# zelta_add_wine_test(NAME TARGET PROPERTY VALUE...): pipe names and the registry are one for the
# whole prefix, so these tests run one after the other.
function(zelta_add_wine_test name target)
  add_test(NAME ${name} COMMAND ${ZELTA_WINE} $<TARGET_FILE:${target}>)
  set_tests_properties(${name} PROPERTIES
    FIXTURES_REQUIRED wine_prefix RESOURCE_LOCK wine
    ENVIRONMENT_MODIFICATION "${ZELTA_WINE_DISPLAY}" ${ARGN})
  set_property(TEST ${name} APPEND PROPERTY ENVIRONMENT "${ZELTA_WINE_ENVIRONMENT}")
endfunction()

# zelta_add_python_wine_test(NAME SCRIPT NAME=VALUE...): tests in Python, on this system, that start
# programs in a Wine prefix of their own. All of the script is one test, since making that takes
# longer than most of them.
function(zelta_add_python_wine_test name script)
  add_test(NAME ${name} COMMAND ${ZELTA_PYTHON} ${CMAKE_CURRENT_SOURCE_DIR}/${script})
  set_tests_properties(${name} PROPERTIES
    TIMEOUT 400 ENVIRONMENT_MODIFICATION "${ZELTA_WINE_DISPLAY};WINEPREFIX=unset:"
    ENVIRONMENT "${ZELTA_WINE_ENVIRONMENT};ZELTA_WINE=${ZELTA_WINE};${ARGN}")
  set_property(TEST ${name} APPEND PROPERTY ENVIRONMENT PYTHONDONTWRITEBYTECODE=1)
endfunction()
