"""What is written down: every result as one JSON line, the table, the list of survivors."""
import json
from collections import Counter
from dataclasses import asdict
from pathlib import Path

from mutants import Mutant
from trial import NO_CHANGE, NOT_COMPILED, NOTICED, SURVIVED, Result

COLUMNS = (NOTICED, SURVIVED, NO_CHANGE, NOT_COMPILED)


def read_results(file: Path) -> list[Result]:
    if not file.exists():
        return []
    found = []
    for line in file.read_text().splitlines():
        read = json.loads(line)
        found.append(Result(Mutant(**read.pop('mutant')), **read))
    return found


def append_result(file: Path, result: Result) -> None:
    with file.open('a') as out:
        out.write(json.dumps(asdict(result)) + '\n')


def latest(results: list[Result]) -> list[Result]:
    """The last result of each mutant."""
    return list({result.mutant.key(): result for result in results}.values())


def share(counts: Counter) -> float:
    """Noticed, of those that a test could notice."""
    tried = counts[NOTICED] + counts[SURVIVED]
    return counts[NOTICED] / tried if tried else 1.0


def row(name: str, counts: Counter) -> str:
    figures = ''.join(f'{counts[column]:>14}' for column in COLUMNS)
    return f'{name:<28}{sum(counts.values()):>8}{figures}{100 * share(counts):>9.1f} %'


def table(results: list[Result]) -> str:
    files: dict[str, Counter] = {}
    for result in sorted(results, key=lambda result: result.mutant.file):
        files.setdefault(result.mutant.file, Counter())[result.result] += 1
    head = f"{'file':<28}{'mutants':>8}" + ''.join(f'{column:>14}' for column in COLUMNS)
    rows = [row(name, counts) for name, counts in files.items()]
    return '\n'.join([head, *rows, row('all', sum(files.values(), Counter()))])


def survivors(results: list[Result]) -> list[str]:
    found = [result.mutant for result in results if result.result == SURVIVED]
    return [mutant.text() for mutant in sorted(found, key=lambda m: (m.file, m.start, m.new))]
