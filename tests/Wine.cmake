# Running the Windows build's tests under Wine, in a prefix of the build's own. It is made once for
# a run, and its server stays up between the programs, since starting it takes longer than most of
# them; it ends with the run, or by itself some time after one that was broken off. There is no
# debugger: a program that crashed under it would end with 0.
find_program(ZELTA_WINE wine REQUIRED)
find_program(ZELTA_WINESERVER wineserver REQUIRED)
set(ZELTA_WINE_ENVIRONMENT
    "WINEPREFIX=${CMAKE_BINARY_DIR}/wine-prefix;WINEARCH=win64;WINEDEBUG=-all;WINEDLLOVERRIDES=mscoree,mshtml,winedbg.exe=")

# What is started with the prefix lives on and would hold the run's pipes open.
add_test(NAME wine_prefix
         COMMAND sh -c "{ \"$1\" -p120; exec \"$0\" wineboot --init; } >/dev/null 2>&1 </dev/null"
                 ${ZELTA_WINE} ${ZELTA_WINESERVER})
set_tests_properties(wine_prefix PROPERTIES FIXTURES_SETUP wine_prefix TIMEOUT 300
                                            ENVIRONMENT "${ZELTA_WINE_ENVIRONMENT}")
add_test(NAME wine_end COMMAND ${ZELTA_WINESERVER} -k)
set_tests_properties(wine_end PROPERTIES FIXTURES_CLEANUP wine_prefix TIMEOUT 60
                                         ENVIRONMENT "${ZELTA_WINE_ENVIRONMENT}")

# zelta_add_wine_test(TARGET PROPERTY VALUE...): pipe names and the registry are one for the whole
# prefix, so these tests run one after the other.
function(zelta_add_wine_test name)
  add_test(NAME ${name} COMMAND ${ZELTA_WINE} $<TARGET_FILE:${name}>)
  set_tests_properties(${name} PROPERTIES FIXTURES_REQUIRED wine_prefix RESOURCE_LOCK wine ${ARGN})
  set_property(TEST ${name} APPEND PROPERTY ENVIRONMENT "${ZELTA_WINE_ENVIRONMENT}")
endfunction()
