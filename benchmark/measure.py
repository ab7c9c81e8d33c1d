"""Measures the program beside other servers and writes one JSON file. Usage: measure.py SETTINGS

Runs as root in network, mount and process namespaces of its own; scripts/benchmark makes them. SETTINGS is a JSON
text with: program, load, floor, packet_benchmark, zirn_run (files; "" where there is none), atftpd (file), floor_wait
("" or "select"), only ("" or "recorder": that part anew, the rest as in before), before (file), folder (scratch),
result (the file to write), quick (true: one round of tiny works, to see that every figure comes out).
"""

import contextlib
import json
import os
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import time

import elsewhere
import recorder

SETTINGS = json.loads(sys.argv[1])
QUICK = SETTINGS["quick"]
FOLDER = SETTINGS["folder"]
SERVED = os.path.join(FOLDER, "served")
# The relay runs where the station's address is. All others run side by side on a network like it without that
# address: packets to an interface's address cost more than those to the loopback's.
STATION = "172.40.0.1"
PORT = 69
ADDRESSES = {
    "floor": "172.41.0.1",
    "thread floor": "172.41.0.2",
    "same calls": "172.41.0.3",
    "TFTP": "172.41.0.4",
    "TFTP with relay": STATION,
    "tftpd-hpa": "172.41.0.5",
    "dnsmasq": "172.41.0.6",
    "atftpd": "172.41.0.7",
}
RELAY_WAIT_SECONDS = 2.3  # the relay waits for two seconds before it polls
PATIENCE_SECONDS = 10

# Most targets are for one core. The interval of a median of rounds comes out about as wide as it says with 5 or 11.
ROUNDS = {"one core": 1 if QUICK else 11, "two cores": 1 if QUICK else 5}
# Reads on two cores differ by a tenth from one to the next, and what recording costs is a third of that.
RECORDED_ROUNDS = {"one core": 1 if QUICK else 5, "two cores": 1 if QUICK else 16}
RECORDED_TURNS = 1 if QUICK else 12
IMAGE_BYTES = (2 if QUICK else 32) << 20
PIECE_BYTES = (1 if QUICK else 8) << 20
PART_BYTES = 1 << 20
TINY_FILES = 20 if QUICK else 2000
MANY_READS = (100, 300) if QUICK else (500, 100000)
DAY_READS = 100 if QUICK else 4800  # eight hours of a run a minute, with ten reads each
LONG_READS = (512, 32768)  # their system calls are counted
STARTS = 3 if QUICK else 20

# The processor's speed changes from one second to the next: turns are short, and there are several in a round.
# name: (title, file, count of files, block size, clients, reads, times a round)
WORKS = {
    "512": ("one read, block size 512", "piece", 0, 512, 1, 1, 4),
    "1428": ("one read, block size 1428", "piece", 0, 1428, 1, 1, 8),
    "8192": ("one read, block size 8192", "image", 0, 8192, 1, 1, 4),
    "32768": ("one read, block size 32768", "image", 0, 32768, 1, 1, 6),
    "clients": ("64 clients at once, block size 1428", "part", 0, 1428, 64, 64, 2),
    "tiny": ("files of 100 bytes, one after another", "tiny", TINY_FILES, 512, 1, TINY_FILES, 2),
}


def say(text):
    print(f"{time.strftime('%H:%M:%S')} {text}", flush=True)


def servers():
    """The command of each server, by name; None: not installed."""
    program, atftpd = SETTINGS["program"], SETTINGS["atftpd"]
    hpa, dnsmasq = shutil.which("in.tftpd"), shutil.which("dnsmasq")

    def floor(kind, name):
        wait = [SETTINGS["floor_wait"]] if kind == "same-calls" and SETTINGS["floor_wait"] else []
        return [SETTINGS["floor"], kind, ADDRESSES[name], str(PORT), SERVED, *wait]

    return {
        "floor": floor("one-thread", "floor"),
        "thread floor": floor("thread-per-read", "thread floor"),
        "same calls": floor("same-calls", "same calls"),
        "TFTP": [program, "-o", ADDRESSES["TFTP"]],
        "TFTP with relay": [program, "-o", STATION],
        "tftpd-hpa": hpa and [hpa, "-L", "-4", "-u", "root", "-a", f"{ADDRESSES['tftpd-hpa']}:{PORT}", "-s", SERVED],
        "dnsmasq": dnsmasq and [dnsmasq, "--keep-in-foreground", "--conf-file=/dev/null", "--pid-file", "--port=0",
                                "--enable-tftp", f"--tftp-root={SERVED}", f"--listen-address={ADDRESSES['dnsmasq']}",
                                "--bind-interfaces", "--tftp-max=100", "--edns-packet-max=65000", "--user=root",
                                "--quiet-tftp", "--log-facility=/dev/null"],
        "atftpd": atftpd and [atftpd, "--daemon", "--no-fork", "--port", str(PORT), "--bind-address",
                              ADDRESSES["atftpd"], "--user", "root", "--group", "root", "--verbose=0", "--logfile",
                              "/dev/null", SERVED],
    }


