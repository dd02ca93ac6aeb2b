"""What the library is to cost, and whether it does. A figure that the run has not measured is not judged."""
import contextlib

import entries
import sections

MEGABYTE = 1e6


def of_set(result, part, client):
    return result["client_alone"]["sets"][part.name][client]


def ratio(part, client, figure):
    return lambda result: of_set(result, part, client)["ratios"][figure]


def ratios():
    users, groups, group = entries.Scale.standard.compared()
    for words, part, client, limit in (
            ("users, streaming", users, "tavo streaming", 0.5), ("users, collecting", users, "tavo collecting", 0.75),
            ("2,000 groups of 50, streaming", groups, "tavo streaming", 1.3),
            ("2,000 groups of 50, collecting", groups, "tavo collecting", 1.6),
            ("one group of 100,000, streaming", group, "tavo streaming", 1.3)):
        yield f"{words}: time, ratio to the raw loop", ratio(part, client, "seconds"), limit
        yield f"{words}: processor, ratio to the raw loop", ratio(part, client, "processor"), limit


def own_client(name):
    return name.startswith(("tavo", "raw loop"))


def fastest_peer(part):
    def judged(result):
        rows = result["client_alone"]["sets"][part.name]
        fastest = min(row["seconds"] for name, row in rows.items() if not own_client(name))
        return rows["tavo streaming"]["seconds"] / fastest
    return judged


def allocations(result):
    counted = result["counts"]["users"]["allocations"]
    return counted["tavo streaming"] - counted[sections.RAW]


def growth_rows(result):
    return {row["size"]: row for row in result["growth"] if row["client"] == "tavo streaming"}


def peak(result, size):
    return growth_rows(result)[size]["peak_kib"] * 1024 / MEGABYTE


def growth_of_time(result):
    each = [row["fastest"] / size for size, row in growth_rows(result).items()]
    return max(each) / min(each)


def all_goals():
    yield from ratios()
    for part in entries.Scale.standard.compared():
        yield f"{entries.in_words(part.name)}, streaming: time, ratio to the fastest other client", fastest_peer(part), 1
    yield "allocations per user beyond the raw loop's", allocations, 8
    yield "peak memory with 1,000,000 users, streaming, MB", lambda result: peak(result, 1000000), 20
    yield ("its difference from that with 10,000 users, MB",
           lambda result: abs(peak(result, 1000000) - peak(result, 10000)), 2)
    yield "time per user in the fastest runs, the longest of 1,000 to 1,000,000 users over the shortest", growth_of_time, 1.1


def judge(result):
    judged = []
    for name, value_of, limit in all_goals():
        # A section or a client may not have been measured.
        with contextlib.suppress(KeyError, ValueError):
            value = value_of(result)
            judged.append({"goal": name, "value": value, "limit": limit, "met": value <= limit})
    return judged
