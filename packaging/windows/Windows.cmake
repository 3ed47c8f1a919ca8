# The driver package for Windows: zelta-vsc-<version>-windows-x64.zip.

# The INF's date is that of the last commit, so that the same sources give the same package.
execute_process(
  COMMAND git -C ${PROJECT_SOURCE_DIR} log -1 --format=%cd --date=format:%m/%d/%Y
  OUTPUT_VARIABLE ZELTA_INF_DATE OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
if(NOT ZELTA_INF_DATE)
  string(TIMESTAMP ZELTA_INF_DATE "%m/%d/%Y" UTC)
endif()
configure_file(windows/zelta_vsc.inf.in zelta_vsc.inf @ONLY NEWLINE_STYLE WIN32)

install(TARGETS zelta_vsc LIBRARY DESTINATION .)
install(TARGETS zelta-agent RUNTIME DESTINATION .)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zelta_vsc.inf DESTINATION .)
install(FILES windows/card.txt ${PROJECT_SOURCE_DIR}/README.md DESTINATION .)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs DESTINATION . FILES_MATCHING PATTERN "*.md")

set(CPACK_GENERATOR ZIP)
set(CPACK_PACKAGE_FILE_NAME "zelta-vsc-${PROJECT_VERSION}-windows-x64")