def make_network(addresses, enter=()):
    """A link named as the station's, with these addresses, and wide enough for every block in one frame."""
    commands = ["link set lo up", "link add lan0 mtu 65535 type veth peer name unit0 mtu 65535", "link set lan0 up",
                "link set unit0 up"]
    commands += [f"address add {address}/24 brd + label lan0:0 dev lan0" for address in addresses]
    for command in commands:
        subprocess.run([*enter, "ip", *command.split()], check=True)


class StationNetwork:
    """The station's address on a link of its own, beside the network of this process: there the relay runs."""

    def __init__(self):
        self.holder = subprocess.Popen(["unshare", "--net", "sleep", "infinity"])
        while open(f"/proc/{self.holder.pid}/comm").read() != "sleep\n":
            time.sleep(0.01)
        self.enter = ["nsenter", "--net", "--target", str(self.holder.pid), "--"]
        make_network([STATION], self.enter)


def is_bound(pid, address):
    """Whether a UDP socket in the process's network has the port on that address."""
    wanted = f"{struct.unpack('=I', socket.inet_aton(address))[0]:08X}:{PORT:04X}"
    try:
        with open(f"/proc/{pid}/net/udp") as table:
            return any(line.split()[1] == wanted for line in table.readlines()[1:])
    except OSError:
        return False


