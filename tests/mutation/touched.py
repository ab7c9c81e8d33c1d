"""Which test runs which line of src/. Each test runs once without any mutant, in programs in which GCC calls trace.c at
every branch. Not gcov: what that counts is lost when a test kills the program, as most of those of the whole program
do. Line by line and test by test, so that a mutant waits for the few tests that can tell."""

import bisect
import hashlib
import json
import os
import re
import shutil
import subprocess
import tempfile
from collections import defaultdict
from pathlib import Path

ROW = re.compile(r'(\S+)\s+(\d+|-)\s+(0x[0-9a-f]+)')
CALL = re.compile(r'\s*([0-9a-f]+):\s.*<__sanitizer_cov_trace_pc>')
ADDRESS = re.compile(r'\s*([0-9a-f]+):\s')


class Trace:
    """Finds out what tests run, and keeps it in a file: what is the same as then is not run again."""

    def __init__(self, scratch, kept_in):
        self._scratch = scratch
        self._file = Path(kept_in)
        self._kept = json.loads(self._file.read_text()) if self._file.exists() else {}
        self._lines_of = {}  # of each program: address in it -> [(file, line)]
        self._hashes = {}

    def measure(self, tests, at_once, progress):
        """Fills in what each test does. Returns those that passed, and those that did not, alone neither."""
        unknown = [test for test in tests if not self._recall(test)]
        with tempfile.TemporaryDirectory(dir=self._scratch.folder) as folder:
            failed = self._run(unknown, at_once, Path(folder), progress)
            failed = self._run(failed, 1, Path(folder), progress)
        names = {test.name for test in failed}
        passed = [test for test in tests if test.name not in names]
        self._file.write_text(json.dumps({test.name: self._record(test) for test in passed}))
        return passed, failed

    def _run(self, tests, at_once, folder, progress):
        failed, passed = [], []
        folder_of = {test.name: folder / str(number) for number, test in enumerate(tests)}

        def ended(test, outcome, seconds):
            test.seconds = seconds
            (failed if outcome else passed).append(test)
            progress(f'what the tests touch: {len(passed) + len(failed)} of {len(tests)}')

        for test_folder in folder_of.values():
            test_folder.mkdir()
        self._scratch.run(tests, at_once, ended=ended,
                          environment_of=lambda test: {'MUTATION_TRACE': str(folder_of[test.name])})
        for number, test in enumerate(passed):
            progress(f'where those lines stand: {number + 1} of {len(passed)}')
            self._read(test, folder_of[test.name])
        for test_folder in folder_of.values():
            shutil.rmtree(test_folder)
        return failed

    def _read(self, test, folder):
        lines, test.programs = defaultdict(set), []
        for file in sorted(folder.iterdir()):
            program = os.path.relpath(file.name.replace('!', '/'), self._scratch.build_folder)
            if program.startswith('..'):
                continue
            known = self._lines_in(program)
            run = [known[match.start()] for match in re.finditer(b'\1', file.read_bytes()) if match.start() in known]
            if run:
                test.programs.append(program)
            for source, line in {place for places in run for place in places}:
                lines[source].add(line)
        test.lines = {source: sorted(numbers) for source, numbers in lines.items()}

    def _lines_in(self, program):
        if program not in self._lines_of:
            self._lines_of[program] = lines_behind_calls(self._scratch.build_folder, program, self._scratch.tree)
        return self._lines_of[program]

    def _recall(self, test):
        record = self._kept.get(test.name)
        if record is None or record['same'] != self._state(test, record['programs']):
            return False
        test.seconds, test.programs, test.lines = record['seconds'], record['programs'], record['lines']
        return True

    def _record(self, test):
        return {'same': self._state(test, test.programs), 'seconds': test.seconds, 'programs': test.programs,
                'lines': test.lines}

    def _state(self, test, programs):
        """What a test depends on: its command, and the files that it names or runs."""
        files = [word for word in test.command if Path(word).is_file()]
        files += [str(self._scratch.build_folder / program) for program in programs]
        return ' '.join(test.command + [self._hash(file) for file in files])

    def _hash(self, file):
        if file not in self._hashes:
            self._hashes[file] = hashlib.sha1(Path(file).read_bytes()).hexdigest() if Path(file).is_file() else ''
        return self._hashes[file]


def lines_behind_calls(build_folder, program, tree):
    """The lines of src/ that a program runs between one call of the trace and the next, by the address behind the
    call."""
    path = str(Path(build_folder, program))
    rows = _line_table(path, build_folder, str(Path(tree).resolve()) + '/')
    addresses = [address for address, _ in rows]
    calls = _addresses_behind_calls(path)
    found = {}
    for address, end in zip(calls, calls[1:] + [float('inf')]):
        # The row before the first one tells the line that the code behind the call goes on with.
        first = max(bisect.bisect_right(addresses, address) - 1, 0)
        places = {place for _, place in rows[first:bisect.bisect_left(addresses, end)] if place}
        if places:
            found[address] = sorted(places)
    return found


def _line_table(path, build_folder, tree):
    """Sorted (address, (file, line)); the place is None outside src/."""
    said = subprocess.run(['objdump', '--dwarf=decodedline', path], capture_output=True, text=True, check=True).stdout
    groups, without_folder = [], {}  # rows of one file; where its folder is not told, its number by the first address
    for text in said.splitlines():
        row = ROW.match(text)
        if row and groups:
            groups[-1][1].append((int(row[3], 16), None if row[2] == '-' else int(row[2])))
            if '/' not in groups[-1][0]:
                without_folder.setdefault(len(groups) - 1, row[3])
        elif text.endswith((':', ':[++]')):
            groups.append([text[:text.rindex(':')], []])
    places = subprocess.run(['addr2line', '-e', path] + list(without_folder.values()), capture_output=True, text=True,
                            stdin=subprocess.DEVNULL, check=True).stdout.splitlines()
    for number, place in zip(without_folder, places):
        groups[number][0] = place.rsplit(':', 1)[0]
    table = []
    for name, rows in groups:
        whole = os.path.realpath(os.path.join(build_folder, name))
        file = whole[len(tree):] if whole.startswith(tree + 'src/') else None
        table += [(address, (file, line) if file and line else None) for address, line in rows]
    return sorted(table, key=lambda row: row[0])


def _addresses_behind_calls(path):
    said = subprocess.Popen(['objdump', '-d', '--no-show-raw-insn', path], stdout=subprocess.PIPE, text=True)
    found, is_behind_call = [], False
    for text in said.stdout:
        address = ADDRESS.match(text)
        if not address:
            continue
        if is_behind_call:
            found.append(int(address[1], 16))
        is_behind_call = CALL.match(text) is not None and 'call' in text
    said.wait()
    return sorted(found)
