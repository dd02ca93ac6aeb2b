#!/usr/bin/env python3
"""Writes the seeds that take BER to write into corpus/page_loop and corpus/session; the others are plain text."""

import pathlib

CORPUS = pathlib.Path(__file__).parent / "corpus"
PAGED_RESULTS = b"1.2.840.113556.1.4.319"
NOTICE_OF_DISCONNECTION = b"1.3.6.1.4.1.1466.20036"

# The bits of the first byte of an input of both targets.
RAW, SINGLE_BYTES = 1, 2
# Of page_loop; the second byte is the page size less one.
ACTIVE_DIRECTORY, NAMES_ATTRIBUTES, USERS, GROUPS = 4, 8, 16, 32
# Of session; the second byte means nothing.
START_TLS, ANONYMOUS, VENDOR_FIRST = 4, 8, 16


def tlv(tag, *content):
    body = b"".join(content)
    size = len(body)
    if size < 0x80:
        return bytes([tag, size]) + body
    length = size.to_bytes((size.bit_length() + 7) // 8, "big")
    return bytes([tag, 0x80 | len(length)]) + length + body


def integer(number, tag=0x02):
    return tlv(tag, number.to_bytes(number.bit_length() // 8 + 1, "big"))


def text(value, tag=0x04):
    return tlv(tag, value)


def message(operation, *controls, number=1):
    return tlv(0x30, integer(number), operation, *([tlv(0xA0, *controls)] if controls else []))


def entry(dn, **attributes):
    described = [
        tlv(0x30, text(name.encode()), tlv(0x31, *[text(value) for value in values]))
        for name, values in attributes.items()
    ]
    return message(tlv(0x64, text(dn), tlv(0x30, *described)))


def result(tag, code=0, matched=b"", diagnostic=b"", *more):
    return tlv(tag, integer(code, 0x0A), text(matched), text(diagnostic), *more)


def done(*controls, code=0, diagnostic=b""):
    return message(result(0x65, code, b"", diagnostic), *controls)


def control(oid, value=None):
    return tlv(0x30, text(oid), *([] if value is None else [text(value)]))


def page(cookie, estimate=0):
    return control(PAGED_RESULTS, tlv(0x30, integer(estimate), text(cookie)))


def reference(*urls):
    return message(tlv(0x73, *[text(url) for url in urls]))


def person(name):
    return entry(
        b"cn=%b,dc=x" % name, cn=[name], mail=[b" %b@X.test " % name], uid=[name], displayName=[b"P. " + name]
    )


def team(name, *members):
    return entry(b"cn=%b,ou=teams,dc=x" % name, member=list(members))


def write(target, name, first, second, *messages):
    folder = CORPUS / target
    folder.mkdir(parents=True, exist_ok=True)
    (folder / name).write_bytes(bytes([first, second]) + b"".join(messages))


def write_page_loop():
    a, b, c = person(b"a"), person(b"b"), person(b"c")
    two_pages = [a, b, done(page(b"more", 3)), c, done(page(b""))]
    write("page_loop", "users-in-two-pages", USERS, 1, *two_pages)
    write("page_loop", "entries-in-two-pages", NAMES_ATTRIBUTES, 1, *two_pages)
    write("page_loop", "entries-byte-by-byte", SINGLE_BYTES | ACTIVE_DIRECTORY, 1, *two_pages)
    write("page_loop", "groups", GROUPS, 1, team(b"t", b"cn=a,dc=x", b"cn=b,dc=x"), team(b"u"), done(page(b"")))
    write("page_loop", "group-without-a-name", GROUPS, 1, entry(b"no DN", member=[b"cn=a"]), done())
    write("page_loop", "many-pages", 0, 0, *[a, done(page(b"\0\1\2"))] * 6, done(page(b"")))
    write("page_loop", "short-page-live-cookie", USERS, 4, a, done(page(b"more")))
    write("page_loop", "full-page-no-control", 0, 0, a, done())
    write("page_loop", "control-without-value", 0, 0, a, done(control(PAGED_RESULTS)))
    write("page_loop", "control-with-empty-value", 0, 0, a, done(control(PAGED_RESULTS, b"")))
    write("page_loop", "control-with-no-sequence", 0, 0, a, done(control(PAGED_RESULTS, b"\x30\x03\x02\x01")))
    write("page_loop", "two-page-controls", 0, 0, a, done(page(b""), page(b"x")))
    write("page_loop", "other-control", 0, 0, a, done(control(b"1.2.3", b"x"), page(b"x")))
    write("page_loop", "references", 0, 1, reference(b"ldap://o.test/dc=y"), a, reference(b"", b"\0"), done())
    write("page_loop", "bytes-that-are-no-text", 0, 2, entry(b"cn=\xff,dc=x", cn=[b"\0", b"\xed\xa0\x80", b""]), done())
    write("page_loop", "attribute-twice", NAMES_ATTRIBUTES, 2, entry(b"cn=a", cn=[], CN=[b"x"], uid=[]), done())
    write("page_loop", "entry-without-attributes", 0, 2, message(tlv(0x64, text(b"cn=a"), tlv(0x30))), done())
    write("page_loop", "entry-that-is-no-entry", 0, 0, message(tlv(0x64, b"no BER")), a, done(page(b"m")))
    write("page_loop", "intermediate", 0, 2, message(tlv(0x79, text(b"1.2.3", 0x80))), a, done())
    for name, code in [("limit", 4), ("none", 32), ("referral", 10), ("busy", 51), ("bad-bind", 49), ("odd", 4096)]:
        write("page_loop", "code-" + name, 0, 1, a, done(code=code, diagnostic=b"why \xff"))
    notice = result(0x78, 52, b"", b"", text(NOTICE_OF_DISCONNECTION, 0x8A))
    write("page_loop", "notice-of-disconnection", 0, 0, a, done(page(b"m")), message(notice, number=0), a)
    nameless = message(result(0x78, 52, b"", b"", text(b"", 0x8A)), number=0)
    write("page_loop", "notice-with-an-empty-name", 0, 0, a, nameless, done())
    write("page_loop", "notice-with-an-empty-name-in-single-bytes", SINGLE_BYTES | RAW, 0, a, nameless, done())
    write("session", "notice-with-an-empty-name", VENDOR_FIRST, 0, nameless, done())
    write("page_loop", "raw", RAW | NAMES_ATTRIBUTES, 1, *two_pages)
    write("page_loop", "raw-huge", RAW, 1, b"\x30\x84\x7f\xff\xff\xff\x02\x01\x01\x65")
    write("page_loop", "raw-indefinite", RAW, 1, b"\x30\x80\x02\x01\x01\x65\x80")
    write("page_loop", "cut", 0, 0, a, done(page(b"m"))[:-3])


def write_session():
    bound = message(result(0x61))
    me = message(result(0x78, 0, b"", b"", text(b"dn:cn=a", 0x8B)))
    nobody = message(result(0x78, 0, b"", b"", text(b"", 0x8B)))
    refused = message(result(0x61, 49, b"", b"no"))
    done_ = done()
    write("session", "openldap", 0, 0, bound, me, entry(b"", objectClass=[b"top"]), done_)
    write("session", "active-directory", 0, 0, bound, me, entry(b"", forestFunctionality=[b"7"]), done_)
    write("session", "vendor-first", VENDOR_FIRST, 0, entry(b"", forestFunctionality=[b""]), done_, bound, me, done_)
    write("session", "anonymous", ANONYMOUS, 0, bound, nobody, done_)
    write("session", "no-identity", ANONYMOUS, 0, bound, message(result(0x78)), done_)
    write("session", "identity-of-odd-bytes", 0, 0, bound, message(result(0x78, 0, b"", b"", text(b"u:\xff\0", 0x8B))))
    write("session", "refused", 0, 0, refused, me, done(code=50))
    write("session", "sasl-credentials", 0, 0, message(result(0x61, 14, b"", b"", text(b"x", 0x87))), me, done_)
    write("session", "referral", 0, 0, message(result(0x61, 10, b"", b"", tlv(0xA3, text(b"ldap://o.test")))), me)
    write("session", "start-tls-refused", START_TLS, 0, message(result(0x78, 52, b"", b"no TLS")), bound, me)
    write("session", "start-tls-unsupported", START_TLS, 0, message(result(0x78, 2)), bound, me, done_)
    hello = b"\x02\0\0\x2a\x03\x03" + bytes(32) + b"\0\x13\x01\0\0\x02\0\0"
    write("session", "start-tls-hello", START_TLS, 0, message(result(0x78)), b"\x16\x03\x03\0\x2e" + hello)
    write("session", "start-tls-alert", START_TLS, 0, message(result(0x78)), b"\x15\x03\x03\0\2\2\x28")
    write("session", "start-tls-no-tls", START_TLS, 0, message(result(0x78)), b"HTTP/1.1 400 no\r\n\r\n")
    write("session", "byte-by-byte", SINGLE_BYTES, 0, bound, me, done_)
    write("session", "other-answer", 0, 0, me, bound, done_)
    raw = b"".join(message(operation, number=number) for number, operation in enumerate(
        [result(0x61), result(0x78, 0, b"", b"", text(b"u:A\\b", 0x8B)), result(0x65)], 1))
    write("session", "raw", RAW, 0, raw)
    write("session", "undecodable-twice", RAW | VENDOR_FIRST, 0, b"\x30\x05\x02\x01\x01\x65\x84" * 2)
    write("session", "silent", 0, 0)
    nameless = text(b"", 0x8A)
    write("session", "identity-with-an-empty-name", 0, 0, bound, message(result(0x78, 0, b"", b"", nameless)))
    write("session", "start-tls-with-an-empty-name", START_TLS, 0, message(result(0x78, 0, b"", b"", nameless)))
    write("session", "name-behind-the-operation", 0, 0, message(result(0x78) + nameless, number=0), bound)
    write("session", "name-behind-a-nul", 0, 0, message(result(0x78, 0, b"a\0", b"", nameless), number=0), bound)
    long_code = tlv(0x78, tlv(0x0A, bytes(5)), nameless, text(b""))
    write("session", "name-behind-a-long-code", 0, 0, message(long_code, number=0), bound)


write_page_loop()
write_session()
