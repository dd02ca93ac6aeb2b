# Installs the libraries, the headers under <prefix>/include/tavo, and the CMake package and pkg-config files.

include(CMakePackageConfigHelpers)

get_property(libraries GLOBAL PROPERTY TAVO_LIBRARIES)
set(include_dir ${CMAKE_INSTALL_INCLUDEDIR}/tavo)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/tavo_ldap)

install(TARGETS ${libraries}
    EXPORT tavo_ldap
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    FILE_SET HEADERS DESTINATION ${include_dir})
install(EXPORT tavo_ldap NAMESPACE tavo:: FILE tavo_ldapTargets.cmake DESTINATION ${package_dir})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/tavo_ldapConfig.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/tavo_ldapConfig.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/tavo_ldapConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
# Relative, so that an installed tree may be moved.
file(RELATIVE_PATH prefix_of_pkgconfig /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${CMAKE_CURRENT_LIST_DIR}/tavo_ldap.pc.in ${CMAKE_CURRENT_BINARY_DIR}/tavo_ldap.pc @ONLY)
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/tavo_ldapConfig.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/tavo_ldapConfigVersion.cmake
    DESTINATION ${package_dir})
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tavo_ldap.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
