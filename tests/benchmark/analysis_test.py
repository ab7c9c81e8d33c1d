"""The benchmark's verdicts, on figures that are made up here: what is known of these is what must be said of them."""

import copy
import gzip
import itertools
import os
import random
import subprocess
import sys
import time
import unittest
from unittest import mock
from xml.etree import ElementTree

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "../../benchmark"))

import elsewhere
import picture
import report
import targets
from targets import CALLS, COST, MET, MISSED, NOT_MEASURED, ONE_CORE, OWN, PEERS, RELAY, SPEED, TWO_CORES, UNDECIDED

targets.RESAMPLES = 1000  # enough here
SERVERS = ("floor", "thread floor", CALLS, OWN, RELAY, *PEERS)
WORKS = ("512", "1428", "8192", "32768", "clients", "tiny")
ROUNDS = {ONE_CORE: 11, TWO_CORES: 5}


def measured(servers, speeds, turns=2):
    """Lines as of a run in which each server has one speed, 40 MiB/s unless told, and the machine's goes up and down."""
    chance = random.Random(7)
    lines = []
    for setting, rounds in ROUNDS.items():
        for number in range(rounds):
            for work, _ in itertools.product(WORKS, range(turns)):
                pace = chance.uniform(0.8, 1.2)
                for server in servers:
                    seconds = 1 / pace / speeds.get((server, work), speeds.get(server, 40))
                    lines.append({"round": number, "setting": setting, "work": work, "server": server, "bytes": 1 << 20,
                                  "reads": 1, "seconds": seconds, "repeats": 0, "first_reply": [10, 20]})
    return lines


def calls(select):
    counted = {"sendto": 1.0, "recvfrom": 1.0, **({"pselect6": 1.0} if select else {})}
    return {"512": {**counted, "read": 0.06}, "32768": {**counted, "read": 1.0}}


def recordings(slower=1.0, used=0.0, **clients):
    """Rounds in which the recorder makes reads of 1000 blocks slower, and takes some processor seconds for each."""
    turn = {"alone": {"seconds": 1.0, "used": 0.5, "blocks": 1000},
            "recorded": {"seconds": slower, "used": 0.5 + used, "blocks": 1000, "memory_kib": 7000, "dropped": 0}}
    return [{"round": number, "setting": setting, "turns": [copy.deepcopy(turn) for _ in range(3)],
             "clients": {"seconds": 1.0, "memory_kib": 7500, "dropped": 0, **clients}}
            for setting, rounds in ROUNDS.items() for number in range(rounds)]


def result(speeds=(), seconds=(), servers=SERVERS, **changes):
    """A whole run: speeds and processor seconds by server, the rest by the name of the part."""
    speeds, seconds = dict(speeds), dict(seconds)
    point = {"maps": 50, "address_space_kib": 9000, "heap_kib": 500, "resident_kib": 4000}
    data = {
        "settings": {ONE_CORE: "1", TWO_CORES: "0,1"}, "servers": list(servers), "quick": False, "rounds": ROUNDS,
        "tiny_files": 20, "image_bytes": 32 << 20, "piece_bytes": 8 << 20, "floor_wait": "",
        "works": {work: f"work {work}" for work in WORKS}, "times": {work: 2 for work in WORKS},
        "measured": measured(list(servers), speeds),
        "processor_seconds": [{"round": number, "server": server, "work": work, "seconds": seconds.get(server, 1.0)}
                              for number in range(11) for work in WORKS for server in servers],
        "elsewhere": [{"setting": ONE_CORE, "round": number, "others": 0.01, "stolen": 0.0} for number in range(11)],
        "memory": {server: {"idle_kib": 3000, "open_kib": 5000} for server in (OWN, *PEERS)},
        "many_transfers": {"few": 500, "many": 100000, "after_few": point, "after_many": point, "kept_bytes": 600},
        "day": {"reads": 4800, "open_kib": 7000}, "calls_per_block": {OWN: calls(True), CALLS: calls(False)},
        "program": {"stripped_bytes": 100000, "start_milliseconds": [3.0, 4.0]}, "packets": [],
        "recorder": recordings(), "recorder_date": "2026-01-02",
        "machine": {"date": "2026-01-01", "processor": "P & Q", "cores": 2, "kernel": "6.1", "load": 0, "load_at_end": 1},
    }
    return targets.Result({**data, **changes})


