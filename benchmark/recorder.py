"""What recording a run costs the station: reads with and without the recorder beside the program, in turn.

The unit is in a network of its own behind a link, as on a station, so that every frame passes the link that is recorded.
"""

import json
import os
import re
import signal
import statistics
import subprocess
import time

STATION, UNIT = "172.42.0.1", "172.42.0.2"
PORT = 69
SETTLE_SECONDS = 0.3  # until the recorder receives, and until the program listens
# A read of one unit, and all at once; the second without a limit, which is several times what 100 Mbit/s carry.
READ = ("piece", 0, 1428, 1, 1)
CLIENTS = ("part", 0, 1428, 64, 64)


class Networks:
    """The station's network and the unit's, with a link between them that is named as on a station."""

    def __init__(self):
        self.station, self.unit = self._network(), self._network()
        self._ip(self.station, f"link add lan0 type veth peer name unit0 netns {self.unit.pid}")
        for holder, link, address in ((self.station, "lan0", STATION), (self.unit, "unit0", UNIT)):
            self._ip(holder, "link set lo up")
            self._ip(holder, f"address add {address}/24 brd + label {link}:0 dev {link}")
            self._ip(holder, f"link set {link} up")

    @staticmethod
    def _network():
        holder = subprocess.Popen(["unshare", "--net", "sleep", "infinity"])
        while open(f"/proc/{holder.pid}/comm").read() != "sleep\n":
            time.sleep(0.01)
        return holder

    @staticmethod
    def within(holder):
        return ["nsenter", "--net", "--target", str(holder.pid), "--"]

    def _ip(self, holder, words):
        subprocess.run([*self.within(holder), "ip", *words.split()], check=True)

    def end(self):
        for holder in (self.station, self.unit):
            holder.terminate()
            holder.wait()


def processor_seconds(pid):
    cpu_clock = 2  # of the clocks that belong to a process id
    return time.clock_gettime(~pid << 3 | cpu_clock)


class Station:
    """The program and, where it is wanted, the recorder beside it, on these processors."""

    def __init__(self, settings, served, cpus):
        self.settings, self.served, self.cpus = settings, served, cpus
        self.networks = Networks()
        self.program = self._start(self.networks.station, [settings["program"], "-o", STATION])
        time.sleep(SETTLE_SECONDS)

    def _start(self, holder, words, **more):
        return subprocess.Popen([*Networks.within(holder), "taskset", "--cpu-list", self.cpus, *words], cwd=self.served,
                                stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                **{"stderr": subprocess.DEVNULL, **more})

    def reads(self, file, *arguments):
        """The load's figures, and the processor seconds of program and load together."""
        before = processor_seconds(self.program.pid)
        words = [self.settings["load"], STATION, PORT, os.path.join(self.served, file), *arguments]
        output = subprocess.run([*Networks.within(self.networks.unit), "taskset", "--cpu-list", self.cpus,
                                 *map(str, words)], check=True, capture_output=True, text=True).stdout
        figures = json.loads(output)
        figures["used"] = figures["own_seconds"] + processor_seconds(self.program.pid) - before
        return figures

    def recorded_reads(self, *work):
        """The same with the recorder, and what that took, its greatest memory, and the frames that the kernel dropped."""
        record = os.path.join(self.settings["folder"], "run.pcapng")
        recorder = self._start(self.networks.station, [self.settings["zirn_run"], "record", "-i", "lan0", "-o", record,
                                                       "--", "-o", STATION], stderr=subprocess.PIPE, text=True)
        time.sleep(SETTLE_SECONDS)
        before = processor_seconds(recorder.pid)
        figures = self.reads(*work)
        time.sleep(SETTLE_SECONDS)
        figures["used"] += processor_seconds(recorder.pid) - before
        status = open(f"/proc/{recorder.pid}/status").read()
        figures["memory_kib"] = int(re.search(r"^VmHWM:\s+(\d+)", status, re.M).group(1))
        recorder.send_signal(signal.SIGINT)
        _, complaints = recorder.communicate()
        dropped = re.search(r"the kernel dropped (\d+) frames", complaints)
        figures["dropped"] = int(dropped.group(1)) if dropped else 0
        if recorder.returncode != 0:
            raise SystemExit(f"benchmark: the recorder ended with {recorder.returncode}: {complaints}")
        os.remove(record)
        return figures

    def end(self):
        self.program.terminate()
        self.program.wait()
        self.networks.end()


def turn_of(station, number):
    """A read without and one with the recorder, which of them first by turns."""
    works = {"alone": station.reads, "recorded": station.recorded_reads}
    return {name: works[name](*READ) for name in sorted(works, reverse=number % 2 == 1)}


def measure(settings, served, cpus_of, rounds, turns):
    """For each setting and its rounds: so many turns, and all clients at once with the recorder."""
    lines = []
    for setting, cpus in cpus_of.items():
        for number in range(rounds[setting]):
            station = Station(settings, served, cpus)
            lines.append({"round": number, "setting": setting,
                          "turns": [turn_of(station, turn) for turn in range(turns)],
                          "clients": station.recorded_reads(*CLIENTS)})
            station.end()
    return lines


def ratios(lines):
    """Throughput with the recorder to that without, one for each round: the median of its turns."""
    return [statistics.median(turn["alone"]["seconds"] / turn["recorded"]["seconds"] for turn in line["turns"])
            for line in lines]


def microseconds_per_frame(line):
    """What recording adds to the processor time of all that takes part, for each frame: a block and its ACK are two."""
    added = sum(turn["recorded"]["used"] - turn["alone"]["used"] for turn in line["turns"])
    return added * 1e6 / sum(2 * turn["recorded"]["blocks"] for turn in line["turns"])


def median_cost(lines):
    return statistics.median(microseconds_per_frame(line) for line in lines)


def greatest(lines, figure):
    return max(work[figure] for line in lines
               for work in [line["clients"], *(turn["recorded"] for turn in line["turns"])])
