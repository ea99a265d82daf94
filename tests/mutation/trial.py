"""Trying one mutant: is it noticed, and by which test?"""
import hashlib
import re
import threading
import time
from dataclasses import dataclass
from pathlib import Path

from builds import AREAS, MODULE, Build, Module, Workplace
from mutants import Mutant
from suites import Suites, Test, run_tests

NOTICED, SURVIVED = 'noticed', 'survived'
NO_CHANGE, NOT_COMPILED = 'no change', 'not compiled'

FIRST, SECOND = 2.0, 10.0    # seconds of tests that are tried before the rest


@dataclass(frozen=True)
class Result:
    mutant: Mutant
    result: str
    by: str           # the test, and how it noticed
    seconds: float


class Choice:
    """Which tests are worth trying on a mutant, and in what order."""

    def __init__(self, suites: Suites, sources: dict[str, str]):
        self.suites = suites
        self.lines = {name: text.splitlines() for name, text in sources.items()}
        self.killers: list[tuple[str, int, str]] = []   # file, line, test

    def tests(self, mutant: Mutant) -> list[Test]:
        numbers = self.running(mutant)
        tests = [self.suites.tests[number] for number in sorted(numbers)]
        near = {test: abs(line - mutant.line) for file, line, test in self.killers
                if file == mutant.file and abs(line - mutant.line) <= 8}
        words = max(re.findall(r'\w[\w .:(]{3,}', mutant.old), key=len, default='')

        def rank(test: Test) -> tuple:
            says = bool(words) and mutant.kind == 'text' and words in test.words
            return (not says, near.get(test.name, 99), test.seconds)
        return sorted((test for test in tests if test.name not in self.suites.failing), key=rank)

    def running(self, mutant: Mutant) -> set[int]:
        """The tests that run the line; none when nothing ever does. A line without code of its own
        belongs to the statements around it and to all that name what is defined there."""
        table = self.suites.lines.get(mutant.file, {})
        if mutant.line in table:
            return set(table[mutant.line])
        before = max((line for line in table if line < mutant.line), default=0)
        after = min((line for line in table if line > mutant.line), default=0)
        found = set(table.get(before, [])) | set(table.get(after, []))
        defined = '\n'.join(self.lines[mutant.file][before:mutant.line])
        for name in re.findall(r'\b(k[A-Z]\w*)(?:\[\])? = ', defined):
            found |= self.naming(name)
        return found

    def naming(self, name: str) -> set[int]:
        found: set[int] = set()
        for file, lines in self.lines.items():
            table = self.suites.lines.get(file, {})
            for number, line in enumerate(lines, 1):
                if number in table and re.search(rf'\b{name}\b', line):
                    found |= set(table[number])
        return found

    def learn(self, mutant: Mutant, by: str) -> None:
        self.killers.append((mutant.file, mutant.line, by.split()[0]))


class Bench:
    """What all threads share."""

    def __init__(self, build: Build, module: Module, choice: Choice, sources: dict[str, str],
                 compiler: list[str], linker: list[str]):
        self.build = build
        self.module = module
        self.module_lock = threading.Lock()
        self.choice = choice
        self.sources = sources
        self.compiler = compiler    # options of its own
        self.linker = linker
        self.originals: dict[str, str] = {}     # hash of each object without a change
        self.original_lock = threading.Lock()


class Worker:
    """One mutant at a time, in a folder of its own."""

    def __init__(self, bench: Bench, name: str):
        self.bench = bench
        self.place = Workplace(bench.build, name)

    def try_out(self, mutant: Mutant) -> Result:
        began = time.monotonic()
        result, by = self.judged(mutant)
        if result == NOTICED:
            self.bench.choice.learn(mutant, by)
        return Result(mutant, result, by, round(time.monotonic() - began, 1))

    def judged(self, mutant: Mutant) -> tuple[str, str]:
        text = self.bench.sources[mutant.file]
        units = self.bench.build.reached_by(mutant.file)
        originals = [self.original(unit) for unit in units]
        file = self.place.folder / 'src' / mutant.file
        file.write_text(mutant.applied_to(text))
        try:
            if not all(self.place.compiled(unit, self.bench.compiler) for unit in units):
                return NOT_COMPILED, ''
        finally:
            file.write_text(text)
        if [digest(self.place.object_of(unit)) for unit in units] == originals:
            return NO_CHANGE, ''
        by = self.first_to_notice(mutant, units)
        return (NOTICED, by) if by else (SURVIVED, '')

    def original(self, unit: str) -> str:
        """Compiled here, so that only the change makes a difference."""
        with self.bench.original_lock:
            if unit not in self.bench.originals:
                if not self.place.compiled(unit, self.bench.compiler):
                    raise RuntimeError(f'{unit} does not compile')
                self.bench.originals[unit] = digest(self.place.object_of(unit))
            return self.bench.originals[unit]

    def first_to_notice(self, mutant: Mutant, units: list[str]) -> str:
        tests = self.bench.choice.tests(mutant)
        programs: dict[str, Path] = {'drovane': self.bench.build.folder / 'tests/drovane_tests'}
        for batch in batches([test for test in tests if not test.loads_module]):
            by = self.by_programs(batch, units, programs)
            if by:
                return by
        # Last, because there is only one place where the real program looks for the module.
        rest = [test for test in tests if test.loads_module]
        if not rest:
            return ''
        made = self.link(MODULE, units)
        with self.bench.module_lock:
            self.bench.module.put(made)
            try:
                return self.by_programs(rest, units, programs)
            finally:
                self.bench.module.restore()

    def by_programs(self, tests: list[Test], units: list[str], programs: dict[str, Path]) -> str:
        for program in (*AREAS, 'drovane'):
            own = [test for test in tests if test.program == program]
            if own and program not in programs:
                programs[program] = self.link(f'tests/{program}_tests', units)
            by = noticed(programs[program], own) if own else ''
            if by:
                return by
        return ''

    def link(self, target: str, units: list[str]) -> Path:
        return self.place.link(target, units, self.bench.linker)


def digest(file: Path) -> str:
    return hashlib.sha256(file.read_bytes()).hexdigest()


def batches(tests: list[Test]) -> list[list[Test]]:
    """The first few, some more, and all others: most mutants are noticed by the first."""
    parts: list[list[Test]] = [[], [], []]
    total = 0.0
    for test in tests:
        total += test.seconds
        parts[0 if total < FIRST else 1 if total < FIRST + SECOND else 2].append(test)
    return [part for part in parts if part]


def noticed(program: Path, tests: list[Test]) -> str:
    """The test that fails, twice: one that fails once may be the machine's doing. It is left out
    then."""
    while tests:
        failed = run_tests(program, tests, {}).failed
        if not failed:
            return ''
        name = failed.split()[0]
        suspects = [test for test in tests if test.name == name]
        again = run_tests(program, suspects or tests, {}).failed
        if again:
            return again
        tests = [test for test in tests if test.name != name] if suspects else []
    return ''
