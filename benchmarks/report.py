"""Tables of a result: as text for the terminal, and as docs/performance.md with its plots."""
import json
import sys
import textwrap

import entries
import measure
import plots
import sections


# The columns that aren't numbers.
WORDS = ("call", "client", "connection", "server", "goal", "")


class Table:
    def __init__(self, title, head, rows):
        self.title, self.head, self.rows = title, head, rows

    def as_text(self):
        widths = [max(len(row[i]) for row in [self.head, *self.rows]) for i in range(len(self.head))]

        def line(row):
            cells = (cell.ljust(width) if head in WORDS else cell.rjust(width)
                     for cell, head, width in zip(row, self.head, widths))
            return "  ".join(cells).rstrip()
        return "\n".join([f"\n{self.title}", line(self.head), *map(line, self.rows)])

    def as_markdown(self):
        def line(row):
            return "| " + " | ".join(row) + " |"
        rule = "|" + "".join("---|" if head in WORDS else "---:|" for head in self.head)
        return "\n".join([f"**{self.title}**", "", line(self.head), rule, *map(line, self.rows), ""])


def as_text(tables):
    return "\n".join(table.as_text() for table in tables)


def number(value, digits):
    return f"{value:,.{digits}f}"


def milliseconds(seconds):
    return number(seconds * 1000, 1)


def ratio(row, name):
    return number(row["ratios"][name], 2)


def mebibytes(row):
    return number(row["peak_kib"] / 1024, 1)


def optional(row, name, words):
    return words(row[name]) if name in row else "—"


def table_of_set(part, rows, missing):
    lines = [[name, milliseconds(row["seconds"]), ratio(row, "seconds"),
              milliseconds(row["processor"]), ratio(row, "processor"),
              optional(row, "first_page", milliseconds), mebibytes(row)] for name, row in rows.items()]
    lines += [[f"{name}: not installed ({package})", *["—"] * 6] for name, package in missing.items()]
    return Table(entries.in_words(part), ["client", "ms", "ratio", "processor ms", "ratio", "first page ms", "peak MiB"], lines)


def client_alone(section):
    return [table_of_set(part, rows, section.get("missing", {})) for part, rows in section["sets"].items()]


slapd = client_alone


def counts(section):
    return [Table(f"for one more {words}", ["client", "instructions", "allocations", "system calls"],
                  [[client, number(each["instructions"][client], 0), number(each["allocations"][client], 1),
                    number(each["system_calls"][client], 2)] for client in each["instructions"]])
            for kind, words in (("users", "user"), ("groups", "group of 50")) for each in [section[kind]]]


def profile(section):
    return [Table(f"where the instructions go, for one more {words}", ["call", *each],
                  [[call, *(number(client[call], 0) for client in each.values())] for call in next(iter(each.values()))])
            for kind, words in (("users", "user"), ("groups", "group of 50")) for each in [section[kind]]]


def growth(section):
    return [Table("from 1,000 to 1,000,000 users",
                  ["client", "users", "ms", "ratio", "µs per user", "in the fastest run", "peak MiB"],
                  [[row["client"], number(row["size"], 0), milliseconds(row["seconds"]), ratio(row, "seconds"),
                    number(row["seconds"] / row["size"] * 1e6, 2), number(row["fastest"] / row["size"] * 1e6, 2),
                    mebibytes(row)]
                   for row in sorted(section, key=lambda row: (row["client"], row["size"]))])]


def page_sizes(section):
    return [Table("100,000 users in pages of different sizes",
                  ["client", "page size", "ms", "ratio", "first page ms", "peak MiB"],
                  [[row["client"], number(row["page_size"], 0), milliseconds(row["seconds"]),
                    ratio(row, "seconds"), milliseconds(row["first_page"]), mebibytes(row)] for row in section])]


def connections(section):
    return [Table("users from slapd, by kind of connection",
                  ["connection", "client", "ms", "ratio", "processor ms", "ratio", "connect ms", "connect to first user ms"],
                  [[row["connection"], row["client"], milliseconds(row["seconds"]),
                    ratio(row, "seconds"), milliseconds(row["processor"]), ratio(row, "processor"),
                    milliseconds(row["connect"]), milliseconds(row["connect"] + row["first_page"])] for row in section])]


def managers(section):
    return [Table("several managers in one process, each reading all users",
                  ["server", "managers", "ms", "users per second", "processor ms", "peak MiB"],
                  [[row["server"], str(row["managers"]), milliseconds(row["seconds"]),
                    number(row["entries"] / row["seconds"], 0), milliseconds(row["processor"]), mebibytes(row)]
                   for row in section])]


def goals(section):
    return [Table("Goals", ["goal", "measured", "at most", ""],
                  [[each["goal"], number(each["value"], 2), number(each["limit"], 2), "met" if each["met"] else "missed"]
                   for each in section])] if section else []


