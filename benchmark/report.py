"""Writes performance.md and performance.svg from what measure.py has measured. Usage: report.py RESULT FOLDER"""

import json
import math
import os
import statistics
import sys
import textwrap

import picture
import recorder
import targets
from elsewhere import BOUND, is_busy, percent
from targets import CALLS, FLOOR, GIB, MET, MIB, ONE_CORE, OWN, PEERS, SINGLE_READS, SPEED, THREADS


def table(header, rows):
    lines = ["| " + " | ".join(header) + " |", "|---" + "|--:" * (len(header) - 1) + "|"]
    return "\n".join(lines + ["| " + " | ".join(row) + " |" for row in rows]) + "\n"


def number(value):
    return f"{value:,.0f}" if abs(value) >= 100 else f"{value:.3g}"


def finer(value):
    return f"{value:.4g}"


def wrapped(text):
    return textwrap.fill(text, 120, break_on_hyphens=False)


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


def figure_of(row):
    if row.figure is None:
        return "—"
    return f"{row.figure:.3f}" if row.interval else finer(row.figure)


def bound_of(row):
    return ("at most " if row.is_upper else "at least ") + f"{row.bound:g}"


def interval_of(row):
    if row.interval is None or math.isinf(row.interval[0]):
        return ""
    return "{:.3f} to {:.3f}".format(*row.interval)


def target_table(rows):
    return table(["", "against", "figure", "95 % interval", "target", "", "remark"],
                 [[row.what, row.against, figure_of(row), interval_of(row), bound_of(row),
                   row.verdict if row.verdict == MET else f"**{row.verdict}**", row.remark] for row in rows])


def verdicts(rows):
    counts = [(sum(row.verdict == name for row in rows), name)
              for name in (MET, targets.MISSED, targets.UNDECIDED, targets.NOT_MEASURED)]
    said = ", ".join(f"{count} {name}" for count, name in counts if count)
    unattainable = sum(bool(row.remark) for row in rows)
    return f"{len(rows)} targets: {said}." + (
        f" {unattainable} cannot be had with the calls that there are." if unattainable else "")


def disturbances(result):
    """What is to be said of the rounds in which others took more than the bound of the processors."""
    rounds, busy = len(result.data["elsewhere"]), [line for line in result.data["elsewhere"] if is_busy(line)]
    bound = f"{percent(BOUND)} of a processor"
    if not busy:
        return f"In none of {rounds} rounds did others take more than {bound}."
    places = "; ".join(f"{line['setting']}, round {line['round'] + 1}: programs {percent(line['others'])}, host "
                       f"{percent(line['stolen'])}" for line in busy)
    return f"**In {len(busy)} of {rounds} rounds others took more than {bound}** ({places}); they are counted like the rest."


def floor_table(result):
    """How near the program comes to each floor, and how near the last floor comes to the others."""
    pairs = ((OWN, FLOOR), (OWN, THREADS), (OWN, CALLS), (CALLS, FLOOR), (CALLS, THREADS))
    rows = [[title] + [f"{statistics.median(result.ratios(SPEED, server, floor, work, ONE_CORE)):.3f}"
                       for server, floor in pairs] for work, title in result.works.items()]
    return table([""] + [f"{server} / {floor}" for server, floor in pairs], rows)


def calls_table(result):
    calls = result.data["calls_per_block"]
    if not calls:
        return "Not measured: strace is not installed.\n"
    columns = [(server, block) for server in (OWN, CALLS) for block in calls[server]]
    names = sorted({name for server, block in columns for name in calls[server][block]})
    rows = [[f"`{name}`"] + [f"{calls[server][block].get(name, 0):.2f}" for server, block in columns] for name in names]
    rows.append(["all"] + [f"{result.calls_per_block(block, server):.2f}" for server, block in columns])
    same = "They are the same." if calls[OWN] == calls[CALLS] else "**They are not the same.**"
    return table([""] + [f"{server}, {block}" for server, block in columns], rows) + f"\n{same}\n"


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
                     f"{point['address_space_kib']:,} KiB, of which {point['heap_kib']:,} KiB hold the kept records, "
                     f"resident {point['resident_kib']:,} KiB"])
    day = result.data["day"]
    rows.append([f"resident with 64 transfers open, after {day['reads']:,}", f"{day['open_kib'] / 1024:.1f} MiB"])
    return table(["", ""], rows)


def recorder_table(result):
    rows = []
    for setting in result.settings:
        lines = result.recordings(setting)
        clients = [64 / line["clients"]["seconds"] for line in lines]
        rows.append([setting, with_spread([ratio * 100 for ratio in recorder.ratios(lines)]).replace(" ±", " % ±"),
                     "{1:.2f} ({0:.2f} to {2:.2f})".format(*quartiles(
                         [recorder.microseconds_per_frame(line) for line in lines])), with_spread(clients),
                     str(recorder.greatest(lines, "dropped")), f"{recorder.greatest(lines, 'memory_kib') / 1024:.1f}"])
    return table(["", "throughput of one read, of that without", "processor time a frame, µs",
                  "64 clients, MiB/s", "frames dropped", "memory at the most, MiB"], rows)


