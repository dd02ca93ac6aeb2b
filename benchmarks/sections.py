"""What is measured, a function for each section of the result."""
import contextlib

import count
import directory
import entries
import measure
import peers

RAW = "raw loop"
READ_AHEAD = "raw loop, read-ahead"
# glibc gives each thread memory of its own, which grows by 4 KiB a system call.
ONE_ARENA = {"GLIBC_TUNABLES": "glibc.malloc.arena_max=1"}
PAGE_SIZE = 1000
PAGE_SIZES = (100, 500, 1000, 5000)
MANAGERS = (1, 2, 4)

# In this order. A name is that of the function below.
STANDARD = ("client_alone", "counts", "profile", "growth", "page_sizes", "slapd", "connections", "managers")
QUICK = ("client_alone", "counts", "connections")


class Bench:
    """The programs, the directories, and the recordings of what they answer."""

    def __init__(self, build, scale, rounds):
        self.build, self.scale, self.rounds = build, scale, rounds
        self.programs = build / "benchmarks"
        self.program = self.programs / "tavo_bench_measure"
        self.directories = {each: directory.Directory(build / f"directory-{each.name}", each.sets())
                            for each in entries.Scale}

    def directory_of(self, part):
        return next(each for each in self.directories.values() if part.name in [known.name for known in each.sets])

    def raw_loop(self, name=RAW, *options, **more):
        return measure.Client(name, [self.programs / "tavo_bench_raw_loop"], options, **more)

    def yardsticks(self, *options, **more):
        return [self.raw_loop(RAW, *options, **more), self.raw_loop(READ_AHEAD, "--read-ahead", *options, **more)]

    def fetch(self, mode, *options, name=None, **more):
        return measure.Client(name or f"tavo {mode}", [self.programs / "tavo_bench_fetch"], [mode, *options], **more)

    def ours(self, part):
        return [self.fetch(mode, name=f"tavo {words}") for mode, words in (
            (f"{part.kind}-streaming", "streaming"), (f"{part.kind}-collecting", "collecting"),
            ("search", "search"), ("simple-search", "simpleSearch"))]

    def in_one_arena(self, part):
        return self.fetch(f"{part.kind}-streaming", name="tavo streaming, one arena", environment=ONE_ARENA)

    def counted_clients(self, part):
        """Callgrind is slow, so a quick run has it count the two that matter most."""
        ours = self.ours(part)
        return [self.raw_loop(), ours[0]] if self.scale is entries.Scale.quick else [*self.yardsticks(), *ours]

    def recording(self, part, page_size):
        """The file with what slapd has answered about a set, made when it is first needed."""
        source = self.directory_of(part)
        path = self.build / "recordings" / f"{part.name}-by-{page_size}.{source.stamp()[:16]}"
        if not path.exists():
            path.parent.mkdir(parents=True, exist_ok=True)
            unfinished = path.with_suffix(".unfinished")
            self.record(source, part, page_size, unfinished)
            unfinished.rename(path)
        return path

    def record(self, source, part, page_size, path):
        # All of a large directory at once is nothing that anybody asks for.
        modes = [f"{part.kind}-streaming"] + ["simple-search"] * (part.entries <= 100000 and page_size == PAGE_SIZE)
        with source.slapd() as (url, _), directory.replay(
                self.programs / "tavo_replay", "record", path, url.rsplit(":", 1)[1]) as proxy:
            for mode in modes:
                measure.run(self.program, self.fetch(mode), proxy, part, page_size)

    @contextlib.contextmanager
    def replayed(self, *parts, page_size=PAGE_SIZE):
        """The URL of a server that plays back what was recorded of these sets."""
        recordings = [self.recording(part, page_size) for part in parts]
        with directory.replay(self.programs / "tavo_replay", "serve", *recordings) as url:
            yield url

    def task(self, client, url, part, page_size=PAGE_SIZE):
        return lambda: measure.run(self.program, client, url, part, page_size)

    def compare(self, clients, url, part, page_size=PAGE_SIZE):
        return measure.interleaved(
            {client.name: self.task(client, url, part, page_size) for client in clients}, self.rounds, lambda _: RAW)


def client_alone(bench):
    """All clients, on the replayed answers about each set: the server takes next to no time."""
    others = peers.installed(bench.build) if bench.scale is entries.Scale.standard else []
    rows = {}
    for part in bench.scale.compared():
        with bench.replayed(part) as url:
            ours = [*bench.ours(part), bench.in_one_arena(part)]
            rows[part.name] = bench.compare([*bench.yardsticks(), *ours, *others], url, part)
    return {"sets": rows, "missing": peers.missing()}


