# The driver package for Windows: zelta-vsc-<version>-windows-x64.zip.

set(SOURCE ${PROJECT_SOURCE_DIR})
include(windows/InfDate.cmake)
configure_file(windows/zelta_vsc.inf.in zelta_vsc.inf @ONLY NEWLINE_STYLE WIN32)

install(TARGETS zelta_vsc LIBRARY DESTINATION .)
install(TARGETS zelta-agent RUNTIME DESTINATION .)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zelta_vsc.inf DESTINATION .)
install(FILES windows/card.txt ${PROJECT_SOURCE_DIR}/README.md DESTINATION .)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs DESTINATION .
        FILES_MATCHING PATTERN "*.md" PATTERN "*.svg" PATTERN "*.png")

set(CPACK_GENERATOR ZIP)
set(CPACK_PACKAGE_FILE_NAME "zelta-vsc-${PROJECT_VERSION}-windows-x64")
