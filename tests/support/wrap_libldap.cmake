# tavo_wrap_libldap(TARGET)
# has a test program's calls of libldap, liblber and OpenSSL's error queue go through the call recorder. That takes
# in the calls of every object and static library that is linked into the program, and of no shared library.
function(tavo_wrap_libldap target)
    set(functions
        ERR_clear_error
        ERR_error_string
        ERR_get_error
        ber_bvfree
        ber_free
        ber_mem2bv
        ber_memfree
        ber_memvfree
        ber_sockbuf_add_io
        ber_sockbuf_ctrl
        ber_strdup
        ldap_control_find
        ldap_control_free
        ldap_controls_free
        ldap_count_values_len
        ldap_create_page_control
        ldap_destroy
        ldap_dnfree
        ldap_dup
        ldap_err2string
        ldap_first_attribute
        ldap_first_entry
        ldap_first_reference
        ldap_free_urldesc
        ldap_get_dn
        ldap_get_option
        ldap_get_values_len
        ldap_init_fd
        ldap_initialize
        ldap_install_tls
        ldap_is_ldaps_url
        ldap_memfree
        ldap_memvfree
        ldap_msgfree
        ldap_next_attribute
        ldap_next_entry
        ldap_next_reference
        ldap_parse_pageresponse_control
        ldap_parse_reference
        ldap_parse_result
        ldap_rdn2str
        ldap_result
        ldap_sasl_bind_s
        ldap_search_ext
        ldap_search_ext_s
        ldap_set_option
        ldap_set_urllist_proc
        ldap_start_tls_s
        ldap_str2dn
        ldap_tls_inplace
        ldap_url_parse
        ldap_value_free_len
        ldap_whoami_s
        nanosleep)
    list(TRANSFORM functions PREPEND "LINKER:--wrap=")
    target_link_options(${target} PRIVATE ${functions})
    target_link_libraries(${target} PRIVATE tavo_call_recorder)
endfunction()
