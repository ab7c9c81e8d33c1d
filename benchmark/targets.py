"""The targets, and the figures of a run that they are held against."""

import math
import random
import statistics
from dataclasses import dataclass

import recorder

OWN, RELAY, FLOOR, THREADS, CALLS = "TFTP", "TFTP with relay", "floor", "thread floor", "same calls"
PEERS = ("tftpd-hpa", "dnsmasq", "atftpd")
SINGLE_READS = ("512", "1428", "8192", "32768")
ONE_CORE, TWO_CORES = "one core", "two cores"
SPEED, COST = "speed", "processor seconds per GiB"
MIB, GIB = 1 << 20, 1 << 30
MET, MISSED, UNDECIDED, NOT_MEASURED = "met", "missed", "undecided", "not measured"

# Of speed, at least the bound is wanted; of everything else at most. Against PEERS: against the best of them.
# measure, works, setting, server, against, bound
RATIOS = (
    (SPEED, ("512", "1428"), ONE_CORE, OWN, PEERS, 1.10),
    (SPEED, ("8192",), ONE_CORE, OWN, PEERS, 1.06),
    (SPEED, ("32768",), ONE_CORE, OWN, PEERS, 1.02),
    (SPEED, SINGLE_READS, ONE_CORE, OWN, (CALLS,), 0.98),
    (SPEED, SINGLE_READS, ONE_CORE, RELAY, (OWN,), 0.92),
    (SPEED, ("clients",), ONE_CORE, OWN, ("atftpd",), 1.20),
    (SPEED, ("clients",), ONE_CORE, OWN, ("dnsmasq",), 1.03),
    (SPEED, ("clients",), ONE_CORE, OWN, (CALLS,), 0.98),
    (SPEED, ("clients",), TWO_CORES, OWN, ("dnsmasq",), 0.85),
    (SPEED, ("tiny",), ONE_CORE, OWN, ("atftpd",), 1.5),
    (SPEED, ("tiny",), ONE_CORE, OWN, ("dnsmasq",), 0.70),
    (SPEED, SINGLE_READS, TWO_CORES, RELAY, PEERS, 3),
    (COST, ("512", "1428", "8192"), ONE_CORE, OWN, PEERS, 0.90),
    (COST, ("32768",), ONE_CORE, OWN, PEERS, 0.97),
)
# what, how it is had from the run, bound
SINGLE_FIGURES = (
    ("system calls per block of a long read, block size 512", lambda result: result.calls_per_block("512"), 2.1),
    ("system calls per block of a long read, block size 32768", lambda result: result.calls_per_block("32768"), 3),
    ("resident memory idle, MiB", lambda result: result.data["memory"][OWN]["idle_kib"] / 1024, 4),
    ("resident memory with 64 transfers open after a day's work, MiB",
     lambda result: result.data["day"]["open_kib"] / 1024, 8),
    ("memory kept per finished transfer, KiB", lambda result: result.data["many_transfers"]["kept_bytes"] / 1024, 0.6),
    ("processor time of recording, one core, µs a frame", lambda result: result.recording_cost(ONE_CORE), 1.5),
    ("frames dropped by the kernel while they are recorded", lambda result: result.most_of_recorder("dropped"), 0),
    ("memory of the recorder, MiB", lambda result: result.most_of_recorder("memory_kib", 1024), 8),
    ("stripped program, KiB", lambda result: result.data["program"]["stripped_bytes"] / 1024, 150),
)

# Throughput of a read with the recorder to that without.
RECORDED_READ = "one read, block size 1428, recorded"
RECORDED_BOUND = 0.95  # on two cores; on one it is told alone

RESAMPLES = 4000
SEED = 1  # the same data, the same report
LEAST_ROUNDS = 5  # fewer have no interval: of four, all lie on one side of the median in one case out of eight


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
        return [speed(line) for line in self.lines(server, work, setting)]

    def speed(self, server, work, setting):
        return statistics.median(self.speeds(server, work, setting))

    def processor_seconds(self, server, work):
        return [line["seconds"] for line in self.data["processor_seconds"]
                if (line["server"], line["work"]) == (server, work)]

    def first_reply(self, server, setting, place):
        return statistics.median(line["first_reply"][place] for line in self.lines(server, "tiny", setting))

    def calls_per_block(self, work, server=OWN):
        """None where they were not counted."""
        calls = self.data["calls_per_block"]
        return round(sum(calls[server][work].values()), 2) if calls else None

    def recordings(self, setting):
        return [line for line in self.data["recorder"] if line["setting"] == setting]

    def recording_cost(self, setting):
        lines = self.recordings(setting)
        return recorder.median_cost(lines) if lines else None

    def most_of_recorder(self, figure, unit=1):
        lines = self.data["recorder"]
        return recorder.greatest(lines, figure) / unit if lines else None

    def by_round(self, measure, server, work, setting):
        """The figures of each round, in the order in which they were measured."""
        if measure == SPEED:
            figures = [(line["round"], speed(line)) for line in self.lines(server, work, setting)]
        else:
            figures = [(line["round"], line["seconds"]) for line in self.data["processor_seconds"]
                       if (line["server"], line["work"]) == (server, work)]
        rounds = {}
        for number, figure in figures:
            rounds.setdefault(number, []).append(figure)
        return rounds

    def ratios(self, measure, server, other, work, setting):
        """One for each round: the median of the ratios of measurements from the same turn."""
        own, others = (self.by_round(measure, name, work, setting) for name in (server, other))
        return [statistics.median(a / b for a, b in zip(own[number], others[number], strict=True)) for number in own]