def row_of(run, what, against):
    found = [row for row in targets.rows(run) if row.what == what and row.against.startswith(against)]
    assert len(found) == 1, [row.what for row in targets.rows(run)]
    return found[0]


class Verdict(unittest.TestCase):
    def test_an_interval_at_the_bound_or_beyond_is_met(self):
        self.assertEqual(targets.verdict((1.10, 1.20), 1.10, False), MET)
        self.assertEqual(targets.verdict((0.80, 0.90), 0.90, True), MET)

    def test_an_interval_short_of_the_bound_is_missed(self):
        self.assertEqual(targets.verdict((1.00, 1.0999), 1.10, False), MISSED)
        self.assertEqual(targets.verdict((0.9001, 1.00), 0.90, True), MISSED)

    def test_an_interval_with_the_bound_inside_is_undecided(self):
        for low, high in ((1.0999, 1.20), (1.00, 1.10)):
            self.assertEqual(targets.verdict((low, high), 1.10, False), UNDECIDED)
        for low, high in ((0.80, 0.9001), (0.90, 1.00)):
            self.assertEqual(targets.verdict((low, high), 0.90, True), UNDECIDED)


class Recorder(unittest.TestCase):
    THROUGHPUT = "one read, block size 1428, recorded, two cores"
    COST = "processor time of recording, one core, µs a frame"

    def test_throughput_is_that_of_the_read_alone_by_that_of_the_recorded_one(self):
        row = row_of(result(recorder=recordings(slower=1.25)), self.THROUGHPUT, "not recorded")
        self.assertEqual((row.figure, row.verdict), (0.8, MISSED))
        self.assertEqual(row_of(result(recorder=recordings(1.02)), self.THROUGHPUT, "not recorded").verdict, MET)

    def test_of_a_rounds_turns_the_one_in_the_middle_counts(self):
        lines = recordings(slower=1.25)
        for line in lines:
            line["turns"][1]["recorded"]["seconds"] = 100.0
        self.assertEqual(row_of(result(recorder=lines), self.THROUGHPUT, "not recorded").figure, 0.8)

    def test_a_block_and_its_ack_share_the_processor_time(self):
        row = row_of(result(recorder=recordings(used=0.004)), self.COST, "")
        self.assertAlmostEqual(row.figure, 2)
        self.assertEqual(row.verdict, MISSED)

    def test_drops_and_memory_of_the_worst_round_count(self):
        lines = recordings()
        lines[3]["clients"].update(memory_kib=9000)
        lines[2]["turns"][1]["recorded"].update(dropped=4)
        run = result(recorder=lines)
        self.assertEqual(row_of(run, "frames dropped by the kernel while they are recorded", "").verdict, MISSED)
        self.assertEqual(row_of(run, "memory of the recorder, MiB", "").verdict, MISSED)

    def test_nothing_is_said_of_what_was_not_measured(self):
        run = result(recorder=[])
        for what in (self.THROUGHPUT, self.COST):
            self.assertEqual(row_of(run, what, "").verdict, NOT_MEASURED)
        self.assertIn("zirn-run is not built", report.document(run))

    def test_the_table_has_both_settings(self):
        text = report.document(result(recorder=recordings(slower=1.25, used=0.004)))
        self.assertIn("| one core | 80 % ±0 % | 2.00 (2.00 to 2.00) | 64 ±0 % | 0 | 7.3 |", text)


