# The Debian package: handler and driver module in a folder of their own, the programs in the path.
set(ZELTA_MODULE_FOLDER lib/zelta)
set(ZELTA_HANDLER_PATH /usr/${ZELTA_MODULE_FOLDER}/libifdzelta.so)
configure_file(reader.conf.in reader.conf @ONLY)

install(TARGETS zelta_vsc ifdzelta LIBRARY DESTINATION ${ZELTA_MODULE_FOLDER})
install(TARGETS zelta-agent zelta-logs RUNTIME DESTINATION bin)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/reader.conf DESTINATION share/zelta)
install(PROGRAMS ${PROJECT_SOURCE_DIR}/scripts/make-demo-db.sh DESTINATION share/zelta)
install(FILES zelta-agent.1 zelta-logs.1 DESTINATION share/man/man1)
install(FILES systemd/zelta-agent@.service DESTINATION lib/systemd/system)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs/ DESTINATION share/doc/zelta-vsc)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_NAME zelta-vsc)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "pcscd")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_SOURCE_DIR}/debian/postinst
                                       ${CMAKE_CURRENT_SOURCE_DIR}/debian/prerm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
