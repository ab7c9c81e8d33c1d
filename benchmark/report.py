"""Writes performance.md and performance.svg from what measure.py has measured. Usage: report.py RESULT FOLDER"""

import json
import os
import statistics
import sys
from html import escape

OWN, RELAY, FLOOR, THREADS, CALLS = "TFTP", "TFTP with relay", "floor", "thread floor", "same calls"
PEERS = ("tftpd-hpa", "dnsmasq", "atftpd")
SINGLE_READS = ("512", "1428", "8192", "32768")
MIB, GIB = 1 << 20, 1 << 30


class Result:
    """The data of one run, and the figures that are drawn from it."""

    def __init__(self, data):
        self.data = data
        self.settings = list(data["settings"])
        self.servers = data["servers"]
        self.works = data["works"]
        self.peers = [peer for peer in PEERS if peer in self.servers]

    def lines(self, server, work, setting):
        return [line for line in self.data["measured"]
                if (line["server"], line["work"], line["setting"]) == (server, work, setting)]

    def speeds(self, server, work, setting):
        """MiB per second, or requests per second of the tiny files: one for each measurement."""
        return [(line["reads"] if work == "tiny" else line["bytes"] / MIB) / line["seconds"]
                for line in self.lines(server, work, setting)]

    def speed(self, server, work, setting):
        return statistics.median(self.speeds(server, work, setting))

    def ratio(self, server, reference, work, setting):
        return self.speed(server, work, setting) / self.speed(reference, work, setting)

    def ratio_in_pairs(self, server, reference, work, setting):
        """The median of the ratios of measurements from the same turn."""
        pairs = zip(self.speeds(server, work, setting), self.speeds(reference, work, setting))
        return statistics.median(own / other for own, other in pairs)

    def best_peer(self, work, setting):
        return max(self.peers, key=lambda peer: self.speed(peer, work, setting))

    def processor_seconds(self, server, work):
        return [line["seconds"] for line in self.data["processor_seconds"]
                if (line["server"], line["work"]) == (server, work)]

    def seconds_per_gib(self, server, work):
        return statistics.median(self.processor_seconds(server, work)) * GIB / self.data["image_bytes"]

    def first_reply(self, server, setting, place):
        return statistics.median(line["first_reply"][place] for line in self.lines(server, "tiny", setting))


# --- The targets ---------------------------------------------------------------------------------------------------


def targets(result):
    """Rows of: what, against what, the figure, the bound, whether it is an upper bound, the figure in pairs."""
    one_core = result.settings[0]
    rows = []

    def speed_row(work, server, against, bound, setting=one_core):
        if against:
            rows.append((f"{result.works[work]}, {setting}" + (", relay running" if server == RELAY else ""), against,
                         result.ratio(server, against, work, setting), bound, False,
                         result.ratio_in_pairs(server, against, work, setting)))

    for work in SINGLE_READS:
        if result.peers:
            speed_row(work, OWN, result.best_peer(work, one_core), 1.03)
    for work, bound in zip(SINGLE_READS, (0.92, 0.92, 0.88, 0.88)):
        speed_row(work, OWN, FLOOR, bound)
    for work in SINGLE_READS:
        speed_row(work, RELAY, OWN, 0.95)
    speed_row("clients", OWN, "atftpd" if "atftpd" in result.peers else None, 1.08)
    speed_row("clients", OWN, THREADS, 0.90)
    speed_row("tiny", OWN, "atftpd" if "atftpd" in result.peers else None, 1.6)
    speed_row("tiny", OWN, "dnsmasq" if "dnsmasq" in result.peers else None, 0.75)
    for setting in result.settings[1:]:
        for work in SINGLE_READS:
            if result.peers:
                speed_row(work, RELAY, result.best_peer(work, setting), 3, setting)
    if result.peers:
        for work in SINGLE_READS:
            least = min(result.peers, key=lambda peer: result.seconds_per_gib(peer, work))
            figure = result.seconds_per_gib(OWN, work) / result.seconds_per_gib(least, work)
            rows.append((f"processor seconds per GiB, block size {work}", least, figure, 1, True, None))
    return rows + absolute_targets(result)


