"""python-ldap: ldap_client.py URL BASE FILTER ATTRIBUTES PAGE_SIZE"""
import json
import sys
import time

import ldap
from ldap.controls import SimplePagedResultsControl

url, base, text, attributes, size = sys.argv[1:6]
begun = time.monotonic()
connection = ldap.initialize(url)
connection.simple_bind_s()
connected, processor = time.monotonic(), time.process_time()
entries = values = octets = 0
first_page = None
control = SimplePagedResultsControl(True, int(size), "")
while True:
    request = connection.search_ext(base, ldap.SCOPE_SUBTREE, text, attributes.split(","), serverctrls=[control])
    _, page, _, answered = connection.result3(request)
    for dn, entry in page:
        entries += 1
        octets += len(dn)
        for found in entry.values():
            values += len(found)
            octets += sum(map(len, found))
    first_page = first_page or time.monotonic()
    control.cookie = answered[0].cookie
    if not control.cookie:
        break
print(json.dumps({
    "entries": entries, "values": values, "bytes": octets, "seconds": time.monotonic() - connected,
    "processor": time.process_time() - processor, "first_page": first_page - connected, "connect": connected - begun}))