class Bootstrap(unittest.TestCase):
    def test_the_same_data_have_the_same_interval(self):
        chance = random.Random(3)
        for _ in range(10):
            ratios = [chance.gauss(1, 0.1) for _ in range(12)]
            self.assertEqual(targets.bootstrap([ratios]), targets.bootstrap([ratios]))

    def test_eleven_rounds_reach_from_the_third_to_the_ninth(self):
        self.assertEqual(targets.bootstrap([[1.05, 1.01, 1.09, 1.11, 1.02, 1.03, 1.10, 1.04, 1.06, 1.08, 1.07]]),
                         (1.03, 1.09))

    def test_five_rounds_reach_from_the_first_to_the_last(self):
        self.assertEqual(targets.bootstrap([[3, 1, 5, 2, 4]]), (1, 5))

    def test_fewer_rounds_decide_nothing(self):
        self.assertEqual(targets.verdict(targets.bootstrap([[9, 9, 9, 9]]), 1, False), UNDECIDED)

    def test_it_covers_the_truth_about_as_often_as_it_says(self):
        chance = random.Random(5)
        runs, covered = 200, 0
        for _ in range(runs):
            low, high = targets.bootstrap([[chance.gauss(1, 0.05) for _ in range(11)]])
            covered += low <= 1 <= high
        self.assertGreaterEqual(covered, 0.89 * runs)
        self.assertLessEqual(covered, 0.99 * runs)

    def test_more_pairs_in_the_same_rounds_do_not_narrow_it(self):
        intervals = []
        for turns in (1, 8):
            run = result(measured=measured([OWN, CALLS], {OWN: 39}, turns))
            for line in run.data["measured"]:  # what a round's pairs share
                line["seconds"] *= 1 + 0.01 * (line["server"] == OWN) * line["round"]
            intervals.append(targets.bootstrap([run.ratios(SPEED, OWN, CALLS, "512", ONE_CORE)]))
        for one, other in zip(*intervals):
            self.assertAlmostEqual(one, other)
        self.assertGreater(intervals[0][1] - intervals[0][0], 0.04)

    def test_the_best_of_those_compared_with_counts(self):
        series = [[2.0] * 11, [1.2] * 11]
        self.assertEqual(targets.bootstrap(series), (1.2, 1.2))
        self.assertEqual(targets.bootstrap(series, is_upper=True), (2.0, 2.0))


class Targets(unittest.TestCase):
    def test_there_is_a_row_for_each(self):
        rows = targets.rows(result())
        self.assertEqual([row.bound for row in rows], [
            1.10, 1.10, 1.06, 1.02,  # single read, best peer
            0.98, 0.98, 0.98, 0.98,  # same calls
            0.92, 0.92, 0.92, 0.92,  # relay running
            1.20, 1.03, 0.98, 0.85,  # 64 clients
            1.5, 0.70,  # tiny files
            3, 3, 3, 3,  # two cores, relay running
            0.90, 0.90, 0.90, 0.97,  # processor seconds
            0.95,  # recorded
            2.1, 3, 4, 8, 0.6, 1.5, 0, 8, 150])
        self.assertEqual([row.is_upper for row in rows], [False] * 22 + [True] * 4 + [False] + [True] * 9)

    def test_pairs_leave_the_pace_of_a_turn_out(self):
        row = row_of(result({OWN: 44}), "work 512, one core", "best peer")
        self.assertAlmostEqual(row.figure, 1.10)
        self.assertLess(row.interval[1] - row.interval[0], 1e-9)

    def test_each_verdict(self):
        for own, expected in ((50, MET), (41, MISSED)):
            self.assertEqual(row_of(result({OWN: own}), "work 512, one core", "best peer").verdict, expected)
        run = result()
        for line in run.data["measured"]:
            line["seconds"] *= 1 + 0.1 * (line["server"] in PEERS) * (line["round"] % 3)
        self.assertEqual(row_of(run, "work 512, one core", "best peer").verdict, UNDECIDED)

    def test_the_best_peer_is_named(self):
        run = result({OWN: 50, "dnsmasq": 48}, {OWN: 0.8, "atftpd": 0.7})
        self.assertEqual(row_of(run, "work 512, one core", "best peer").against, "best peer, dnsmasq")
        row = row_of(run, f"{COST}, block size 512, one core", "best peer")
        self.assertEqual((row.against, row.verdict), ("best peer, atftpd", MISSED))

    def test_single_figures_are_held_plainly(self):
        run = result()
        verdicts = {row.what: row.verdict for row in targets.rows(run) if row.interval is None}
        self.assertEqual(verdicts, {
            "system calls per block of a long read, block size 512": MISSED,  # 3.06
            "system calls per block of a long read, block size 32768": MISSED,  # 4
            "resident memory idle, MiB": MET,
            "resident memory with 64 transfers open after a day's work, MiB": MET,
            "memory kept per finished transfer, KiB": MET,
            "processor time of recording, one core, µs a frame": MET,
            "frames dropped by the kernel while they are recorded": MET,
            "memory of the recorder, MiB": MET,
            "stripped program, KiB": MET})
        run.data["calls_per_block"][OWN] = calls(False)  # 2.06 and exactly 3
        run.data["many_transfers"]["kept_bytes"] = 0.6 * 1024 + 1
        changed = {row.what: row.verdict for row in targets.rows(run)}
        self.assertEqual(changed["system calls per block of a long read, block size 512"], MET)
        self.assertEqual(changed["system calls per block of a long read, block size 32768"], MET)
        self.assertEqual(changed["memory kept per finished transfer, KiB"], MISSED)

    def test_what_was_not_measured_is_said(self):
        run = result(servers=("floor", "thread floor", CALLS, OWN, RELAY), settings={ONE_CORE: "0"}, calls_per_block={},
                     recorder=[])
        missing = [row for row in targets.rows(run) if row.verdict == NOT_MEASURED]
        self.assertEqual(len(missing), 4 + 3 + 2 + 4 + 4 + 2 + 4)
        self.assertIn(f"{len(missing)} not measured", report.document(run))


