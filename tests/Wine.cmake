# Running the Windows build's tests under Wine, in a prefix of the build's own that is made once.
find_program(ZELTA_WINE wine REQUIRED)
set(ZELTA_WINE_ENVIRONMENT
    "WINEPREFIX=${CMAKE_BINARY_DIR}/wine-prefix;WINEARCH=win64;WINEDEBUG=-all;WINEDLLOVERRIDES=mscoree,mshtml=")

add_test(NAME wine_prefix COMMAND ${ZELTA_WINE} wineboot --init)
set_tests_properties(wine_prefix PROPERTIES FIXTURES_SETUP wine_prefix TIMEOUT 300
                                            ENVIRONMENT "${ZELTA_WINE_ENVIRONMENT}")

# zelta_add_wine_test(TARGET PROPERTY VALUE...): pipe names and the registry are one for the whole
# prefix, so these tests run one after the other.
function(zelta_add_wine_test name)
  add_test(NAME ${name} COMMAND ${ZELTA_WINE} $<TARGET_FILE:${name}>)
  set_tests_properties(${name} PROPERTIES FIXTURES_REQUIRED wine_prefix RESOURCE_LOCK wine ${ARGN})
  set_property(TEST ${name} APPEND PROPERTY ENVIRONMENT "${ZELTA_WINE_ENVIRONMENT}")
endfunction()
