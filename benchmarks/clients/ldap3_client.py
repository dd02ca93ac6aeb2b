"""ldap3, the client in Python alone: ldap3_client.py URL BASE FILTER ATTRIBUTES PAGE_SIZE"""
import json
import sys
import time

import ldap3

url, base, text, attributes, size = sys.argv[1:6]
begun = time.monotonic()
connection = ldap3.Connection(ldap3.Server(url, get_info=ldap3.NONE), auto_bind=True, check_names=False)
connected, processor = time.monotonic(), time.process_time()
entries = values = octets = 0
first_page = cookie = None
while True:
    connection.search(base, text, attributes=attributes.split(","), paged_size=int(size), paged_cookie=cookie)
    for entry in connection.response:
        entries += 1
        octets += len(entry["dn"])
        for found in entry["raw_attributes"].values():
            values += len(found)
            octets += sum(map(len, found))
    first_page = first_page or time.monotonic()
    cookie = connection.result["controls"]["1.2.840.113556.1.4.319"]["value"]["cookie"]
    if not cookie:
        break
print(json.dumps({
    "entries": entries, "values": values, "bytes": octets, "seconds": time.monotonic() - connected,
    "processor": time.process_time() - processor, "first_page": first_page - connected, "connect": connected - begun}))
