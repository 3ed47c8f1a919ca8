# The Debian package: handler and driver module in a folder of their own, the programs in the path.
set(ZELTA_MODULE_FOLDER lib/zelta)
set(ZELTA_HANDLER_PATH /usr/${ZELTA_MODULE_FOLDER}/libifdzelta.so)
configure_file(reader.conf.in reader.conf @ONLY)

# Debian's manual pages and changelogs are compressed. gzip's -n leaves the time out.
find_program(ZELTA_GZIP gzip REQUIRED)
foreach(name zelta-agent.1 zelta-logs.1)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${name})
  execute_process(COMMAND ${ZELTA_GZIP} -9nc ${CMAKE_CURRENT_SOURCE_DIR}/${name}
                  OUTPUT_FILE ${CMAKE_CURRENT_BINARY_DIR}/${name}.gz COMMAND_ERROR_IS_FATAL ANY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.gz DESTINATION share/man/man1)
endforeach()

install(TARGETS zelta_vsc ifdzelta LIBRARY DESTINATION ${ZELTA_MODULE_FOLDER})
install(TARGETS zelta-agent zelta-logs RUNTIME DESTINATION bin)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/reader.conf DESTINATION share/zelta)
install(PROGRAMS ${PROJECT_SOURCE_DIR}/scripts/make-demo-db.sh DESTINATION share/zelta)
install(FILES systemd/zelta-agent@.service DESTINATION lib/systemd/system)
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION share/doc/zelta-vsc)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs DESTINATION share/doc/zelta-vsc
        FILES_MATCHING PATTERN "*.md" PATTERN "*.svg")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_SOURCE_DIR}/debian/folders.cmake)
set(CPACK_PACKAGE_DESCRIPTION
"It shows pcscd one smart card reader whose card is somewhere else: behind an
agent that emulates a card or forwards the one in another reader. OpenSC,
GnuPG, ssh and browsers use it as any other reader.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_NAME zelta-vsc)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "pcscd, passwd")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "libnss3-tools")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "opensc")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_SOURCE_DIR}/debian/postinst
                                       ${CMAKE_CURRENT_SOURCE_DIR}/debian/prerm
                                       ${CMAKE_CURRENT_SOURCE_DIR}/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