def tables_of(name, result):
    return globals()[name](result[name])


# What the page says of each section, before its tables.
HEADINGS = {
    "client_alone": ("The client alone", """\
slapd's answers were recorded once and are played back, so the server takes next to no time. *raw loop* is the shortest
loop over libldap that reads every value of a paged search; *read-ahead* is the same with libldap's own read-ahead
buffer. *one arena* is the library with `GLIBC_TUNABLES=glibc.malloc.arena_max=1`. The ratio is the client's figure over that of the raw loop without read-ahead in the same run: below 1 the client
is faster. *streaming* reads each page's records and drops them; *collecting* keeps all of them. The processor time is
that of the whole process during the search, the peak memory that of the whole process. A ratio is the median of the rounds'. For `ldapsearch`, which can only
be timed as a process, start and connecting are included."""),
    "counts": ("What an entry costs", """\
Counted, not timed: the difference between a long and a short list, divided by the difference in entries. Instructions
are Callgrind's, without the kernel's; allocations are calls of `malloc` and its relatives; system calls are strace's."""),
    "profile": ("Where the instructions go", """\
Counted likewise: the instructions within each call of the client library, with all that it calls, and in making texts of
bytes. The raw loop reads the attributes that an entry has, the library those that were asked for, also one that the entry
lacks. Between libldap and the socket the library has layers of its own, whose work is part of `ldap_result`. Under
*all else* are the records, and the end of the texts."""),
    "growth": ("Long lists", """\
Streaming, played back. Time for an entry and memory should not depend on how many there are. Only a client that takes
more than a minute had one turn here."""),
    "page_sizes": ("Page sizes", "Streaming, played back; the ratio is to the raw loop with the same page size."),
    "slapd": ("From slapd", "The same sets from a real server on the same machine, whose work is part of the time."),
    "connections": ("Plain, StartTLS, ldaps", """\
From slapd. The ratio is to the raw loop over the same kind of connection. Connecting is everything before the search:
for the library it includes finding out which kind of directory it is."""),
    "managers": ("Several managers", "Each manager has a connection and a thread of its own."),
    "goals": ("Goals", """\
What the library is meant to keep to, judged by the figures above. For each entry it makes the same calls of the client
library as the raw loop, so that it can't become faster than that with read-ahead. What it adds is a text for each value,
and the record that has them: see where the instructions go. A search runs in a thread of its own, and glibc gives memory
to such a thread by 4 KiB a system call. That costs most where one answer is large, as with large groups, so that a client
that reads in the process's main thread can be faster there; and on the first page of a search, so that an entry of a short
list costs more than one of a long list. A host that
reads those often gives all threads one arena, as in the row of that name, or takes an allocator that grows in larger
steps."""),
}


def introduction(result):
    machine, versions = result["environment"]["machine"], result["environment"]["versions"]
    return f"""\
# Performance

What it costs to read users and groups, beside a plain loop over libldap and other clients. `./dev bench` measures,
`./dev bench --docs` writes this page; every figure on it comes from one run.

Measured on {result['environment']['date']}, commit {result['environment']['commit']}, on {machine['processors']} processors
({machine['processor']}), {machine['memory']} of memory, {machine['system']}, kernel {machine['kernel']}; {', '.join(f'{name} {version}' for name, version in versions.items())}.

The clients took turns, {result['rounds']} rounds of all of them, and the medians count. A short run was repeated within its
turn; a client that takes more than {measure.SLOW_SECONDS} seconds had one turn. All asked for the same attributes in pages of {sections.PAGE_SIZE:,}, unless said otherwise, and each run
was checked: a client that didn't read every entry and every value would have stopped the benchmark. Client and server
shared the machine. Compare ratios rather than times: those say more about the machine.
"""


def wrapped(text):
    """Each paragraph in lines of the width that the other pages have."""
    return "\n\n".join(textwrap.fill(paragraph, 120, break_long_words=False, break_on_hyphens=False)
                       for paragraph in text.split("\n\n"))


def write_page(source, folder):
    if not source.exists():
        sys.exit("there is no result of a standard run: ./dev bench makes one")
    result = json.loads(source.read_text())
    images = folder / "performance"
    images.mkdir(exist_ok=True)
    parts = [wrapped(introduction(result)) + "\n"]
    for name, (heading, words) in HEADINGS.items():
        parts.append(f"## {heading}\n\n{wrapped(words)}\n")
        for image, description, text in plots.of_section(name, result):
            (images / f"{image}.svg").write_text(text)
            parts.append(f"![{description}](performance/{image}.svg)\n")
        parts += [table.as_markdown() for table in tables_of(name, result)]
    page = folder / "performance.md"
    page.write_text("\n".join(parts))
    print(f"{page} and {images} are written.")
