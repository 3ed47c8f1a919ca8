# Run by cpack before it packs: everyone may enter the folders, whatever the umask of whoever packs.
file(CHMOD_RECURSE ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/usr
     DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ
                           WORLD_EXECUTE)
