"""docs/performance.md's tables, between their markers, and the plots beside it."""

from figures import number, order, ratios, with_spread
from svg_plot import plot

CURVES = {
    "sessions": ("sessions that report in turns", "sessions"),
    "filters": ("filters of the storebag", "filters"),
    "keys": ("keys of a payload", "keys"),
    "storebag": ("storebag, in KB of other clients' entries", "KB"),
    "hierarchy": ("sessions of the hierarchy", "sessions"),
}


def markdown(head, rows):
    return "\n".join(f"| {' | '.join(row)} |" for row in [head, ["---"] * len(head), *rows])


def throughput_table(rounds):
    head = ["Path", "CPU µs/event", "of it zlib, µs", "events/s", "peak RSS MiB"]
    rows = [[row.split("/")[1], *(rounds.text(row, figure) for figure in
                                  ("cpu_us", "zlib_us", "events_per_s", "peak_rss_mib"))]
            for row in rounds.rows if row.split("/")[0] in ("throughput", "peers")]
    return markdown(head, rows)


def peers_table(rounds):
    rows = []
    for own, peer in (("pipelined-50", "syslog-ng-50"), ("pipelined-50", "syslog-ng-50-text"),
                      ("pipelined-500", "syslog-ng-500")):
        found = ratios(rounds.values(f"throughput/{own}", "cpu_us"), rounds.values(f"peers/{peer}", "cpu_us"))
        if found:
            rows.append([own, peer, with_spread(found)])
    return markdown(["Ours", "Peer", "events per CPU second, ours / the peer's"], rows)


def fairness_table(rounds):
    rows = []
    for row in ("throughput/eight-500", "throughput/eight-500-flood"):
        found = ratios(rounds.values("throughput/pipelined-500", "events_per_s"), rounds.values(row, "events_per_s"))
        if found:
            rows.append([row.split("/")[1], with_spread(found), rounds.text(row, "least_share_percent"),
                         rounds.text(row, "largest_share_percent")])
    return markdown(["Eight clients", "events/s, against one client", "least share, % of the fair one",
                     "largest share, %"], rows)


def latency_table(rounds):
    rows = [[name, *(rounds.text(row, prefix + figure) for figure in ("p50_us", "p99_us", "p99.9_us", "max_us"))]
            for name, row, prefix in (("answer, 10,000 events/s", "latency/rate-10000", ""),
                                      ("the client's own delay in sending", "latency/rate-10000", "sent_late_"),
                                      ("answer, awaited one by one", "throughput/awaited-500", ""))
            if row in rounds.rows]
    return markdown(["µs", "p50", "p99", "p99.9", "max"], rows)


def idle_table(rounds):
    names = {"anonymous_kib": "anonymous memory, KiB", "resident_kib": "resident memory, KiB", "threads": "threads",
             "wakeups": "wake-ups in 20 s", "start_ms": "exec to first connection, ms"}
    return markdown(["Idle", ""], [[text, rounds.text("idle/idle", figure)] for figure, text in names.items()])


def sessions_table(rounds):
    rows = [[row.split("/")[1], *(rounds.text(row, figure) for figure in
                                  ("anonymous_kib", "kib_per_session", "threads", "descriptors", "wakeups", "open_us"))]
            for row in rounds.rows if row.startswith("sessions/")]
    return markdown(["Sessions", "anonymous KiB", "KiB per session", "threads", "descriptors", "wake-ups in 5 s",
                     "CPU µs to open one"], rows)


def points_of(rounds, curve, figure):
    """(value, median, smallest, largest) in the order of the values."""
    found = []
    for row in rounds.rows:
        if row.startswith(f"curves/{curve}-"):
            values = rounds.values(row, figure)
            found.append((int(row.rpartition("-")[2]), rounds.median(row, figure), min(values), max(values)))
    return sorted(found)


def order_text(points):
    exponent = order([(x, y) for x, y, *_ in points])
    return "flat" if exponent == 0 else f"n^{exponent:.1f}"


def curves_table(rounds):
    rows = []
    for curve, (text, unit) in CURVES.items():
        for figure, what in (("cpu_us", "an event"), ("open_us", "opening a session")):
            points = points_of(rounds, curve, figure)
            if len(points) < 2 or (figure == "open_us" and curve in ("keys",)):
                continue
            costs = ", ".join(f"{x:,}: {number(y)}" for x, y, *_ in points)
            rows.append([text, what, costs, order_text(points)])
    plots = " ".join(f"![{curve}](plots/{curve}.svg)" for curve in CURVES if points_of(rounds, curve, "cpu_us"))
    return markdown(["Against", "Cost of", "CPU µs, by number", "grows as"], rows) + (f"\n\n{plots}" if plots else "")


def machine(rounds):
    about = rounds.about
    return (f"`{about.get('command', 'scripts/bench')}` of {about.get('date')}, release build of {about.get('commit')}, "
            f"{about.get('cores')} cores shared by daemon, clients and server, load {about.get('load')} at the start. "
            f"Medians of {rounds.count()} rounds, with the smallest and the largest.")


SECTIONS = {"machine": machine, "throughput": throughput_table, "peers": peers_table, "fairness": fairness_table,
            "latency": latency_table, "idle": idle_table, "sessions": sessions_table, "curves": curves_table}


def between_markers(text, name, content):
    """`text` with `content` between <!-- NAME --> and <!-- end of NAME -->."""
    begin, end = f"<!-- {name} -->\n", f"\n<!-- end of {name} -->"
    before, found, rest = text.partition(begin)
    _, found_end, after = rest.partition(end)
    if not found or not found_end:
        raise SystemExit(f"bench: docs/performance.md has no place for {name}")
    return before + begin + content + end + after


def write_page(root, rounds):
    page = root / "docs" / "performance.md"
    text = page.read_text()
    for name, section in SECTIONS.items():
        text = between_markers(text, name, section(rounds))
    page.write_text(text)
    folder = root / "docs" / "plots"
    folder.mkdir(exist_ok=True)
    for curve, (title, unit) in CURVES.items():
        points = points_of(rounds, curve, "cpu_us")
        if points:
            (folder / f"{curve}.svg").write_text(plot(f"CPU of an event against {title}", unit, "µs", points))