def absolute_targets(result):
    many = result.data["many_transfers"]
    few, after = many["after_few"], many["after_many"]
    outside = [point["address_space_kib"] - point["heap_kib"] for point in (few, after)]
    since = f"after {many['many']:,} transfers, against {many['few']:,}"
    return [
        ("memory kept per finished transfer, KiB", "", many["kept_bytes"] / 1024, 2, True, None),
        (f"memory maps {since}", "", after["maps"] - few["maps"], 0, True, None),
        (f"address space but for the kept records {since}, KiB", "", outside[1] - outside[0], 0, True, None),
        ("resident memory idle, MiB", "", result.data["memory"][OWN]["idle_kib"] / 1024, 4, True, None),
        ("stripped program, KiB", "", result.data["program"]["stripped_bytes"] / 1024, 150, True, None),
    ]


def is_met(row):
    _, _, figure, bound, is_upper, _ = row
    return figure <= bound if is_upper else figure >= bound


# --- The document --------------------------------------------------------------------------------------------------


def table(header, rows):
    lines = ["| " + " | ".join(header) + " |", "|---" + "|--:" * (len(header) - 1) + "|"]
    return "\n".join(lines + ["| " + " | ".join(row) + " |" for row in rows]) + "\n"


def number(value):
    return f"{value:,.0f}" if abs(value) >= 100 else f"{value:.3g}"


def finer(value):
    return f"{value:.4g}"


def quartiles(values):
    return statistics.quantiles(values, n=4) if len(values) > 1 else values * 3


def with_spread(values):
    low, median, high = quartiles(values)
    return f"{number(median)} ±{(high - low) / median * 50:.0f} %"


def speed_tables(result):
    text = ""
    for setting in result.settings:
        rows = [[title + (", requests/s" if work == "tiny" else ", MiB/s")] +
                [with_spread(result.speeds(server, work, setting)) for server in result.servers]
                for work, title in result.works.items()]
        rows += [[f"tiny files, first reply, {name}, µs"] +
                 [number(result.first_reply(server, setting, place)) for server in result.servers]
                 for place, name in enumerate(("median", "99th percentile"))]
        text += f"\n### {setting.capitalize()}\n\n" + table([""] + result.servers, rows)
    return text


def target_table(result):
    rows = [[what, against, finer(figure), ("at most " if is_upper else "at least ") + number(bound),
             "met" if is_met(row) else "**missed**", finer(in_pairs) if in_pairs else ""]
            for row in targets(result) for what, against, figure, bound, is_upper, in_pairs in [row]]
    return table(["", "against", "figure", "target", "", "in pairs"], rows)


def floor_table(result):
    """How near the program comes to each floor, and how near the last floor comes to the others."""
    one_core = result.settings[0]
    pairs = ((OWN, FLOOR), (OWN, THREADS), (OWN, CALLS), (CALLS, FLOOR), (CALLS, THREADS))
    rows = [[title] + [f"{result.ratio_in_pairs(server, floor, work, one_core):.3f}" for server, floor in pairs]
            for work, title in result.works.items()]
    return table([""] + [f"{server} / {floor}" for server, floor in pairs], rows)


def cost_table(result):
    names = [OWN] + result.peers
    gib_per_image = result.data["image_bytes"] / GIB
    rows = [[f"processor seconds per GiB, block size {work}"] +
            [with_spread([seconds / gib_per_image for seconds in result.processor_seconds(server, work)])
             for server in names] for work in SINGLE_READS]
    # The children of tftpd-hpa, one for each request, leave no account behind.
    rows.append(["processor milliseconds per 1,000 requests of tiny files"] + [
        "not seen" if server == "tftpd-hpa" else with_spread(
            [seconds * 1e6 / result.data["tiny_files"] for seconds in result.processor_seconds(server, "tiny")])
        for server in names])
    memory = result.data["memory"]
    for field, title in (("idle_kib", "resident memory idle, MiB"),
                         ("open_kib", "resident memory with 64 transfers open, MiB")):
        rows.append([title] + [f"{memory[server][field] / 1024:.1f}" for server in names])
    return table([""] + names, rows)


def program_table(result):
    program, many = result.data["program"], result.data["many_transfers"]
    points = (many["after_few"], many["after_many"])
    rows = [
        ["stripped program", f"{program['stripped_bytes']:,} bytes"],
        ["from start to listening", with_spread(program["start_milliseconds"]) + " ms"],
        ["memory kept per finished transfer of a tiny file", f"{many['kept_bytes']:,.0f} bytes"],
    ]
    for point, count in zip(points, (many["few"], many["many"])):
        rows.append([f"after {count:,} transfers", f"{point['maps']} memory maps, address space "
                     f"{point['address_space_kib']:,} KiB, of which {point['heap_kib']:,} KiB hold the kept records"])
    for name, calls in sorted(result.data["calls_per_block"].items(), key=lambda item: -item[1]):
        rows.append([f"calls of `{name}` per block of 1428 bytes", f"{calls:.2f}"])
    return table(["", ""], rows)


