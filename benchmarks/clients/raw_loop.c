/* The yardstick: the shortest loop over libldap that reads every entry of a paged search.

   raw_loop URL BASE FILTER ATTRIBUTES PAGE_SIZE [--read-ahead] [--start-tls]

   Prints one line of JSON about the search alone, and how long connecting took. */
#define _GNU_SOURCE
#include <lber.h>
#include <ldap.h>

#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <time.h>

static double seconds(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec + (double)now.tv_nsec / 1e9;
}

static double processor_seconds(void)
{
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return (double)(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           (double)(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

static void check(int code, const char* what)
{
    if (code != LDAP_SUCCESS) {
        fprintf(stderr, "raw_loop: %s: %s\n", what, ldap_err2string(code));
        exit(1);
    }
}

static LDAP* connect_to(const char* url, bool read_ahead, bool start_tls)
{
    LDAP* ld = NULL;
    check(ldap_initialize(&ld, url), "ldap_initialize");
    const int version = LDAP_VERSION3;
    check(ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version), "protocol version");
    check(ldap_set_option(ld, LDAP_OPT_REFERRALS, LDAP_OPT_OFF), "referrals");
    if (read_ahead) {
        Sockbuf* buffer = NULL;
        check(ldap_get_option(ld, LDAP_OPT_SOCKBUF, &buffer), "socket buffer");
        check(ber_sockbuf_add_io(buffer, &ber_sockbuf_io_readahead, LBER_SBIOD_LEVEL_PROVIDER + 1, NULL),
            "read-ahead");
    }
    if (start_tls)
        check(ldap_start_tls_s(ld, NULL, NULL), "StartTLS");
    struct berval nothing = {0, ""};
    check(ldap_sasl_bind_s(ld, "", LDAP_SASL_SIMPLE, &nothing, NULL, NULL, NULL), "bind");
    return ld;
}

struct totals
{
    unsigned long entries, values, bytes;
};

static void read_entry(LDAP* ld, LDAPMessage* entry, struct totals* totals)
{
    ++totals->entries;
    char* dn = ldap_get_dn(ld, entry);
    totals->bytes += strlen(dn);
    ldap_memfree(dn);
    BerElement* position = NULL;
    for (char* name = ldap_first_attribute(ld, entry, &position); name != NULL;
         name = ldap_next_attribute(ld, entry, position)) {
        struct berval** values = ldap_get_values_len(ld, entry, name);
        for (int i = 0; values != NULL && values[i] != NULL; ++i) {
            ++totals->values;
            totals->bytes += values[i]->bv_len;
        }
        ldap_value_free_len(values);
        ldap_memfree(name);
    }
    ber_free(position, 0);
}

/* Reads one page. Returns whether there is another one, and replaces the cookie by the one that it takes. */
static bool read_page(
    LDAP* ld, char** arguments, char** attributes, struct berval* cookie, struct totals* totals)
{
    LDAPControl* page = NULL;
    check(ldap_create_page_control(ld, atoi(arguments[5]), cookie, 1, &page), "page control");
    LDAPControl* controls[] = {page, NULL};
    int id = 0;
    check(ldap_search_ext(ld, arguments[2], LDAP_SCOPE_SUBTREE, arguments[3], attributes, 0, controls, NULL,
              NULL, LDAP_NO_LIMIT, &id),
        "search");
    ldap_control_free(page);
    LDAPMessage* answer = NULL;
    if (ldap_result(ld, id, LDAP_MSG_ALL, NULL, &answer) <= 0)
        check(LDAP_SERVER_DOWN, "result");
    for (LDAPMessage* entry = ldap_first_entry(ld, answer); entry != NULL; entry = ldap_next_entry(ld, entry))
        read_entry(ld, entry, totals);

    int code = LDAP_OTHER, estimate = 0;
    LDAPControl** answered = NULL;
    check(ldap_parse_result(ld, answer, &code, NULL, NULL, NULL, &answered, 1), "parse result");
    check(code, "result of the search");
    ber_memfree(cookie->bv_val);
    *cookie = (struct berval){0, NULL};
    LDAPControl* next = ldap_control_find(LDAP_CONTROL_PAGEDRESULTS, answered, NULL);
    if (next != NULL)
        check(ldap_parse_pageresponse_control(ld, next, &estimate, cookie), "page control of the answer");
    ldap_controls_free(answered);
    return cookie->bv_len > 0;
}

int main(int argc, char** argv)
{
    bool read_ahead = false, start_tls = false;
    for (int i = 6; i < argc; ++i) {
        read_ahead |= strcmp(argv[i], "--read-ahead") == 0;
        start_tls |= strcmp(argv[i], "--start-tls") == 0;
    }
    if (argc < 6) {
        fprintf(
            stderr, "usage: raw_loop URL BASE FILTER ATTRIBUTES PAGE_SIZE [--read-ahead] [--start-tls]\n");
        return 2;
    }
    char* attributes[16] = {NULL};
    int count = 0;
    for (char* name = strtok(argv[4], ","); name != NULL && count < 15; name = strtok(NULL, ","))
        attributes[count++] = name;

    const double begun = seconds();
    LDAP* ld = connect_to(argv[1], read_ahead, start_tls);
    const double connected = seconds(), processor_before = processor_seconds();
    struct totals totals = {0, 0, 0};
    struct berval cookie = {0, NULL};
    bool more = read_page(ld, argv, attributes, &cookie, &totals);
    const double first_page = seconds();
    while (more)
        more = read_page(ld, argv, attributes, &cookie, &totals);
    const double ended = seconds(), processor_after = processor_seconds();
    printf("{\"entries\": %lu, \"values\": %lu, \"bytes\": %lu, \"seconds\": %.6f, \"processor\": %.6f, "
           "\"first_page\": %.6f, \"connect\": %.6f}\n",
        totals.entries, totals.values, totals.bytes, ended - connected, processor_after - processor_before,
        first_page - connected, connected - begun);
    ldap_unbind_ext_s(ld, NULL, NULL);
    return 0;
}
