# The driver package for Windows: zelta-vsc-<version>-windows-x64.zip.
set(SOURCE ${PROJECT_SOURCE_DIR})
include(windows/InfDate.cmake)
configure_file(windows/zelta_vsc.inf.in zelta_vsc.inf @ONLY NEWLINE_STYLE WIN32)

# Strips each binary; its debug information goes into a separate file, which the binary names.
foreach(target zelta_vsc zelta-agent zelta-setup)
  set(name $<TARGET_FILE_NAME:${target}>)
  set(stripped ${CMAKE_CURRENT_BINARY_DIR}/stripped/${target})
  add_custom_command(OUTPUT ${stripped}.stamp
    COMMAND ${CMAKE_COMMAND} -E make_directory ${stripped} ${stripped}/symbols
    COMMAND ${CMAKE_OBJCOPY} --only-keep-debug $<TARGET_FILE:${target}>
            ${stripped}/symbols/${name}.debug
    COMMAND ${CMAKE_STRIP} -o ${stripped}/${name} $<TARGET_FILE:${target}>
    COMMAND ${CMAKE_OBJCOPY} --add-gnu-debuglink=${stripped}/symbols/${name}.debug
            ${stripped}/${name}
    COMMAND ${CMAKE_COMMAND} -E touch ${stripped}.stamp
    DEPENDS ${target} COMMENT "Splitting the symbols off ${target}" VERBATIM)
  list(APPEND stamps ${stripped}.stamp)
  install(PROGRAMS ${stripped}/${name} DESTINATION .)
  install(FILES ${stripped}/symbols/${name}.debug DESTINATION symbols)
endforeach()
add_custom_target(zelta_stripped ALL DEPENDS ${stamps})

install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zelta_vsc.inf DESTINATION .)
install(FILES windows/card.txt ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/LICENSE
        DESTINATION .)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs DESTINATION .
        FILES_MATCHING PATTERN "*.md" PATTERN "*.svg" PATTERN "*.png")

set(CPACK_GENERATOR ZIP)
set(CPACK_PACKAGE_FILE_NAME "zelta-vsc-${PROJECT_VERSION}-windows-x64")
