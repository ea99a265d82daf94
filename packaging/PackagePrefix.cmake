# Read by cpack before it makes a package.
if(CPACK_GENERATOR STREQUAL DEB AND NOT CPACK_DROVANE_PREFIX STREQUAL /usr)
  message(FATAL_ERROR "This build is for ${CPACK_DROVANE_PREFIX}; a Debian package needs one for "
    "/usr, as script/package makes it: cmake --preset package")
endif()
