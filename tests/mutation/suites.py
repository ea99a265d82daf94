"""The tests: what they are, how long each takes, which lines each of them runs."""
import json
import os
import re
import resource
import select
import shutil
import signal
import subprocess
import time
from collections import defaultdict
from concurrent.futures import ThreadPoolExecutor
from dataclasses import asdict, dataclass, field, replace
from pathlib import Path

from builds import AREAS, MODULE, Build, Module, Workplace

MEMORY = 4 << 30        # bytes of address space of a test process
OUTPUT = 256 << 20      # bytes that it may write into one file
SILENCE = 25.0          # seconds without a word from it, beyond what the tests take, that end it


@dataclass(frozen=True)
class Test:
    program: str    # generic_net, lua or drovane
    name: str
    loads_module: bool   # looks at the module in the build's folder
    seconds: float
    words: str      # its source text


@dataclass
class Outcome:
    failed: str = ''     # the test that noticed something, with how


@dataclass
class Suites:
    """All tests, and for each line of a source the numbers of those that run it."""
    tests: list[Test] = field(default_factory=list)
    lines: dict[str, dict[int, list[int]]] = field(default_factory=dict)
    failing: list[str] = field(default_factory=list)   # without any change; they tell nothing

    def save(self, file: Path) -> None:
        file.write_text(json.dumps({'tests': [asdict(test) for test in self.tests],
                                    'lines': self.lines,
                                    'failing': self.failing}))

    @staticmethod
    def load(file: Path) -> 'Suites':
        read = json.loads(file.read_text())
        lines = {name: {int(line): tests for line, tests in table.items()}
                 for name, table in read['lines'].items()}
        return Suites([Test(**test) for test in read['tests']], lines, read['failing'])


def limited() -> None:
    resource.setrlimit(resource.RLIMIT_AS, (MEMORY, MEMORY))
    resource.setrlimit(resource.RLIMIT_FSIZE, (OUTPUT, OUTPUT))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def run_tests(program: Path, tests: list[Test], environment: dict[str, str]) -> Outcome:
    """Runs the tests in one process, until one fails, falls silent or ends the process."""
    limit = SILENCE + 4 * max(test.seconds for test in tests)
    # A colon is what separates the names; the list is too long for one argument at times.
    names = {'GTEST_FILTER': ':'.join(test.name for test in tests), 'GTEST_FAIL_FAST': '1',
             'GTEST_COLOR': 'no'}
    process = subprocess.Popen([program], env={**os.environ, **environment, **names},
                               stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                               stderr=subprocess.DEVNULL, preexec_fn=limited,
                               start_new_session=True)
    said = ''
    silent_since = time.monotonic()
    try:
        while time.monotonic() - silent_since < limit:
            chunk = next_words(process)
            if chunk == '' and has_ended(process):
                break
            if chunk:
                silent_since = time.monotonic()
            said = (said + chunk)[-20000:]
        status = end(process) if has_ended(process) else None
        return verdict(status, said)
    finally:
        end(process)


def next_words(process: subprocess.Popen) -> str:
    """What it says within a moment."""
    assert process.stdout is not None
    ready, _, _ = select.select([process.stdout], [], [], 0.05)
    if not ready:
        return ''
    chunk = os.read(process.stdout.fileno(), 1 << 16)
    if not chunk:
        time.sleep(0.05)    # closed; the process itself may live on
    return chunk.decode(errors='replace')


def has_ended(process: subprocess.Popen) -> bool:
    """Leaves its number taken, so that no other process can have it before `end`."""
    return process.returncode is not None or os.waitid(
        os.P_PID, process.pid, os.WEXITED | os.WNOHANG | os.WNOWAIT) is not None


def end(process: subprocess.Popen) -> int:
    """With everything that it has started. Its status."""
    if process.returncode is None:
        os.killpg(process.pid, signal.SIGKILL)
        process.wait()
    if process.stdout is not None:
        process.stdout.close()
    return process.returncode


def verdict(status: int | None, said: str) -> Outcome:
    if status == 0:
        return Outcome()
    failed = re.findall(r'^\[  FAILED  \] ([\w/]+\.[\w/]+)', said, re.MULTILINE)
    begun = re.findall(r'^\[ RUN      \] (\S+)', said, re.MULTILINE)
    name = (failed or begun[-1:] or ['(none)'])[0]
    how = 'failed' if failed else 'time-out' if status is None else f'ended with {status}'
    return Outcome(f'{name} {how}')