def packet_table(result):
    rows = {}
    for line in result.data["packets"]:
        name, size = line["name"].rsplit("/", 1)
        rows.setdefault(name.replace("_", " "), {})[size] = f"{line['per_second'] / 1e6:,.2f}"
    sizes = ("512", "32768")
    return table(["millions per second"] + [f"capacity for {size} bytes of data" for size in sizes],
                 [[name] + [by_size[size] for size in sizes] for name, by_size in rows.items()])


def document(result):
    data, machine = result.data, result.data["machine"]
    missed = [row for row in targets(result) if not is_met(row)]
    cpus = "; ".join(f"{setting}: processor {cpus}" for setting, cpus in data["settings"].items())
    absent = [peer for peer in PEERS if peer not in result.servers]
    rounds = " and ".join(f"{data['rounds'][setting]} rounds on {setting}" for setting in data["settings"])
    most = f"up to {max(data['times'].values())}"
    repeats = sum(line["repeats"] for line in data["measured"])
    return f"""# Performance

Written by `scripts/benchmark` from one run on {machine['date']}: {machine['processor']}, {machine['cores']} cores, Linux
{machine['kernel']}, load {machine['load']:.1f} before the run and {machine['load_at_end']:.1f} at its end.{
" **A quick run: the figures say nothing.**" if data['quick'] else ""}{
" Not installed and left out: " + ", ".join(absent) + "." if absent else ""}

{len(targets(result)) - len(missed)} of {len(targets(result))} targets are met.

![Speed of every server as a ratio to the floor](performance.svg)

## How it is measured

- {rounds}; in each, all servers are started afresh, and for every work
  each is read from in turn, the others being idle. What is over soon is measured {most} times in a round. Figures are
  medians; ± is half the distance between the quartiles.
- Server and client share the same processors ({cpus}) and talk over
  an address of a link, as on a station. The client compares every byte. It had to repeat {repeats} packets in the whole run.
- One read is of {data['image_bytes'] // MIB} MiB. The 64 clients read 1 MiB each. There are {data['tiny_files']:,} tiny files, and the first
  reply is timed from the request.
- `floor` sends from memory, with one receive and one send per block, in one thread and on one socket: the limit of the
  machine. `thread floor` does the same with a socket and a thread for each read: the limit of the program's shape.
  `same calls` is a thread floor that opens and reads the file and waits for each ACK with a time-out, as the program
  does. For a block it makes all of the program's calls; at a request it binds no port, prints no line, masks no signals
  and keeps no record.
- `TFTP with relay` is the program with the relay, which polls, on a network that has the station's address. `TFTP` has
  no relay. Both broadcast their boot script once a second.
- tftpd-hpa, dnsmasq (`--edns-packet-max=65000`) and atftpd run with their own defaults, and without logging.
- Of the transfers after which memory is looked at, the first {data['many_transfers']['few']} come 64 at once, the rest one after another.
- Processor seconds are those of the server and its children from before the request to the last ACK.

## Targets

A figure of speed is the ratio of two medians, and that is what a target is held against. In pairs, it is the median of
the ratios of measurements from the same turn, which the machine's own changes of speed disturb less: a turn takes from
less than a second to some ten on one core, and longer on two.

{target_table(result)}
### The floors, on one core

In pairs. Where `same calls` itself is below a target, the calls alone are enough to miss it.

{floor_table(result)}
## Speed
{speed_tables(result)}
## Cost, on one core

{cost_table(result)}
## The program

{program_table(result)}
## Packets

{packet_table(result) if data['packets'] else "Not measured: libbenchmark-dev is not installed."}"""


# --- The plot ------------------------------------------------------------------------------------------------------

PANEL_WIDTH, LABEL_WIDTH, BAR_HEIGHT, GAP = 600, 118, 19, 26
COLOURS = {OWN: "#1259a8", RELAY: "#6aa5e3", THREADS: "#7d7d7d", CALLS: "#7d7d7d"}
PEER_COLOUR = "#c9c4b8"
HALO = 'stroke="white" stroke-width="4" paint-order="stroke" '  # keeps a text apart from what is behind it