def counted_per_entry(bench, counter, clients, small, large):
    with bench.replayed(small, large) as url:
        return {client.name: measure.per_entry(counter(client, url, small, PAGE_SIZE),
                                               counter(client, url, large, PAGE_SIZE), small.entries, large.entries)
                for client in clients}


def counts(bench):
    """Instructions, allocations and system calls of each client, for one user and for one group of 50."""
    counters = {"instructions": count.instructions, "system_calls": count.system_calls,
                "allocations": count.allocations(bench.programs / "libtavo_bench_allocations.so")}
    result = {}
    for kind, (small, large) in entries.COUNTED.items():
        clients = bench.counted_clients(large)
        result[kind] = {name: counted_per_entry(bench, counter, clients, small, large)
                        for name, counter in counters.items()}
    return result


def profile(bench):
    """The instructions of one user, and of one group of 50, in each call that the client library is asked for."""
    def of_kind(kind, small, large):
        clients = [bench.raw_loop(READ_AHEAD, "--read-ahead"), bench.fetch(f"{kind}-streaming", name="tavo streaming")]
        with bench.replayed(small, large) as url:
            runs = {client.name: [count.profile(client, url, part, PAGE_SIZE) for part in (small, large)]
                    for client in clients}
        return {client: {call: measure.per_entry(few[call], many[call], small.entries, large.entries) for call in few}
                for client, (few, many) in runs.items()}
    return {kind: of_kind(kind, *parts) for kind, parts in entries.COUNTED.items()}


def instructions_of_fetches(bench):
    """Those for one entry of the two streaming fetches."""
    return {kind: counted_per_entry(bench, count.instructions, [bench.fetch(f"{kind}-streaming", name=kind)], *parts)[kind]
            for kind, parts in entries.COUNTED.items()}


def growth(bench):
    """Whether an entry of a long list costs more than one of a short list."""
    tasks = {}
    with contextlib.ExitStack() as stack:
        for part in entries.GROWING:
            url = stack.enter_context(bench.replayed(part))
            for client in (bench.raw_loop(), bench.fetch("users-streaming", name="tavo streaming")):
                tasks[client.name, part.entries] = bench.task(client, url, part)
        rows = measure.interleaved(tasks, bench.rounds, lambda key: (RAW, key[1]), slow=60)
    return [{"client": client, "size": size, **row} for (client, size), row in rows.items()]


def page_sizes(bench):
    part = entries.LARGE_USERS
    tasks = {}
    with contextlib.ExitStack() as stack:
        for size in PAGE_SIZES:
            url = stack.enter_context(bench.replayed(part, page_size=size))
            for client in (*bench.yardsticks(), bench.fetch("users-streaming", name="tavo streaming")):
                tasks[client.name, size] = bench.task(client, url, part, size)
        rows = measure.interleaved(tasks, bench.rounds, lambda key: (RAW, key[1]))
    return [{"client": client, "page_size": size, **row} for (client, size), row in rows.items()]


def slapd(bench):
    """The same sets from a real server."""
    rows = {}
    for part in bench.scale.compared():
        with bench.directory_of(part).slapd() as (url, _):
            rows[part.name] = bench.compare([*bench.yardsticks(), *bench.ours(part)], url, part)
    return {"sets": rows}


def connections(bench):
    """Plain, StartTLS and ldaps, from a real server."""
    part = bench.scale.compared()[0]
    source = bench.directory_of(part)
    trust = {"environment": {"LDAPTLS_CACERT": str(source.folder / "ca.pem")}}
    tasks = {}
    with source.slapd() as (url, tls_url):
        for kind, server, option in (("plain", url, []), ("StartTLS", url, ["--start-tls"]), ("ldaps", tls_url, [])):
            for client in (*bench.yardsticks(*option, **trust),
                           bench.fetch("users-streaming", *option, name="tavo streaming", **trust)):
                tasks[kind, client.name] = bench.task(client, server, part)
        rows = measure.interleaved(tasks, bench.rounds, lambda key: (key[0], RAW))
    return [{"connection": kind, "client": client, **row} for (kind, client), row in rows.items()]


def managers(bench):
    """Several managers in one process, each of which reads all users at the same time."""
    part = bench.scale.compared()[0]
    tasks = {}
    with bench.replayed(part) as replay, bench.directory_of(part).slapd() as (slapd_url, _):
        for server, url in (("replayed", replay), ("slapd", slapd_url)):
            for number in MANAGERS:
                client = bench.fetch("users-streaming", "--managers", str(number), copies=number)
                tasks[server, number] = bench.task(client, url, part)
        rows = measure.interleaved(tasks, bench.rounds, lambda key: (key[0], 1))
    return [{"server": server, "managers": number, **row} for (server, number), row in rows.items()]
