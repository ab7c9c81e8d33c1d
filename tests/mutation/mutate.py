"""Breaks src/ and sees whether a test notices. See scripts/mutate."""

import argparse
import difflib
import os
import random
import shutil
import sys
import threading
from collections import Counter, defaultdict
from dataclasses import dataclass
from pathlib import Path

import mutations
import scratch
import touched

ROOT = Path(__file__).resolve().parents[2]
WORK = ROOT / 'build' / 'mutation'
SURVIVORS = WORK / 'survivors'
WITHOUT_EFFECT = Path(__file__).with_name('without_effect.txt')
ANYTHING = '<any>'

DESCRIPTION = f"""Breaks src/ in a copy, each time in one place, and runs the tests that touch it. A mutant is killed
when a test fails or takes too long; one that does not compile is replaced by another. Ends with the count, with what
survived as differences in {SURVIVORS.relative_to(ROOT)}/, and with status 1 when something did. What changes nothing
that anybody could see is listed, with the reason, in {WITHOUT_EFFECT.relative_to(ROOT)}."""


@dataclass
class Verdict:
    mutant: mutations.Mutant
    outcome: str  # killed, survived, without effect, does not compile
    how: str = ''


class Output:
    """One line for each mutant, and on a terminal one that moves, below them."""

    def __init__(self):
        self._moves = sys.stderr.isatty()
        self._lock = threading.Lock()

    def line(self, text):
        with self._lock:
            self._wipe()
            print(text, flush=True)

    def progress(self, text):
        with self._lock:
            self._wipe()
            if self._moves:
                print(text[:shutil.get_terminal_size().columns - 1], end='', file=sys.stderr, flush=True)

    def _wipe(self):
        if self._moves:
            print('\r\033[K', end='', file=sys.stderr, flush=True)


class Exceptions:
    """The mutants that are known to have no effect: the lines of a difference, then the reason, then an empty line.
    A + line that is missing, or <any> in a line, stands for everything."""

    def __init__(self, text):
        told = '\n'.join(line for line in text.splitlines() if line[:1] != '#')
        self.entries = [_entry(block.strip('\n').splitlines()) for block in told.split('\n\n') if block.strip()]

    def find(self, mutant):
        return next((entry for entry in self.entries if _is_meant(entry, mutant)), None)

    def stale(self, mutants):
        return [entry for entry in self.entries if not any(_is_meant(entry, mutant) for mutant in mutants)]


def _entry(lines):
    old = tuple(line[1:].strip() for line in lines if line[0] == '-' and not line.startswith('--- '))
    new = tuple(line[1:].strip() for line in lines if line[0] == '+' and not line.startswith('+++ '))
    file = next((line[4:].strip() for line in lines if line.startswith('--- ')), '').removeprefix('a/')
    reason = ' '.join(line.strip() for line in lines if line[0] not in '-+@ ')
    if not file or not old:
        raise SystemExit(f'{WITHOUT_EFFECT.name}: no file or no - line in: {lines[0]}')
    return file, old, new, reason


def _is_meant(entry, mutant):
    file, old, new, _ = entry
    return file == mutant.file and _alike(old, mutant.old_lines) and (not new or _alike(new, mutant.new_lines))


def _alike(patterns, lines):
    return len(patterns) == len(lines) and all(map(_matches, patterns, lines))


def _matches(pattern, line):
    pieces = pattern.split(ANYTHING)
    if len(pieces) == 1:
        return pattern == line
    return (line.startswith(pieces[0]) and line.endswith(pieces[-1])
            and len(line) >= len(pieces[0]) + len(pieces[-1]) and all(piece in line for piece in pieces))


class Tests:
    """The tests that touch a mutant, the likeliest killer first."""
    FOLDERS = ('unit', 'exhaustive', 'faults', 'system')

    def __init__(self, tests, sources):
        self._tests = tests
        self._by_place = defaultdict(set)
        for index, test in enumerate(tests):
            for file, lines in test.lines.items():
                for line in lines:
                    self._by_place[file, line].add(index)
        self._sources = sources
        self._kills = Counter()  # (file, name of the test)

    def touching(self, mutant):
        """Programs in the order in which to try them, as (names of programs to be built, tests)."""
        found = self._at(mutant) or self._at_uses(mutant.file, mutant.start, set())
        if not found:
            found = {index for (file, _), tests in self._by_place.items() if file == mutant.file for index in tests}
        by_program = defaultdict(list)
        for index in found:
            by_program[self._tests[index].command[0]].append(self._tests[index])
        groups = sorted(by_program.values(), key=lambda tests: self._rank(tests, mutant.file))
        return [self._group(tests, mutant.file) for tests in _few_first(groups)]

    def has_killed(self, test, file):
        self._kills[file, test.name] += 1

    def _at(self, mutant):
        return self._in_lines(mutant.file, mutant.first_line, mutant.last_line)

    def _in_lines(self, file, first, last):
        return set().union(*(self._by_place.get((file, line), ()) for line in range(first, last + 1)))

    def _at_uses(self, file, offset, seen):
        """What is no code, like a constant, is touched where its name stands."""
        name = self._sources[file].declared_at(offset)
        if not name or name in seen:
            return set()
        seen.add(name)
        found = set()
        for used_in, source in self._sources.items():
            for start, first, last in source.uses_of(name):
                found |= self._in_lines(used_in, first, last) or self._at_uses(used_in, start, seen)
        return found

    def _rank(self, tests, file):
        """Those of the unit first, and among them the one that runs little besides this file."""
        folder = tests[0].name.split('.')[0]
        share = sum(len(test.lines.get(file, ())) / sum(map(len, test.lines.values())) for test in tests) / len(tests)
        return (-sum(self._kills[file, test.name] for test in tests),
                self.FOLDERS.index(folder) if folder in self.FOLDERS else len(self.FOLDERS), -share, tests[0].name)

    def _group(self, tests, file):
        programs = sorted({program for test in tests for program in test.programs})
        return programs, sorted(tests, key=lambda test: (-self._kills[file, test.name], test.seconds, test.name))


