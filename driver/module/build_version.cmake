# Writes the header with the build's version; leaves it untouched if nothing has changed.
#   cmake -DSOURCE=<checkout> -DVERSION=<project version> -DHEADER=<file> [-DCOMMIT=<commit>]
#         -P build_version.cmake
# Without a commit it is the checkout's.
set(commit "unknown")
if(COMMIT)
  set(commit "${COMMIT}")
endif()
# Only the project's own checkout counts, not one that the sources happen to lie in.
if(NOT COMMIT AND EXISTS "${SOURCE}/.git")
  find_program(GIT git)
  if(GIT)
    execute_process(COMMAND "${GIT}" -C "${SOURCE}" rev-parse --short HEAD
                    OUTPUT_VARIABLE output RESULT_VARIABLE result
                    OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
    if(result EQUAL 0)
      set(commit "${output}")
    endif()
  endif()
endif()
file(CONFIGURE OUTPUT "${HEADER}" @ONLY CONTENT [[
#pragma once
namespace zelta {
inline constexpr char kBuildVersion[] = "@VERSION@+@commit@";
}
]])
