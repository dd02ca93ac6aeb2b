"""bonsai: bonsai_client.py URL BASE FILTER ATTRIBUTES PAGE_SIZE"""
import json
import sys
import time

import bonsai

url, base, text, attributes, size = sys.argv[1:6]
begun = time.monotonic()
client = bonsai.LDAPClient(url)
client.set_server_chase_referrals(False)
client.set_managedsait(False)
connection = client.connect()
connected, processor = time.monotonic(), time.process_time()
entries = values = characters = 0
first_page = None
found = connection.paged_search(base, bonsai.LDAPSearchScope.SUBTREE, text, attributes.split(","), page_size=int(size))
for entry in found:
    # Entries come one by one, those of the first page when all of it has been read.
    first_page = first_page or time.monotonic()
    entries += 1
    characters += len(str(entry.dn))
    for name, values_found in entry.items():
        if name != "dn":
            values += len(values_found)
            characters += sum(map(len, values_found))
print(json.dumps({
    "entries": entries, "values": values, "bytes": characters, "seconds": time.monotonic() - connected,
    "processor": time.process_time() - processor, "first_page": first_page - connected, "connect": connected - begun}))