def _few_first(groups):
    """The likeliest three programs one by one; the rest at once, since most of their tests wait."""
    rest = [test for tests in groups[3:] for test in tests]
    return groups[:3] + ([rest] if rest else [])


class Worker:
    """Tries mutants in a scratch folder of its own."""

    def __init__(self, folder, first, tests):
        self._folder = folder
        self._first = first
        self._tests = tests
        self._broken = None  # the file that is not as it was

    def judge(self, mutant, text):
        if self._broken and self._broken[0] != mutant.file:
            self.mend()
        self._broken = (mutant.file, text)
        self._folder.write(mutant.file, mutant.apply(text))
        chance = ''
        for programs, tests in self._tests.touching(mutant):
            try:
                self._folder.build(programs)
            except scratch.BuildFailed:
                return Verdict(mutant, 'does not compile')
            killer, chance_here = self._killer([self._first.translated(test, self._folder) for test in tests])
            chance = chance or chance_here
            if killer:
                self._tests.has_killed(killer[0], mutant.file)
                return Verdict(mutant, 'killed', f'{killer[0].name.split("  #")[0]} {killer[1]}')
        if self._folder.makes_same_code(mutant.file, text, mutant.apply(text)):
            return Verdict(mutant, 'without effect', 'the compiler makes the same code of it')
        return Verdict(mutant, 'survived', chance)

    def _killer(self, tests):
        """The first test that fails, and fails again when it runs alone."""
        chance = ''
        while tests:
            failure = self._folder.run(tests, stop_at_failure=True)
            if failure is None:
                break
            again = self._folder.run([failure[0]])
            if again:
                return again, chance
            chance = f'{failure[0].name} {failure[1]} once, and not alone'
            tests = [test for test in tests if test.name != failure[0].name]
        return None, chance

    def mend(self):
        if self._broken:
            self._folder.write(*self._broken)
            self._broken = None


class Run:
    """Draws mutants until as many as wanted were judged."""

    def __init__(self, drawn, count, exceptions, texts, output):
        self._waiting = drawn
        self._count = count
        self._exceptions = exceptions
        self._texts = texts
        self._output = output
        self._lock = threading.Lock()
        self._batch = []
        self.verdicts = []
        self._judged = 0
        self._on_the_way = 0

    def work(self, worker):
        try:
            while True:
                mutant = self._next()
                if mutant is None:
                    break
                self._take(self._judge(worker, mutant))
        finally:
            worker.mend()

    def _next(self):
        """Whole batches are sorted by file: what was compiled for one mutant serves the next."""
        with self._lock:
            missing = self._count - self._judged - self._on_the_way
            if not self._batch and missing > 0:
                self._batch = sorted(self._waiting[:missing], key=lambda mutant: (mutant.file, mutant.start))
                del self._waiting[:missing]
                self._on_the_way += len(self._batch)
            return self._batch.pop(0) if self._batch else None

    def _judge(self, worker, mutant):
        entry = self._exceptions.find(mutant)
        if entry:
            return Verdict(mutant, 'without effect', entry[3])
        return worker.judge(mutant, self._texts[mutant.file])

    def _take(self, verdict):
        with self._lock:
            self._on_the_way -= 1
            self._judged += verdict.outcome != 'does not compile'
            self.verdicts.append(verdict)
            mutant, how = verdict.mutant, f': {verdict.how}' if verdict.how else ''
            self._output.line(f'{mutant.file}:{mutant.line}: {mutant.change()}: {verdict.outcome}{how}')
            self._output.progress(f'{self._judged} of {self._count}')