class Unattainable(unittest.TestCase):
    def test_what_the_same_calls_miss_is_said_with_how_much(self):
        row = row_of(result({OWN: 41, CALLS: 42}), "work 512, one core", "best peer")
        self.assertEqual(row.remark, "not to be had with these calls: `same calls` itself has 1.050, 0.050 below")

    def test_an_upper_bound_is_missed_from_above(self):
        row = row_of(result(seconds={CALLS: 0.94}), f"{COST}, block size 512, one core", "best peer")
        self.assertEqual(row.remark, "not to be had with these calls: `same calls` itself has 0.940, 0.040 above")

    def test_what_they_reach_is_left_to_the_program(self):
        self.assertEqual(row_of(result({OWN: 41, CALLS: 44.1}), "work 512, one core", "best peer").remark, "")

    def test_what_they_may_reach_is_left_to_it_as_well(self):
        run = result()
        for line in run.data["measured"]:
            line["seconds"] *= 1 + 0.1 * (line["server"] in PEERS) * (line["round"] % 3)
        self.assertEqual(row_of(run, "work 512, one core", "best peer").remark, "")

    def test_their_own_target_and_the_relay_have_none(self):
        run = result({CALLS: 10, RELAY: 1})
        self.assertEqual(row_of(run, "work 512, one core", CALLS).remark, "")
        self.assertEqual(row_of(run, "work 512, one core, relay running", OWN).remark, "")


class Elsewhere(unittest.TestCase):
    def watched(self, before, after, own, counts_interrupts=True):
        """Shares of a span of two seconds. Own processor seconds: of a server; ended children have 0.3 of them more."""
        watch = elsewhere.Elsewhere(counts_interrupts)
        with mock.patch.object(elsewhere, "processor_times", side_effect=[before, after]), \
                mock.patch.object(time, "monotonic", side_effect=[100, 102]), \
                mock.patch.object(time, "process_time", return_value=1), \
                mock.patch.object(elsewhere.resource, "getrusage", side_effect=[
                    mock.Mock(ru_utime=1, ru_stime=2), mock.Mock(ru_utime=1.2, ru_stime=2.1)]):
            used = iter((5, 5 + own))
            with watch.watch(lambda: next(used)):
                pass
        return {name: round(share, 6) for name, share in watch.shares().items()}

    def test_what_is_not_the_programs_own_is_others(self):
        self.assertEqual(self.watched((10, 3, 1), (11, 3.5, 1.1), 1.1), {"others": 0.05, "stolen": 0.05})

    def test_interrupts_count_only_where_they_are_in_the_programs_time(self):
        self.assertEqual(self.watched((10, 3, 1), (11, 3.5, 1), 0.6, False), {"others": 0.05, "stolen": 0})

    def test_the_bound_itself_is_no_load(self):
        self.assertFalse(elsewhere.is_busy({"others": elsewhere.BOUND, "stolen": 0}))
        self.assertTrue(elsewhere.is_busy({"others": elsewhere.BOUND, "stolen": 0.001}))

    def test_a_program_that_computes_has_the_run_refused(self):
        busy = subprocess.Popen([sys.executable, "-c", "while True: pass"])
        try:
            self.assertRegex(elsewhere.why_refused(1), r"^refused: .* other programs used \d+ % of a processor .* "
                                                       r"at most 5 % together is expected \(load average ")
        finally:
            busy.kill()
            busy.wait()

    def test_a_machine_at_rest_is_measured_on(self):
        with mock.patch.object(elsewhere, "processor_times", side_effect=[(10, 3, 1), (10, 3, 1)]):
            self.assertIsNone(elsewhere.why_refused(0.01))

    def test_whether_interrupts_are_apart_is_as_the_kernel_was_built(self):
        try:
            with gzip.open("/proc/config.gz", "rt") as file:
                built_so = "CONFIG_IRQ_TIME_ACCOUNTING=y\n" in file.readlines()
        except OSError:
            self.skipTest("this kernel does not say how it was built")
        self.assertEqual(elsewhere.interrupts_are_apart(), built_so)

    def test_marked_rounds_are_counted_and_named(self):
        run = result()
        self.assertIn("In none of 11 rounds did others take more than 5 % of a processor.", report.disturbances(run))
        run.data["elsewhere"][3].update(others=0.2, stolen=0.031)
        self.assertIn("**In 1 of 11 rounds others took more than 5 % of a processor** (one core, round 4: programs 20 %, "
                      "host 3 %)", report.disturbances(run))