class Server:
    """A running server: started, listening, and ended with the block."""

    def __init__(self, name, cpus, network, prefix=()):
        command = servers()[name]
        self.name = name
        self.has_relay = name == "TFTP with relay"
        self.address = ADDRESSES[name]
        self.where = network.enter if self.has_relay else []
        self.on_cpus = ["taskset", "--cpu-list", cpus]
        self.process = subprocess.Popen(self.where + self.on_cpus + list(prefix) + command, cwd=SERVED,
                                        stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + PATIENCE_SECONDS
        while not is_bound(self.process.pid, self.address):
            if time.monotonic() > deadline or self.process.poll() is not None:
                sys.exit(f"benchmark: {name} does not listen: {' '.join(command)}")
            time.sleep(0.002)
        if self.has_relay and not QUICK:
            time.sleep(RELAY_WAIT_SECONDS)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end()

    def load(self, file, *arguments):
        """The load program on one of the files, with the rest of its own arguments."""
        words = [SETTINGS["load"], self.address, PORT, os.path.join(SERVED, file), *arguments]
        return subprocess.Popen(self.where + self.on_cpus + [str(word) for word in words], text=True,
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def reads(self, *arguments):
        """What the load program found."""
        load = self.load(*arguments)
        output, _ = load.communicate()
        if load.returncode != 0:
            sys.exit(f"benchmark: {' '.join(self.process.args)} did not serve what was asked for")
        return json.loads(output)

    def seconds_for_read(self, file, block):
        """Processor seconds for one read, up to its last ACK: the child of a forking server is there until then."""
        before = self.processor_seconds()
        load = self.load(file, 0, block, 1, 1, "hold")
        if load.stdout.readline() != "held\n":
            sys.exit(f"benchmark: {' '.join(self.process.args)} did not serve what was asked for")
        used = self.processor_seconds() - before
        load.communicate("go on\n")
        return used

    def processor_seconds(self):
        """What the server and those of its children that live have used so far."""
        cpu_clock = 2  # of the clocks that belong to a process id
        return sum(time.clock_gettime(~pid << 3 | cpu_clock) for pid in self.family())

    def pause(self):
        """A relay that polls takes its share of the processor even when nobody looks."""
        if self.has_relay:
            self.process.send_signal(signal.SIGSTOP)

    def resume(self):
        self.process.send_signal(signal.SIGCONT)

    def end(self):
        """A paused process takes the signal only when it runs on."""
        self.process.terminate()
        self.resume()
        self.process.wait()

    def family(self):
        """The process ids of the server and of all that it has started."""
        pids = [self.process.pid]
        for pid in pids:
            children = open(f"/proc/{pid}/task/{pid}/children").read().split()
            pids += [int(child) for child in children]
        return pids

    def field(self, name):
        """A line of the process's status in KiB, summed over its family."""
        total = 0
        for pid in self.family():
            total += int(re.search(rf"^{name}:\s+(\d+)", open(f"/proc/{pid}/status").read(), re.M).group(1))
        return total

    def heap_kib(self):
        """The part of the address space that grows with the records that the program keeps."""
        maps = open(f"/proc/{self.process.pid}/maps").read()
        heaps = re.findall(r"^(\w+)-(\w+) .*\[heap\]$", maps, re.M)
        return sum(int(end, 16) - int(start, 16) for start, end in heaps) // 1024

    def maps(self):
        return len(open(f"/proc/{self.process.pid}/maps").readlines())


def make_files():
    os.makedirs(SERVED)
    sizes = {"image": IMAGE_BYTES, "piece": PIECE_BYTES, "part": PART_BYTES}
    sizes.update((f"tiny{i}", 100) for i in range(TINY_FILES))
    for name, size in sizes.items():
        with open(os.path.join(SERVED, name), "wb") as file:
            file.write(os.urandom(size))


def cpu_settings():
    """The two settings and their processors; a machine with one has the first only."""
    cpus = sorted(os.sched_getaffinity(0))
    settings = {"one core": str(cpus[-1])}
    if len(cpus) > 1:
        settings["two cores"] = f"{cpus[-2]},{cpus[-1]}"
    return settings


def watched(others, server):
    """What others take while this server is measured; nothing is known where its children leave no account behind."""
    return contextlib.nullcontext() if server.name == "tftpd-hpa" else others.watch(server.processor_seconds)


def measure_once(server, work, others):
    _, file, count, block, clients, reads, _ = WORKS[work]
    server.resume()
    with watched(others, server):
        figures = server.reads(file, count, block, clients, reads)
    server.pause()
    first_file = os.path.join(SERVED, file + "0" if count else file)
    return {**figures, "bytes": reads * os.path.getsize(first_file), "reads": reads}


def measure_round(number, setting, cpus, present, network, others):
    """All servers are started afresh; then every work, and for each work every server in turn."""
    lines = []
    with contextlib.ExitStack() as running:
        servers_in_turn = []
        for name in present if number % 2 == 0 else present[::-1]:
            servers_in_turn.append(running.enter_context(Server(name, cpus, network)))
            servers_in_turn[-1].pause()
        for work in WORKS:
            *_, times = WORKS[work]
            for server in servers_in_turn * times:
                figures = measure_once(server, work, others)
                lines.append({"round": number, "setting": setting, "work": work, "server": server.name, **figures})
    say(f"round {number + 1} of {ROUNDS[setting]}, {setting}: done")
    return lines


def measure_works(present, settings, network, watches):
    """Rounds of both settings in alternation, as long as each has some."""
    return [line for number in range(max(ROUNDS.values())) for setting, cpus in settings.items()
            if number < ROUNDS[setting]
            for line in measure_round(number, setting, cpus, present, network, watches.of_round(setting, number))]


def is_compared(name):
    """The floors have their own files in memory, and the relay polls: their use of the machine tells nothing."""
    return name not in ("floor", "thread floor", "same calls", "TFTP with relay")


def measure_processor_seconds(present, cpus, network, watches):
    return [line for number in range(ROUNDS["one core"])
            for line in processor_round(number, present, cpus, network, watches.of_round("processor seconds", number))]


def processor_round(number, present, cpus, network, others):
    """Seconds for one read of the image at each block size, and for all the tiny files."""
    lines = []
    for work in ("512", "1428", "8192", "32768", "tiny"):
        for name in (name for name in present if is_compared(name) or name == "same calls"):
            with Server(name, cpus, network) as server, watched(others, server):
                if work != "tiny":
                    seconds = server.seconds_for_read("image", int(work))
                else:
                    before = server.processor_seconds()
                    server.reads("tiny", TINY_FILES, 512, 1, TINY_FILES)
                    time.sleep(0.05)  # the last transfer comes to its end
                    seconds = server.processor_seconds() - before
            lines.append({"round": number, "server": name, "work": work, "seconds": seconds})
    return lines


def memory_with_open_reads(server, count):
    """Resident KiB while that many clients have got their first block and say nothing."""
    clients = []
    for _ in range(count):
        client = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        client.settimeout(PATIENCE_SECONDS)
        client.sendto(b"\0\1part\0octet\0", (server.address, PORT))
        clients.append(client)
    for client in clients:
        client.recv(1024)
    return server.field("VmRSS")


def measure_memory(present, cpus, network):
    memory = {}
    for name in filter(is_compared, present):
        with Server(name, cpus, network) as server:
            time.sleep(0.2)
            idle = server.field("VmRSS")
            memory[name] = {"idle_kib": idle, "open_kib": memory_with_open_reads(server, 64)}
    return memory


def measure_many_transfers(cpus, network):
    """How the program's memory and address space develop. The first reads come 64 at once: so many stacks stay."""
    few, many = MANY_READS
    points = []
    with Server("TFTP", cpus, network) as server:
        for reads, clients in ((few, 64), (many - few, 1)):
            server.reads("tiny", TINY_FILES, 512, clients, reads)
            time.sleep(0.2)
            points.append({"maps": server.maps(), "address_space_kib": server.field("VmSize"),
                           "heap_kib": server.heap_kib(), "resident_kib": server.field("VmRSS")})
    kept = (points[1]["resident_kib"] - points[0]["resident_kib"]) * 1024 / (many - few)
    return {"few": few, "many": many, "after_few": points[0], "after_many": points[1], "kept_bytes": kept}


def measure_day(cpus, network):
    """Resident memory with 64 transfers open, when as many have ended as a station has in a day."""
    with Server("TFTP", cpus, network) as server:
        server.reads("tiny", TINY_FILES, 512, 1, DAY_READS)
        return {"reads": DAY_READS, "open_kib": memory_with_open_reads(server, 64)}


def count_calls(name, cpus, network, file, block):
    """The calls of a server from its start to its end when it serves the file once, and the file's blocks."""
    summary = os.path.join(FOLDER, "strace")
    strace = ["strace", "--follow-forks", "--summary-only", "--output", summary]
    server = Server(name, cpus, network, strace)
    blocks = server.reads(file, 0, block, 1, 1)["blocks"]
    time.sleep(0.2)
    for pid in server.family()[1:]:
        os.kill(pid, signal.SIGTERM)
    os.wait4(server.process.pid, 0)
    server.process.returncode = 0
    calls = {}
    for line in open(summary):
        columns = line.split()
        if len(columns) >= 5 and re.fullmatch(r"\d+", columns[3]) and columns[-1] != "total":
            calls[columns[-1]] = int(columns[3])
    return calls, blocks


def calls_per_block(name, cpus, network, block):
    """What a longer file adds, so that the start, the end and the request drop out.

    To hundredths: the boot script, which goes on meanwhile, adds less.
    """
    small, small_blocks = count_calls(name, cpus, network, "part", block)
    large, large_blocks = count_calls(name, cpus, network, "image", block)
    blocks = large_blocks - small_blocks
    per_block = {call: round((count - small.get(call, 0)) / blocks, 2) for call, count in large.items()}
    return {call: value for call, value in per_block.items() if value > 0}


def measure_calls(cpus, network):
    """System calls per block of a long read, of the program and of the floor that has the same ones."""
    if not shutil.which("strace"):
        say("skipped: system calls per block (strace is not installed)")
        return {}
    return {name: {str(block): calls_per_block(name, cpus, network, block) for block in LONG_READS}
            for name in ("TFTP", "same calls")}


def measure_program(cpus):
    """Size, and the time from start to the line that it prints when it listens."""
    stripped = os.path.join(FOLDER, "stripped")
    subprocess.run(["strip", "-o", stripped, SETTINGS["program"]], check=True)
    times = []
    for _ in range(STARTS):
        begin = time.monotonic()
        process = subprocess.Popen(["taskset", "--cpu-list", cpus, stripped], cwd=SERVED, stdout=subprocess.PIPE,
                                   text=True)
        while "Server started" not in process.stdout.readline():
            pass
        times.append((time.monotonic() - begin) * 1000)
        process.terminate()
        process.wait()
        process.stdout.close()
    return {"stripped_bytes": os.path.getsize(stripped), "start_milliseconds": times}


def measure_recorder(settings):
    if not SETTINGS["zirn_run"]:
        say("skipped: the recorder (zirn-run is not built: libpcap-dev, libcli11-dev, libncurses-dev, zlib1g-dev)")
        return []
    return recorder.measure(SETTINGS, SERVED, settings, RECORDED_ROUNDS, RECORDED_TURNS)


def measure_packets(cpus):
    if not SETTINGS["packet_benchmark"]:
        say("skipped: packet builders and parsers (libbenchmark-dev is not installed)")
        return []
    seconds = "0.01" if QUICK else "0.2"
    output = subprocess.run(["taskset", "--cpu-list", cpus, SETTINGS["packet_benchmark"], "--benchmark_format=json",
                             f"--benchmark_min_time={seconds}"], capture_output=True, text=True, check=True).stdout
    return [{"name": line["name"], "per_second": line["items_per_second"]} for line in
            json.loads(output)["benchmarks"]]


def machine():
    model = re.search(r"^model name\s*:\s*(.*)$", open("/proc/cpuinfo").read(), re.M)
    return {"processor": model.group(1) if model else os.uname().machine, "cores": os.cpu_count(),
            "kernel": os.uname().release, "date": time.strftime("%Y-%m-%d"), "load": os.getloadavg()[0]}


def main():
    refused = None if QUICK else elsewhere.why_refused()
    if refused:
        sys.exit(f"benchmark: {refused}")
    say("making the files that are served")
    make_files()
    result = with_recorder_anew() if SETTINGS["only"] else whole_run()
    with open(SETTINGS["result"], "w") as file:
        json.dump(result, file, indent=1)


def with_recorder_anew():
    if not os.path.exists(SETTINGS["before"]):
        sys.exit(f"benchmark: --recorder: expected a whole run before, found no {SETTINGS['before']}")
    with open(SETTINGS["before"]) as file:
        before = json.load(file)
    return {**before, "recorder": measure_recorder(cpu_settings()), "recorder_date": time.strftime("%Y-%m-%d")}


def whole_run():
    about = machine()
    make_network([address for address in ADDRESSES.values() if address != STATION])
    network = StationNetwork()
    settings = cpu_settings()
    pinned = settings["one core"]
    present = [name for name, command in servers().items() if command]
    for name, command in servers().items():
        if not command:
            say(f"skipped: {name} (not installed)")
    watches = elsewhere.Rounds()
    measured = measure_works(present, settings, network, watches)
    say("measuring processor seconds, memory, system calls, size, start and the recorder")
    result = {
        "settings": settings, "servers": present, "quick": QUICK, "rounds": ROUNDS, "tiny_files": TINY_FILES,
        "image_bytes": IMAGE_BYTES, "piece_bytes": PIECE_BYTES, "floor_wait": SETTINGS["floor_wait"],
        "works": {work: values[0] for work, values in WORKS.items()},
        "times": {work: values[-1] for work, values in WORKS.items()},
        "measured": measured,
        "processor_seconds": measure_processor_seconds(present, pinned, network, watches),
        "elsewhere": watches.shares(),
        "memory": measure_memory(present, pinned, network),
        "many_transfers": measure_many_transfers(pinned, network),
        "day": measure_day(pinned, network),
        "calls_per_block": measure_calls(pinned, network),
        "program": measure_program(pinned),
        "packets": measure_packets(pinned),
        "recorder": measure_recorder(settings),
        "recorder_date": about["date"],
        "machine": {**about, "load_at_end": os.getloadavg()[0]},
    }
    network.holder.terminate()
    return result


main()
