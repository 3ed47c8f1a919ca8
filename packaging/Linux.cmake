# The contents of an installation on Linux: handler and driver module in their own folder, the
# programs in the path. The Debian package is made from it (debian/rules).
set(ZELTA_MODULE_FOLDER lib/zelta)
set(ZELTA_HANDLER_PATH ${CMAKE_INSTALL_PREFIX}/${ZELTA_MODULE_FOLDER}/libifdzelta.so)
configure_file(reader.conf.in reader.conf @ONLY)

install(TARGETS zelta_vsc ifdzelta LIBRARY DESTINATION ${ZELTA_MODULE_FOLDER})
install(TARGETS zelta-agent zelta-logs zelta-status zelta-trace RUNTIME DESTINATION bin)
install(TARGETS zelta_agent_library ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        COMPONENT development)
install(FILES ${PROJECT_SOURCE_DIR}/agent/include/zelta/agent.h DESTINATION include/zelta
        COMPONENT development)
install(FILES ${PROJECT_BINARY_DIR}/agent/zelta-agent.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
install(PROGRAMS zelta DESTINATION bin)
install(PROGRAMS ${PROJECT_SOURCE_DIR}/scripts/make-demo-db.sh first-card.sh
        DESTINATION share/zelta)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/reader.conf DESTINATION /etc/reader.conf.d RENAME zelta)
install(FILES agent0.conf registry.reg DESTINATION /etc/zelta)
foreach(section 1 5 8)
  file(GLOB pages CONFIGURE_DEPENDS man/*.${section})
  install(FILES ${pages} DESTINATION share/man/man${section})
endforeach()
foreach(program zelta zelta-agent zelta-logs zelta-status zelta-trace)
  install(FILES completions/zelta DESTINATION share/bash-completion/completions RENAME ${program})
endforeach()
install(FILES completions/_zelta DESTINATION share/zsh/vendor-completions)
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION share/doc/zelta-vsc)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs DESTINATION share/doc/zelta-vsc
        FILES_MATCHING PATTERN "*.md" PATTERN "*.svg" PATTERN "*.png")