class Document(unittest.TestCase):
    def test_it_opens_with_the_sentence_and_the_picture(self):
        head = report.document(result({OWN: 80, "dnsmasq": 64})).split("\n\n")[:3]
        self.assertEqual(head[0], "# Performance")
        self.assertRegex(head[1].replace("\n", " "), r"^On the machine below, a unit that loads 32 MiB .* waits "
                         r"0\.\d\d s for this program, and 0\.\d\d s for dnsmasq, the fastest of the others .* 2\.7 s at 100 Mbit/s")
        self.assertRegex(head[2], r"^!\[.*\]\(performance\.svg\)$")

    def test_it_says_whether_the_floor_has_the_programs_calls(self):
        run = result()
        self.assertIn("**They are not the same.**", report.document(run))
        run.data["calls_per_block"][OWN] = calls(False)
        self.assertIn("They are the same.", report.document(run))

    def test_the_same_data_give_the_same_text(self):
        self.assertEqual(report.document(result()), report.document(result()))


class Picture(unittest.TestCase):
    def drawn(self, **speeds):
        run = result({("TFTP", "512"): 20, "dnsmasq": 64, **speeds})
        return run, ElementTree.fromstring(picture.draw(run))

    def test_it_is_well_formed_and_700_wide(self):
        _, root = self.drawn()
        self.assertEqual(root.tag, "{http://www.w3.org/2000/svg}svg")
        self.assertEqual(root.get("width"), "700")
        self.assertTrue(root.get("viewBox").startswith("0 0 700 "))

    def test_bars_are_as_long_as_the_seconds_and_stay_inside(self):
        run, root = self.drawn()
        bars = root.findall("{*}rect")[1:]
        widths = [float(bar.get("width")) for bar in bars]
        seconds = [picture.boot_seconds(run, server, work) for work, _ in picture.BOOT_WORKS for server in (OWN, *PEERS)]
        self.assertEqual(len(widths), 8)
        for width, expected in zip(widths, seconds):
            self.assertAlmostEqual(width / widths[0], expected / seconds[0], places=2)
        self.assertLess(max(float(bar.get("x")) + float(bar.get("width")) for bar in bars), 700 - picture.FIGURE_WIDTH)

    def test_every_bar_has_its_name_and_its_figure(self):
        run, root = self.drawn()
        texts = [text.text for text in root.findall("{*}text")]
        for server, name in ((OWN, "this program"), *zip(PEERS, PEERS)):
            self.assertEqual(texts.count(name), 2)
            self.assertIn(f"{picture.boot_seconds(run, server, '512'):.2f} s", texts)

    def test_text_is_escaped(self):
        self.assertEqual(ElementTree.fromstring(picture.text_at(0, 0, "a < b & c", 15)).text, "a < b & c")


if __name__ == "__main__":
    unittest.main()
