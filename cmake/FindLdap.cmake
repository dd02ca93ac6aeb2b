# Finds OpenLDAP's client library: the targets Ldap::ldap and Ldap::lber.
find_path(Ldap_INCLUDE_DIR ldap.h)
find_library(Ldap_ldap_LIBRARY NAMES ldap)
find_library(Ldap_lber_LIBRARY NAMES lber)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Ldap
    REQUIRED_VARS Ldap_ldap_LIBRARY Ldap_lber_LIBRARY Ldap_INCLUDE_DIR
    REASON_FAILURE_MESSAGE "install OpenLDAP's development files (Debian: libldap-dev)")

foreach(component IN ITEMS lber ldap)
    if(Ldap_FOUND AND NOT TARGET Ldap::${component})
        add_library(Ldap::${component} UNKNOWN IMPORTED)
        set_target_properties(Ldap::${component} PROPERTIES
            IMPORTED_LOCATION "${Ldap_${component}_LIBRARY}"
            INTERFACE_INCLUDE_DIRECTORIES "${Ldap_INCLUDE_DIR}")
    endif()
endforeach()
mark_as_advanced(Ldap_INCLUDE_DIR Ldap_ldap_LIBRARY Ldap_lber_LIBRARY)
