"""Compiling and linking with a part of the sources changed, by the commands of the build itself."""
import json
import os
import shlex
import shutil
import subprocess
from pathlib import Path

AREAS = ('generic_net', 'lua')          # their tests link the objects
MODULE = 'lib/drovane/generic_net.so'   # what the program loads


class Build:
    """The unchanged build: its folder, its objects and the commands that made them."""

    def __init__(self, root: Path, folder: Path):
        self.root = root
        self.folder = folder
        self.sources = folder / 'source'    # as they were built; the others may be edited meanwhile
        self.compile: dict[str, tuple[str, list[str]]] = {}   # source: object, command
        self.links: dict[str, list[str]] = {}                 # target: command
        self.reached: dict[str, list[str]] = {}

    def make(self) -> None:
        configure = ['cmake', '-S', str(self.root), '-B', str(self.folder), '-G', 'Ninja',
                     '-DCMAKE_BUILD_TYPE=Debug', '-DCMAKE_CXX_FLAGS_DEBUG=-O1',
                     '-DDROVANE_TESTS=ON']
        subprocess.run(configure, check=True, stdout=subprocess.DEVNULL)
        subprocess.run(['cmake', '--build', str(self.folder), '--target', 'generic_net_tests',
                        'lua_tests', 'drovane_tests'], check=True)
        shutil.rmtree(self.sources, ignore_errors=True)
        shutil.copytree(self.root / 'src', self.sources)

    def read_commands(self) -> None:
        for entry in json.loads((self.folder / 'compile_commands.json').read_text()):
            source = os.path.relpath(entry['file'], self.root / 'src')
            if 'generic_net_objects.dir' in entry['command']:
                command = quiet(shlex.split(entry['command']))
                self.compile[source] = (command[command.index('-o') + 1], command)
        for target in [f'tests/{area}_tests' for area in AREAS] + [MODULE]:
            self.links[target] = self.link_command(target)

    def link_command(self, target: str) -> list[str]:
        steps = subprocess.run(['ninja', '-C', str(self.folder), '-t', 'commands', target],
                               check=True, capture_output=True, text=True).stdout
        for step in steps.splitlines()[-1].split('&&'):
            words = shlex.split(step.replace(r'\$', '$'))
            if '-o' in words and words[words.index('-o') + 1] == target:
                return words
        raise ValueError(f'no command links {target}')

    def precompile(self) -> list[str]:
        """The libraries' headers, read once for all mutants; the options that put them to use."""
        sources = [file for file in self.sources.rglob('*')
                   if file.parent.name in ('lua', 'generic_net') and file.suffix in ('.cpp', '.h')]
        lines = {line for file in sources for line in file.read_text().splitlines()
                 if line.startswith('#include <')}
        header = self.folder / 'libraries.h'
        header.write_text('\n'.join(sorted(lines)) + '\n')
        _, command = next(iter(self.compile.values()))
        command = command[:command.index('-o')] + ['-w', '-g0', '-x', 'c++-header', str(header),
                                                   '-o', f'{header}.gch']
        subprocess.run(command, cwd=self.folder, check=True)
        return ['-include', str(header)]

    def reached_by(self, file: str) -> list[str]:
        """The sources that a change of this one, or of this header, reaches."""
        if file not in self.reached:
            self.reached[file] = [file] if file in self.compile else self.includers(file)
        return self.reached[file]

    def includers(self, header: str) -> list[str]:
        wanted = str(self.root / 'src' / header)
        found = []
        for source, (made, _) in self.compile.items():
            deps = subprocess.run(['ninja', '-C', str(self.folder), '-t', 'deps', made],
                                  check=True, capture_output=True, text=True).stdout
            if any(os.path.normpath(line.strip()) == wanted for line in deps.splitlines()):
                found.append(source)
        return found


class Workplace:
    """A copy of the sources and what is compiled and linked from it; one thread at a time."""

    def __init__(self, build: Build, name: str):
        self.build = build
        self.folder = build.folder / name
        shutil.rmtree(self.folder, ignore_errors=True)
        shutil.copytree(build.sources, self.folder / 'src')

    def object_of(self, source: str) -> Path:
        return self.folder / (Path(source).name + '.o')

    def compiled(self, source: str, options: list[str]) -> bool:
        _, command = self.build.compile[source]
        original = str(self.build.root / 'src')
        command = [word.replace(original, str(self.folder / 'src')) for word in command]
        command[command.index('-o') + 1] = str(self.object_of(source))
        done = subprocess.run(command + options, cwd=self.build.folder, capture_output=True)
        return done.returncode == 0

    def link(self, target: str, sources: list[str], options: list[str]) -> Path:
        """The target with these sources' objects in place of the build's."""
        made = self.folder / Path(target).name
        own = {self.build.compile[source][0]: str(self.object_of(source)) for source in sources}
        command = [own.get(word, word) for word in self.build.links[target]]
        command[command.index('-o') + 1] = str(made)
        done = subprocess.run(command + options, cwd=self.build.folder, capture_output=True,
                              text=True)
        if done.returncode != 0:
            raise RuntimeError(f'{target} could not be linked: {done.stderr}')
        return made


class Module:
    """The module in the build's folder, which the real program loads, with another in its place for
    a while."""

    def __init__(self, build: Build):
        self.place = build.folder / MODULE
        self.aside = self.place.with_suffix('.original')
        self.restore()

    def put(self, other: Path) -> None:
        self.place.rename(self.aside)
        shutil.copy(other, self.place)

    def restore(self) -> None:
        if self.aside.exists():
            self.aside.replace(self.place)


def quiet(command: list[str]) -> list[str]:
    """Without a compiler cache, and without warnings: a change is none of the author's mistakes."""
    if Path(command[0]).name == 'ccache':
        command = command[1:]
    kept = [word for word in command if not word.startswith('-W')]
    return [*kept, '-w', '-g0']