def speed(line):
    return (line["reads"] if line["work"] == "tiny" else line["bytes"] / MIB) / line["seconds"]


def against_best(series, is_upper):
    """The median ratio to the best of those compared with. series: for each of them, a ratio for each round."""
    return (max if is_upper else min)(statistics.median(ratios) for ratios in series)


def bootstrap(series, is_upper=False):
    """The 95 % interval of against_best.

    Rounds are drawn and not single pairs: in a round every server keeps its process, its place in memory and the state
    of the machine, which its pairs share; with each round all of these are new. Which of those compared with is the
    best is found anew in every draw, for that choice has its noise as well.
    """
    rounds = range(len(series[0]))
    if len(rounds) < LEAST_ROUNDS:
        return -math.inf, math.inf
    chance = random.Random(SEED)
    figures = []
    for _ in range(RESAMPLES):
        drawn = chance.choices(rounds, k=len(rounds))
        figures.append(against_best([[ratios[number] for number in drawn] for ratios in series], is_upper))
    figures.sort()
    beyond = RESAMPLES * 25 // 1000
    return figures[beyond], figures[-1 - beyond]


def verdict(interval, bound, is_upper):
    low, high = interval
    if is_upper:
        low, high, bound = -high, -low, -bound
    return MET if low >= bound else MISSED if high < bound else UNDECIDED


@dataclass
class Row:
    """A target and what became of it."""
    what: str
    against: str
    bound: float
    is_upper: bool
    figure: float = None
    interval: tuple = None  # of ratios
    verdict: str = NOT_MEASURED
    remark: str = ""


def ratio_row(result, measure, work, setting, server, against, bound):
    is_upper = measure != SPEED
    title = result.works[work] if measure == SPEED else f"{measure}, block size {work}"
    row = Row(f"{title}, {setting}" + (", relay running" if server == RELAY else ""),
              "best peer" if against == PEERS else against[0], bound, is_upper)
    present = [name for name in against if name in result.servers]
    if not present or setting not in result.settings:
        return row
    series = {name: result.ratios(measure, server, name, work, setting) for name in present}
    row.figure = against_best(series.values(), is_upper)
    if against == PEERS:
        best = next(name for name in present if statistics.median(series[name]) == row.figure)
        row.against = f"best peer, {best}"
    row.interval = bootstrap(list(series.values()), is_upper)
    row.verdict = verdict(row.interval, bound, is_upper)
    if server == OWN:
        row.remark = unattainable(
            [result.ratios(measure, CALLS, name, work, setting) for name in present], bound, is_upper)
    return row


def unattainable(series, bound, is_upper):
    """What to say of a target that a program with the same calls, and nothing else to do, misses as well."""
    if verdict(bootstrap(series, is_upper), bound, is_upper) != MISSED:
        return ""
    figure = against_best(series, is_upper)
    return (f"not to be had with these calls: `{CALLS}` itself has {figure:.3f}, "
            f"{abs(figure - bound):.3f} {'above' if is_upper else 'below'}")


def recorded_row(result):
    row = Row(f"{RECORDED_READ}, {TWO_CORES}", "not recorded", RECORDED_BOUND, False)
    lines = result.recordings(TWO_CORES)
    if lines:
        series = [recorder.ratios(lines)]
        row.figure, row.interval = against_best(series, False), bootstrap(series)
        row.verdict = verdict(row.interval, RECORDED_BOUND, False)
    return row


def rows(result):
    """A row for each target."""
    found = [ratio_row(result, measure, work, setting, server, against, bound)
             for measure, works, setting, server, against, bound in RATIOS for work in works]
    found.append(recorded_row(result))
    for what, figure_of, bound in SINGLE_FIGURES:
        row = Row(what, "", bound, True, figure_of(result))
        if row.figure is not None:
            row.verdict = verdict((row.figure, row.figure), bound, True)
        found.append(row)
    return found
