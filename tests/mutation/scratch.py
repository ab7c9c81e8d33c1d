"""A copy of the tree with a build folder of its own, and the tests that ctest finds there."""

import filecmp
import json
import os
import re
import shlex
import shutil
import signal
import subprocess
import sys
import time
from dataclasses import dataclass, field
from pathlib import Path

# What takes minutes, runs other people's programs, or never runs src/, as in `scripts/test --coverage`.
LEFT_OUT = re.compile(r'(analysis|boards|documents|fuzz|interop|lint|load|package|scripts|virtual_bench)\.|system\.scripts')
TESTS_AT_ONCE = 8  # most wait for the network or the clock
PATIENCE_SECONDS = 10  # and PATIENCE_FACTOR times what the test takes otherwise
PATIENCE_FACTOR = 5
POLL_SECONDS = 0.01
FLAGS = '-O0 -g1 -w -fmax-errors=1 -fsanitize-coverage=trace-pc'
WITHOUT_TRACE = '__attribute__((visibility("hidden"))) void __sanitizer_cov_trace_pc(void) {}\n'
MARK = 'MUTATION_RUN'  # stands in the environment of whatever a test starts


class BuildFailed(Exception):
    """Carries what the compiler or CMake said."""


@dataclass
class Test:
    """A test of ctest, and what it was seen to do without any mutant."""
    name: str
    command: list
    folder: str
    environment: dict
    skipped_status: int
    seconds: float = 0
    programs: list = field(default_factory=list)  # of the build folder, which it runs
    lines: dict = field(default_factory=dict)  # of each file, which it runs

    def time_limit(self):
        return PATIENCE_SECONDS + PATIENCE_FACTOR * self.seconds


class Scratch:
    def __init__(self, folder):
        self.folder = Path(folder)
        self.tree = self.folder / 'tree'
        self.build_folder = self.folder / 'build'
        self._runs = 0

    def prepare(self, root):
        """Copies the tree and builds everything. A file that is the same keeps its time, so that little is built
        again."""
        _copy_tree(Path(root), self.tree)
        self.build_folder.mkdir(parents=True, exist_ok=True)
        trace, without = self.folder / 'trace.o', self.folder / 'without_trace.o'
        _call(['gcc', '-O2', '-fPIC', '-c', str(Path(__file__).with_name('trace.c')), '-o', str(trace)])
        _call(['gcc', '-fPIC', '-c', '-x', 'c', '-', '-o', str(without)], WITHOUT_TRACE)
        _call(['cmake', '-S', str(self.tree), '-B', str(self.build_folder), '-G', 'Ninja',
               '-DCMAKE_BUILD_TYPE=', '-DCMAKE_EXPORT_COMPILE_COMMANDS=ON', '-DBUILD_TESTING=ON',
               '-DCMAKE_CXX_COMPILER=g++',
               f'-DCMAKE_CXX_FLAGS={FLAGS}', f'-DCMAKE_EXE_LINKER_FLAGS={trace}',
               f'-DCMAKE_SHARED_LINKER_FLAGS={without}',
               '-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST'])
        self.build([], shown=sys.stderr.isatty())

    def build(self, programs, shown=False):
        """Builds these programs, or everything. Throws BuildFailed."""
        _call(['ninja', '-C', str(self.build_folder)] + programs, shown=shown)

    def write(self, file, text):
        (self.tree / file).write_text(text, encoding='utf-8')

    def makes_same_code(self, file, text, other):
        """Whether two texts of a file become the same instructions, compiled as they are shipped."""
        code = []
        for version in (text, other):
            self.write(file, version)
            code.append([_call(command) for command in self._commands_to_see_code_of(file)])
        return code[0] == code[1]

    def _commands_to_see_code_of(self, file):
        for entry in json.loads((self.build_folder / 'compile_commands.json').read_text()):
            source = os.path.relpath(entry['file'], self.tree)
            if source == file or file.endswith('.h') and source.startswith('src/'):
                words = [word for word in shlex.split(entry['command']) if word not in FLAGS.split()]
                yield words[:words.index('-o')] + ['-O2', '-DNDEBUG', '-w', '-S', '-o', '-', entry['file']]

    def tests(self):
        """The tests that can run src/, each as it was registered."""
        listed = _call(['ctest', '--test-dir', str(self.build_folder), '--show-only=json-v1'])
        found = []
        for entry in json.loads(listed)['tests']:
            properties = {item['name']: item['value'] for item in entry.get('properties', [])}
            judged_by_text = any(name.startswith(('PASS_', 'FAIL_', 'WILL_FAIL')) for name in properties)
            if LEFT_OUT.match(entry['name']) or properties.get('LABELS') or judged_by_text or 'command' not in entry:
                continue
            found.append(Test(entry['name'], entry['command'],
                              properties.get('WORKING_DIRECTORY', str(self.build_folder)),
                              dict(item.split('=', 1) for item in properties.get('ENVIRONMENT', [])),
                              properties.get('SKIP_RETURN_CODE', 0)))
        return found

    def translated(self, test, other):
        """The same test in another scratch folder."""
        here, there = str(self.folder) + '/', str(other.folder) + '/'
        move = lambda text: text.replace(here, there)
        return Test(test.name, [move(word) for word in test.command], move(test.folder),
                    {name: move(value) for name, value in test.environment.items()}, test.skipped_status,
                    test.seconds, test.programs, test.lines)

    def run(self, tests, at_once=TESTS_AT_ONCE, stop_at_failure=False, environment_of=lambda test: {}, ended=None):
        """Runs tests side by side. Calls ended(test, outcome, seconds) for each: '' when it passed, else what it did.
        Returns the first that failed, as (test, outcome), or None."""
        self._runs += 1
        mark = f'{self.folder}:{os.getpid()}:{self._runs}'
        waiting, running, failure = list(reversed(tests)), [], None
        try:
            while running or waiting and not (failure and stop_at_failure):
                while waiting and len(running) < at_once:
                    test = waiting.pop()
                    environment = {**os.environ, **test.environment, **environment_of(test), MARK: mark}
                    running.append((test, _start(test, environment), time.monotonic()))
                time.sleep(POLL_SECONDS)
                still_running = []
                for test, process, since in running:
                    outcome = _outcome(test, process, time.monotonic() - since)
                    if outcome is None:
                        still_running.append((test, process, since))
                        continue
                    if ended:
                        ended(test, outcome, time.monotonic() - since)
                    if outcome and not failure:
                        failure = (test, outcome)
                running = still_running
                if failure and stop_at_failure:
                    break
        finally:
            for _, process, _ in running:
                _end(process)
            _end_marked(mark)
        return failure


