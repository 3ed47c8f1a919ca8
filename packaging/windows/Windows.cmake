# The driver package for Windows: zelta-vsc-<version>-windows-x64.zip.

# The INF's date is that of the last commit when the build was configured, in universal time: a
# package dated ahead of the signing machine's day would be refused.
if(EXISTS ${PROJECT_SOURCE_DIR}/.git)
  execute_process(
    COMMAND ${CMAKE_COMMAND} -E env TZ=UTC
            git -C ${PROJECT_SOURCE_DIR} log -1 --format=%cd --date=format-local:%m/%d/%Y
    OUTPUT_VARIABLE ZELTA_INF_DATE OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
if(NOT ZELTA_INF_DATE)
  string(TIMESTAMP ZELTA_INF_DATE "%m/%d/%Y" UTC)
endif()
configure_file(windows/zelta_vsc.inf.in zelta_vsc.inf @ONLY NEWLINE_STYLE WIN32)

install(TARGETS zelta_vsc LIBRARY DESTINATION .)
install(TARGETS zelta-agent RUNTIME DESTINATION .)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zelta_vsc.inf DESTINATION .)
install(FILES windows/card.txt ${PROJECT_SOURCE_DIR}/README.md DESTINATION .)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs DESTINATION .
        FILES_MATCHING PATTERN "*.md" PATTERN "*.svg" PATTERN "*.png")

set(CPACK_GENERATOR ZIP)
set(CPACK_PACKAGE_FILE_NAME "zelta-vsc-${PROJECT_VERSION}-windows-x64")