def listed(build: Build, program: str) -> list[Test]:
    """The tests of a program, in no known time yet."""
    listing = build.folder / f'{program}.json'
    subprocess.run([build.folder / f'tests/{program}_tests', '--gtest_list_tests',
                    f'--gtest_output=json:{listing}'], check=True, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL)
    suites = json.loads(listing.read_text())['testsuites']
    cases = [(suite['name'], case) for suite in suites for case in suite['testsuite']]
    starts: dict[str, list[int]] = defaultdict(list)
    for _, case in cases:
        starts[case['file']].append(case['line'])
    sources = {file: Path(file).read_text().splitlines() for file in starts}
    found = []
    for suite, case in cases:
        lines = sources[case['file']]
        later = [line for line in starts[case['file']] if line > case['line']]
        words = '\n'.join(lines[case['line'] - 1:min(later, default=len(lines) + 1) - 1])
        module = program == 'drovane' or any(name in words for name in loading(lines))
        found.append(Test(program, f"{suite}.{case['name']}", module, 0.0, words))
    return found


def loading(lines: list[str]) -> set[str]:
    """The names that stand on the lines with the path of the module: who uses them loads it."""
    return {name for line in lines if 'DROVANE_PLUGINS' in line
            for name in re.findall(r'\b(?:k[A-Z]|[A-Z][a-z])\w+', line)}


def measured(build: Build, module: Module, jobs: int, say) -> Suites:
    """Runs each test once, with counters in the sources."""
    place = Workplace(build, 'coverage')
    sources = list(build.compile)
    options = ['-O0', '--coverage', '-fprofile-update=atomic']
    with ThreadPoolExecutor(jobs) as pool:
        if not all(pool.map(lambda source: place.compiled(source, options), sources)):
            raise RuntimeError('the sources do not compile with counters')
    flush = str(Path(__file__).parent / 'flush.cpp')
    at_exit = ['--coverage', '-std=c++20', flush, '-DFLUSH_AT_EXIT', '-Wl,--wrap=_exit']
    programs = {area: place.link(f'tests/{area}_tests', sources, at_exit) for area in AREAS}
    programs['drovane'] = build.folder / 'tests/drovane_tests'
    tests = [test for program in programs for test in listed(build, program)]
    often = ['--coverage', '-std=c++20', '-fPIC', flush, '-Wl,-z,nodelete']
    module.put(place.link(MODULE, sources, often))
    suites = Suites()
    try:
        with ThreadPoolExecutor(jobs) as pool:
            runs = [pool.submit(measure, place, programs[test.program], test, number)
                    for number, test in enumerate(tests)]
            for number, run in enumerate(runs):
                test, ran = run.result()
                suites.tests.append(test)
                note(suites, number, ran)
                if not test.seconds:
                    suites.failing.append(test.name)
                say(f'{number + 1} of {len(runs)} tests measured')
    finally:
        module.restore()
    return suites


def measure(place: Workplace, program: Path, test: Test,
            number: int) -> tuple[Test, dict[str, dict[int, bool]]]:
    """The test with its time, 0 when it fails however often it is tried."""
    counts = place.folder / f'counts-{number}'
    environment = {'GCOV_PREFIX': str(counts), 'GCOV_PREFIX_STRIP': '99'}
    for _ in range(3):
        shutil.rmtree(counts, ignore_errors=True)
        counts.mkdir()
        began = time.monotonic()
        if not run_tests(program, [test], environment).failed:
            seconds = round(time.monotonic() - began, 3)
            ran = counted(place, counts)
            shutil.rmtree(counts)
            return replace(test, seconds=seconds), ran
    return test, {}


def counted(place: Workplace, counts: Path) -> dict[str, dict[int, bool]]:
    """For each source its lines that hold code, and whether they were run."""
    data = []
    for notes in place.folder.glob('*.gcno'):
        if (counts / notes.name).with_suffix('.gcda').exists():
            (counts / notes.name).symlink_to(notes)
            data.append(notes.with_suffix('.gcda').name)
    if not data:
        return {}
    shown = subprocess.run(['gcov', '--json-format', '--stdout', '-r', '-s',
                            place.folder / 'src', *data], cwd=counts, check=True,
                           capture_output=True, text=True).stdout
    ran: dict[str, dict[int, bool]] = defaultdict(dict)
    for unit in shown.splitlines():
        for source in json.loads(unit)['files']:
            name = source['file'].removeprefix(f'{place.folder}/src/')
            for line in source['lines']:
                at = line['line_number']
                ran[name][at] = ran[name].get(at, False) or line['count'] > 0
    return ran


def note(suites: Suites, number: int, ran: dict[str, dict[int, bool]]) -> None:
    for name, lines in ran.items():
        table = suites.lines.setdefault(name, {})
        for line, run in lines.items():
            table.setdefault(line, [])
            if run:
                table[line].append(number)
