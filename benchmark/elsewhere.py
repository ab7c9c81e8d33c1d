"""What others take of the machine's processors: programs that are not measured, and the host of a virtual machine."""

import contextlib
import os
import resource
import socket
import time

# A share of one processor. The least that a target leaves is two parts in a hundred (0.98 of a floor), and a round's
# figure is the median of pairs side by side, which evens out most of what others take. A build or a test run takes
# all of a processor, twenty times as much: beyond the bound, one ran for more than a second in a round of half a minute.
BOUND = 0.05
REST_SECONDS = 5
TICKS_PER_SECOND = os.sysconf("SC_CLK_TCK")


def processor_times():
    """Seconds of all processors so far: in programs and the kernel, in interrupts, and taken by the machine's host."""
    with open("/proc/stat") as file:
        user, nice, system, _, _, irq, softirq, steal = (int(word) / TICKS_PER_SECOND
                                                         for word in file.readline().split()[1:9])
    return user + nice + system, irq + softirq, steal


def interrupts_are_apart():
    """Whether this kernel leaves the time of interrupts out of the processes' time, as it can be built to.

    Much of a packet's way to oneself is an interrupt: where that is left out, it takes less processor time than time.
    """
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as own:
        own.bind(("127.0.0.1", 0))
        undisturbed = 0
        for _ in range(1000):
            begin, used = time.perf_counter(), time.thread_time()
            for _ in range(20):
                own.sendto(b"", own.getsockname())
                own.recv(1)
            undisturbed = max(undisturbed, (time.thread_time() - used) / (time.perf_counter() - begin))
    return undisturbed < 0.95


class Elsewhere:
    """Sums up, over the spans in which something is measured, what others take meanwhile."""

    def __init__(self, counts_interrupts=True):
        self.counts_interrupts = counts_interrupts
        self.seconds = self.others = self.stolen = 0.0

    @contextlib.contextmanager
    def watch(self, own_seconds):
        """own_seconds: gives the processor seconds so far of what is measured and no ended child of this process."""
        before = self._now(own_seconds)
        yield
        seconds, others, stolen = (now - then for now, then in zip(self._now(own_seconds), before))
        self.seconds += seconds
        self.others += others
        self.stolen += stolen

    def shares(self):
        """Of one processor: what other programs took, and the host."""
        return {"others": max(0.0, self.others) / self.seconds, "stolen": self.stolen / self.seconds}

    def _now(self, own_seconds):
        running, interrupts, stolen = processor_times()
        children = resource.getrusage(resource.RUSAGE_CHILDREN)
        own = own_seconds() + time.process_time() + children.ru_utime + children.ru_stime
        return time.monotonic(), running + (interrupts if self.counts_interrupts else 0) - own, stolen


class Rounds:
    """What others took in each round of measurements."""

    def __init__(self):
        self.counts_interrupts = not interrupts_are_apart()
        self.rounds = []

    def of_round(self, setting, number):
        self.rounds.append((setting, number, Elsewhere(self.counts_interrupts)))
        return self.rounds[-1][-1]

    def shares(self):
        return [{"setting": setting, "round": number, **watched.shares()} for setting, number, watched in self.rounds]


def percent(share):
    return f"{share * 100:.0f} %"


def is_busy(shares):
    return shares["others"] + shares["stolen"] > BOUND


def why_refused(seconds=REST_SECONDS):
    """Why nothing can be measured now, while nothing of the benchmark runs; None when the machine is at rest."""
    rest = Elsewhere()
    with rest.watch(lambda: 0):
        time.sleep(seconds)
    shares = rest.shares()
    if not is_busy(shares):
        return None
    return (f"refused: this machine does something else. In {seconds} s before the first measurement other programs "
            f"used {percent(shares['others'])} of a processor and the host took {percent(shares['stolen'])}; at most "
            f"{percent(BOUND)} together is expected (load average {os.getloadavg()[0]:.1f})")