def packet_table(result):
    rows = {}
    for line in result.data["packets"]:
        name, size = line["name"].rsplit("/", 1)
        rows.setdefault(name.replace("_", " "), {})[size] = f"{line['per_second'] / 1e6:,.2f}"
    sizes = ("512", "32768")
    return table(["millions per second"] + [f"capacity for {size} bytes of data" for size in sizes],
                 [[name] + [by_size[size] for size in sizes] for name, by_size in rows.items()])


def origin(result):
    data, machine = result.data, result.data["machine"]
    absent = [peer for peer in PEERS if peer not in result.servers]
    return f"""Written by `scripts/benchmark` from one run on {machine['date']}: {machine['processor']}, {machine['cores']} cores, Linux
{machine['kernel']}, load {machine['load']:.1f} before the run and {machine['load_at_end']:.1f} at its end.{
" **A quick run: the figures say nothing.**" if data['quick'] else ""}{
" Not installed and left out: " + ", ".join(absent) + "." if absent else ""}"""


def conditions(result):
    data = result.data
    cpus = "; ".join(f"{setting}: processor {cpus}" for setting, cpus in data["settings"].items())
    rounds = " and ".join(f"{data['rounds'][setting]} rounds on {setting}" for setting in data["settings"])
    repeats = sum(line["repeats"] for line in data["measured"])
    waits = "waits with select before each receive" if data["floor_wait"] else "has its receive end when the time is up"
    return f"""- {rounds}; in each, all servers are started afresh, and for every work
  each is read from in turn, the others being idle, up to {max(data['times'].values())} times. Figures are medians; ± is half the distance
  between the quartiles.
- Server and client share the same processors ({cpus}) and talk over
  an address of a link, as on a station. The client compares every byte. It had to repeat {repeats} packets in the whole run.
- One read is of {data['piece_bytes'] // MIB} MiB with blocks of 512 and 1428 bytes and of {data['image_bytes'] // MIB} MiB with larger ones. The 64 clients read
  1 MiB each. There are {data['tiny_files']:,} tiny files, and the first reply is timed from the request.
- `floor` sends from memory, with one receive and one send per block, in one thread and on one socket: the limit of the
  machine. `thread floor` does the same with a socket and a thread for each read: the limit of the program's shape.
  `same calls` is a thread floor that makes all of the program's system calls, at a request and for a block: the limit of
  the program as long as it makes these. In this run it {waits}.
- `TFTP with relay` is the program with the relay, which polls, on a network that has the station's address. `TFTP` has
  no relay. Both broadcast their boot script once a second.
- tftpd-hpa, dnsmasq (`--edns-packet-max=65000`) and atftpd run with their own defaults, and without logging.
- Of the transfers after which memory is looked at, the first {data['many_transfers']['few']} come 64 at once, the rest one after another. A
  day's work is {data['day']['reads']:,} reads, the program never ending meanwhile: eight hours of a run a minute with ten reads each.
- Processor seconds are those of the server and its children from before the request to the last ACK.
- System calls are counted by strace, all threads together; the calls per block are what a file of {data['image_bytes'] // MIB} MiB adds to one
  of 1 MiB, to hundredths.
- What others take is the processor time of the whole machine less that of the servers and the client, and what the host
  of a virtual machine takes, while anything but tftpd-hpa is measured. More than {percent(BOUND)} of a processor before the first
  measurement, and the run is refused; in a round, and it is marked: a build or a test run takes twenty times that."""


def document(result):
    rows = targets.rows(result)
    return f"""# Performance

{wrapped(picture.sentence(result))}

![Seconds to load the boot images from each server](performance.svg)

{origin(result)}

{wrapped(verdicts(rows) + " " + disturbances(result))}

## How it is measured

{conditions(result)}

## Targets

A figure of speed or processor time is the median, over the rounds, of the median ratio of neighbouring measurements in a
round. The interval is what that figure comes to in 95 % of {targets.RESAMPLES:,} draws of as many rounds, with replacement: rounds and
not single pairs, for those of one round share its processes and the machine's state. `met`: the whole interval is at the
bound or beyond; `missed`: the whole interval is short of it; `undecided`: the bound is inside. A figure without an
interval is one measurement, or exact.

{target_table(rows)}
### The floors, on one core

{floor_table(result)}
### System calls per block

{calls_table(result)}
## Speed
{speed_tables(result)}
## Cost, on one core

{cost_table(result)}
## The program

{program_table(result)}
## The recorder

`zirn-run record` beside the program, blocks of 1428 bytes, the unit in a network of its own behind the link that is
recorded, on {result.data['recorder_date']}. The processor time is what recording adds to that of program, client and
recorder together, the kernel included.

{recorder_table(result) if result.data['recorder'] else "Not measured: zirn-run is not built."}
## Packets

{packet_table(result) if result.data['packets'] else "Not measured: libbenchmark-dev is not installed."}"""


def main():
    with open(sys.argv[1]) as file:
        result = targets.Result(json.load(file))
    for name, text in (("performance.md", document(result)), ("performance.svg", picture.draw(result))):
        with open(os.path.join(sys.argv[2], name), "w") as file:
            file.write(text)
        print(f"wrote {os.path.join(sys.argv[2], name)}")
    for row in targets.rows(result):
        if row.verdict != MET:
            against = f" against {row.against}" if row.against else ""
            print(f"{row.verdict}: {row.what}{against}: {figure_of(row)}, {bound_of(row)} is wanted")


if __name__ == "__main__":
    main()