def main():
    options = read_options()
    texts, mutants = all_mutants()
    exceptions = Exceptions(WITHOUT_EFFECT.read_text(encoding='utf-8'))
    stale = exceptions.stale(mutants)
    for file, old, new, _ in stale:
        print(f'{WITHOUT_EFFECT.name}: no such mutant: {file}: {" ".join(old)} -> {" ".join(new) or "anything"}',
              file=sys.stderr)
    drawn = draw(options, mutants)
    if options.list:
        for mutant in sorted(drawn[:options.count], key=lambda mutant: (mutant.file, mutant.start, mutant.after)):
            print(f'{mutant.file}:{mutant.line}: {mutant.change()}')
        return 1 if stale else 0
    count = min(options.count, len(drawn))
    try:
        verdicts = judge_all(drawn, count, exceptions, texts, options.jobs)
    except scratch.BuildFailed as failure:
        print(f'scripts/mutate: without any mutant: {str(failure)[-3000:]}', file=sys.stderr)
        return 2
    survived = tell(verdicts, texts)
    return 1 if survived or stale else 0


def read_options():
    parser = argparse.ArgumentParser(prog='scripts/mutate', description=DESCRIPTION, allow_abbrev=False,
                                     epilog='What is broken:' + mutations.KINDS,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument('--seed', type=int, default=1, help='which mutants are drawn; the same ones each time (1)')
    parser.add_argument('--count', type=positive, default=100, help='how many (100)')
    parser.add_argument('--jobs', type=positive, default=os.cpu_count(), help='how many at once, each with a copy of '
                        'its own (one for each processor)')
    parser.add_argument('--list', action='store_true', help='only lists what is drawn')
    parser.add_argument('file', nargs='*', metavar='FILE', help='only of this file of src/; or, where it ends in '
                        '.diff, the mutants in it, as they were written down')
    options = parser.parse_args()
    for name in options.file:
        if not Path(name).is_file():
            parser.error(f'{name}: no such file')
        if not name.endswith('.diff') and not Path(name).resolve().is_relative_to(ROOT / 'src'):
            parser.error(f'{name}: not a file of src/')
    return options


def positive(text):
    if not text.isdecimal() or int(text) == 0:
        raise argparse.ArgumentTypeError(f'expected a number above 0, not {text}')
    return int(text)


def all_mutants():
    files = sorted(path for path in (ROOT / 'src').rglob('*') if path.suffix in ('.cpp', '.h'))
    texts = {str(path.relative_to(ROOT)): path.read_text(encoding='utf-8') for path in files}
    return texts, [mutant for file, text in texts.items() for mutant in mutations.mutants_of(file, text)]


def draw(options, mutants):
    files = {str(Path(name).resolve().relative_to(ROOT)) for name in options.file if not name.endswith('.diff')}
    told = [entry for name in options.file if name.endswith('.diff')
            for entry in Exceptions(Path(name).read_text(encoding='utf-8')).entries]
    if options.file:
        mutants = [mutant for mutant in mutants
                   if mutant.file in files or any(_is_meant(entry, mutant) for entry in told)]
    return random.Random(options.seed).sample(mutants, len(mutants))


def judge_all(drawn, count, exceptions, texts, jobs):
    output = Output()
    folders = [scratch.Scratch(WORK / str(number + 1)) for number in range(min(jobs, count))]
    for number, folder in enumerate(folders):
        output.progress(f'building copy {number + 1} of {len(folders)}')
        folder.prepare(ROOT)
    tests = measure(folders, output)
    run = Run(drawn, count, exceptions, texts, output)
    touching = Tests(tests, {file: mutations.Source(file, text) for file, text in texts.items()})
    threads = [threading.Thread(target=run.work, args=[Worker(folder, folders[0], touching)]) for folder in folders]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    return run.verdicts


def measure(folders, output):
    tests, failed = touched.Trace(folders[0], WORK / 'touched.json').measure(
        folders[0].tests(), scratch.TESTS_AT_ONCE * len(folders), output.progress)
    for test in failed:
        output.line(f'not used, since it fails without any mutant: {test.name}')
    return tests


def tell(verdicts, texts):
    """Writes the survivors down and prints the count. How many survived."""
    shutil.rmtree(SURVIVORS, ignore_errors=True)
    survivors = sorted((verdict.mutant for verdict in verdicts if verdict.outcome == 'survived'),
                       key=lambda mutant: (mutant.file, mutant.start))
    for number, mutant in enumerate(survivors):
        SURVIVORS.mkdir(parents=True, exist_ok=True)
        text = texts[mutant.file]
        difference = difflib.unified_diff(text.splitlines(True), mutant.apply(text).splitlines(True),
                                          'a/' + mutant.file, 'b/' + mutant.file)
        name = f'{number + 1:03}-{Path(mutant.file).name}-{mutant.line}.diff'
        (SURVIVORS / name).write_text(''.join(difference), encoding='utf-8')
    outcomes = Counter(verdict.outcome for verdict in verdicts)
    judged = outcomes['killed'] + outcomes['survived']
    share = f', {100 * outcomes["killed"] / judged:.1f} % of {judged}' if judged else ''
    print(f'{outcomes["killed"]} killed{share}; {outcomes["survived"]} survived; {outcomes["without effect"]} without '
          f'effect; {outcomes["does not compile"]} that do not compile replaced')
    if survivors:
        print(f'survivors: {SURVIVORS.relative_to(ROOT)}/')
    return len(survivors)


if __name__ == '__main__':
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit('scripts/mutate: interrupted')