def _start(test, environment):
    process = subprocess.Popen(test.command, cwd=test.folder, env=environment, stdin=subprocess.DEVNULL,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True)
    try:  # a mutant that takes all memory is to end before anything else does
        Path(f'/proc/{process.pid}/oom_score_adj').write_text('1000')
    except OSError:
        pass
    return process


def _outcome(test, process, seconds):
    """None while it runs."""
    status = process.poll()
    if status is None:
        if seconds < test.time_limit():
            return None
        _end(process)
        return 'ran out of time'
    return '' if status in (0, test.skipped_status) else 'failed'


def _end(process):
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait()


def _end_marked(mark):
    """Ends, one by one, what the tests of this run have left behind."""
    for entry in os.listdir('/proc'):
        try:
            if entry.isdigit() and f'{MARK}={mark}\0'.encode() in Path('/proc', entry, 'environ').read_bytes():
                os.kill(int(entry), signal.SIGKILL)
        except OSError:
            pass  # has ended, or is somebody else's


def _call(command, text=None, shown=False):
    done = subprocess.run(command, input=text, text=True, stdout=None if shown else subprocess.PIPE,
                          stderr=None if shown else subprocess.STDOUT)
    if done.returncode != 0:
        raise BuildFailed(done.stdout or f'{command[0]} failed')
    return done.stdout


def _files_of(root):
    found = set()
    for folder, folders, names in os.walk(root):
        here = Path(folder).relative_to(root)
        folders[:] = [name for name in folders if name not in ('.git', '__pycache__') and str(here / name) != 'build']
        found.update(here / name for name in names if name != '.git')
    return found


def _copy_tree(root, copy):
    wanted = _files_of(root)
    for path in wanted:
        source, target = root / path, copy / path
        if target.is_file() and filecmp.cmp(source, target, shallow=False):
            continue
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(source, target)
        shutil.copymode(source, target)
    for path in _files_of(copy) - wanted:
        (copy / path).unlink()