def text_at(x, y, content, size=13, extra=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" font-size="{size}" {extra}>{escape(content)}</text>'


class Panel:
    """One work: for each setting a group of bars, each the ratio of a server's speed to the floor's."""

    def __init__(self, result, work, left, top):
        self.result, self.work, self.left, self.top = result, work, left, top
        self.shown = [server for server in (OWN, RELAY, CALLS, THREADS) + PEERS if server in result.servers]
        self.parts = []
        reach = max(self.ratios(server, setting)[2] for server in self.shown for setting in result.settings)
        self.scale = (PANEL_WIDTH - LABEL_WIDTH - 60) / max(reach, 1.15)

    def ratios(self, server, setting):
        """Median, lower and upper quartile, against the floor's median."""
        floor = self.result.speed(FLOOR, self.work, setting)
        low, median, high = quartiles(self.result.speeds(server, self.work, setting))
        return [value / floor for value in (median, low, high)]

    def bar(self, server, setting, y):
        start = self.left + LABEL_WIDTH
        median, low, high = (ratio * self.scale for ratio in self.ratios(server, setting))
        own = server in (OWN, RELAY)
        middle = y + BAR_HEIGHT / 2
        self.parts += [
            text_at(start - 8, middle + 4, server, 13,
                    'text-anchor="end"' + (' font-weight="bold"' if own else "")),
            f'<rect x="{start}" y="{y + 2}" width="{median:.1f}" height="{BAR_HEIGHT - 4}" '
            f'fill="{COLOURS.get(server, PEER_COLOUR)}"/>',
            f'<line x1="{start + low:.1f}" x2="{start + high:.1f}" y1="{middle}" y2="{middle}" stroke="#222"/>',
            text_at(start + max(median, high) + 6, middle + 4, f"{median / self.scale:.2f}", 13,
                    HALO + ('font-weight="bold"' if own else "")),
        ]

    def draw(self):
        self.parts.append(text_at(self.left, self.top + 14, self.result.works[self.work], 16, 'font-weight="bold"'))
        y = self.top + 24
        for setting in self.result.settings:
            self.parts.append(text_at(self.left, y + 14, setting, 13, 'font-style="italic"'))
            y += 20
            self.floor_line(y, y + len(self.shown) * BAR_HEIGHT)
            for server in self.shown:
                self.bar(server, setting, y)
                y += BAR_HEIGHT
        self.bottom = y
        return self.parts

    def floor_line(self, top, bottom):
        x = self.left + LABEL_WIDTH + self.scale
        self.parts.append(f'<line x1="{x:.1f}" x2="{x:.1f}" y1="{top - 3}" y2="{bottom + 3}" stroke="#c0392b" '
                          'stroke-width="1.5" stroke-dasharray="5 3"/>')
        self.parts.append(text_at(x, top - 6, "floor", 11, 'text-anchor="middle" fill="#c0392b"'))


def plot(result):
    head = 64
    parts, bottom = [], head
    for index, work in enumerate(result.works):
        if index % 2 == 0:
            top = bottom + (GAP if index else 0)
        panel = Panel(result, work, 24 + index % 2 * (PANEL_WIDTH + GAP), top)
        parts += panel.draw()
        bottom = max(bottom, panel.bottom) if index % 2 else panel.bottom
    width, height = 24 + 2 * PANEL_WIDTH + GAP + 10, bottom + 24
    title = [text_at(24, 28, "Speed as a ratio to the floor of the machine: longer is faster", 20, 'font-weight="bold"'),
             text_at(24, 49, "The floor sends from memory and does nothing else, in one thread. Thin lines: from the lower "
                     "to the upper quartile.", 13, 'fill="#555"')]
    return "\n".join([f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" '
                      f'font-family="DejaVu Sans, Verdana, sans-serif" fill="#222">',
                      f'<rect width="{width}" height="{height}" fill="white"/>'] + title + parts + ["</svg>\n"])


def main():
    with open(sys.argv[1]) as file:
        result = Result(json.load(file))
    for name, text in (("performance.md", document(result)), ("performance.svg", plot(result))):
        with open(os.path.join(sys.argv[2], name), "w") as file:
            file.write(text)
        print(f"wrote {os.path.join(sys.argv[2], name)}")
    for row in targets(result):
        what, against, figure, bound, is_upper, _ = row
        if not is_met(row):
            print(f"missed: {what}{' against ' + against if against else ''}: {finer(figure)}, "
                  f"{'at most' if is_upper else 'at least'} {number(bound)} is wanted")


main()
