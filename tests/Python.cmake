# Tests written in Python for the system's own interpreter.
find_program(ZELTA_PYTHON python3 PATHS /usr/bin NO_DEFAULT_PATH REQUIRED)

# zelta_add_python_tests(SCRIPT [PREFIX TEXT] [ENVIRONMENT NAME=VALUE...] [PROPERTIES NAME VALUE...]):
# each test method of the script is a test of its own to CTest, named Class.method after the prefix;
# skipped if it says so.
function(zelta_add_python_tests script)
  cmake_parse_arguments(ARG "" "PREFIX" "ENVIRONMENT;PROPERTIES" ${ARGN})
  set(source ${CMAKE_CURRENT_SOURCE_DIR}/${script})
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source})
  file(STRINGS ${source} lines REGEX "^class |^    def test_")
  foreach(line IN LISTS lines)
    if(line MATCHES "^class ([A-Za-z0-9]+)")
      set(class ${CMAKE_MATCH_1})
    elseif(line MATCHES "def (test_[a-z0-9_]+)")
      set(name ${class}.${CMAKE_MATCH_1})
      add_test(NAME ${ARG_PREFIX}${name} COMMAND ${ZELTA_PYTHON} ${source} ${name})
      set_tests_properties(${ARG_PREFIX}${name} PROPERTIES ${ARG_PROPERTIES}
                           SKIP_REGULAR_EXPRESSION "\\.\\.\\. skipped ['\"]"
                           ENVIRONMENT "${ARG_ENVIRONMENT};PYTHONDONTWRITEBYTECODE=1")
    endif()
  endforeach()
endfunction()
