"""What can be changed in a source: the mutants of a file, one small change each."""
import re
from dataclasses import dataclass
from pathlib import Path
from typing import Iterator

OPERATORS = {
    '==': ['!='], '!=': ['=='], '<': ['<=', '>='], '<=': ['<', '>'], '>': ['>=', '<='],
    '>=': ['>', '<'], '&&': ['||'], '||': ['&&'], '+': ['-'], '-': ['+'], '*': ['/'], '/': ['*'],
    '%': ['*'], '+=': ['-='], '-=': ['+='], '&': ['|'], '|': ['&'], '|=': ['&='], '&=': ['|='],
}
STEPS = {'++': '--', '--': '++'}

# No statement that begins with one of these is a call or an assignment.
KEYWORDS = set('''auto break case catch class const constexpr continue default delete do else enum
    explicit extern for friend goto if inline namespace new operator private protected public return
    sizeof static static_assert struct switch template throw try typedef typename union using
    virtual void volatile while'''.split())

TOKEN = re.compile(r'''
    (?P<directive>^[ \t]*\#(?:[^\n]*\\\n)*[^\n]*) | (?P<comment>//[^\n]*|/\*.*?\*/) |
    (?P<raw>R"(?P<fence>[^(]*)\(.*?\)(?P=fence)") | (?P<string>"(?:\\.|[^"\\\n])*") |
    (?P<character>'(?:\\.[^']*|[^'\\\n])') | (?P<number>\.?\d(?:['\w.]|(?<=[eE])[+-])*) |
    (?P<word>[A-Za-z_]\w*) |
    (?P<sign><=>|<<=|>>=|->\*|\.\.\.|\.\*|->|::|\+\+|--|<<|>>|[-+*/%&|^=!<>]=|&&|\|\||[^\s\w"'])
    ''', re.VERBOSE | re.DOTALL | re.MULTILINE)


@dataclass(frozen=True)
class Token:
    kind: str
    text: str
    start: int

    @property
    def end(self) -> int:
        return self.start + len(self.text)


@dataclass(frozen=True)
class Mutant:
    """`old` at `start` of the file becomes `new`."""
    file: str  # below src/
    line: int
    column: int
    kind: str
    start: int
    old: str
    new: str

    def key(self) -> tuple[str, int, int, str, str]:
        return (self.file, self.line, self.column, self.old, self.new)

    def text(self) -> str:
        old, new = (' '.join(text.split()) for text in (self.old, self.new))
        return f'{self.file}:{self.line}:{self.column}: {old} -> {new or "(nothing)"}'

    def applied_to(self, source: str) -> str:
        return source[:self.start] + self.new + source[self.start + len(self.old):]


class Source:
    """The tokens of a file that may be changed, and what is put in their place."""

    def __init__(self, root: Path, file: str):
        self.file = file
        self.text = (root / file).read_text()
        self.tokens = without_fixed_parts(list(tokens_of(self.text)))
        self.sizes = set(re.findall(r'\[(k\w+)', self.text)) if file.endswith('.h') else set()

    def mutants(self) -> list[Mutant]:
        found: dict[tuple, Mutant] = {}
        for kind, start, end, new in self.changes():
            line = self.text.count('\n', 0, start) + 1
            column = start - self.text.rfind('\n', 0, start)
            mutant = Mutant(self.file, line, column, kind, start, self.text[start:end], new)
            found.setdefault((start, end, new), mutant)
        return sorted(found.values(), key=lambda mutant: mutant.start)

    def changes(self) -> Iterator[tuple[str, int, int, str]]:
        for at, token in enumerate(self.tokens):
            if self.decides_layout(token):
                continue
            for kind, new in self.changes_of(at, token):
                yield kind, token.start, token.end, new
            for kind, last, new in self.larger_changes(at, token):
                begin = self.tokens[at + 2].start if kind == 'condition' else token.start
                yield kind, begin, self.tokens[last].end, new

    def changes_of(self, at: int, token: Token) -> Iterator[tuple[str, str]]:
        if token.kind == 'number':
            yield from (('constant', new) for new in other_numbers(token.text))
        elif token.kind == 'word' and token.text in ('true', 'false'):
            yield 'constant', 'false' if token.text == 'true' else 'true'
        elif token.kind in ('string', 'character'):
            yield from (('text', new) for new in other_texts(token))
        elif token.kind == 'sign':
            yield from (('operator', new) for new in self.other_signs(at, token))

    def other_signs(self, at: int, token: Token) -> list[str]:
        """The formatter puts blanks around a binary operator and nothing that looks alike."""
        around = self.text[token.start - 1], self.text[token.end]
        before = self.tokens[at - 1].text if at > 0 else ''
        if before in ('operator', 'template'):
            return []
        if token.text in STEPS:
            return [STEPS[token.text]]
        if token.text in ('!', '~'):
            return ['']
        return OPERATORS.get(token.text, []) if all(c.isspace() for c in around) else []

    def decides_layout(self, token: Token) -> bool:
        """In a header: the tests are compiled with the original one and have to fit it."""
        if not self.file.endswith('.h'):
            return False
        begin = self.text.rfind('\n', 0, token.start) + 1
        line = self.text[begin:self.text.find('\n', token.start)]
        named = re.search(r'constexpr \w+ (k\w+) =', line)
        return 'enum' in line or '[' in line or bool(named and named[1] in self.sizes)

    def larger_changes(self, at: int, token: Token) -> Iterator[tuple[str, int, str]]:
        """Kind, last token, and what comes instead."""
        if token.kind != 'word':
            return
        if token.text in ('if', 'while') and self.tokens[at + 1].text == '(':
            last = closing(self.tokens, at + 1) - 1
            for value in ('true', 'false') if token.text == 'if' else ('false',):
                yield 'condition', last, value
        elif token.text in ('break', 'continue'):
            other = 'continue' if token.text == 'break' else 'break'
            yield from (('jump', at, new) for new in ('', other))
        elif token.text == 'return':
            last = end_of_statement(self.tokens, at) - 1
            if end_of_statement(self.tokens, at) - at > 2:
                yield 'statement', last, 'return {}'
        elif begins_statement(self.tokens, at):
            end = end_of_statement(self.tokens, at)
            if self.tokens[end].text == ';' and acts(self.tokens[at:end]):
                yield 'statement', end - 1, ''


def tokens_of(text: str) -> Iterator[Token]:
    for match in TOKEN.finditer(text):
        kind = str(match.lastgroup)
        if kind == 'fence':
            kind = 'raw'
        if kind not in ('directive', 'comment'):
            yield Token(kind, match.group(), match.start())


def closing(tokens: list[Token], at: int) -> int:
    """The index of the bracket that closes the one at `at`."""
    depth = 0
    for index in range(at, len(tokens)):
        if tokens[index].text in ('(', '[', '{'):
            depth += 1
        elif tokens[index].text in (')', ']', '}'):
            depth -= 1
            if depth == 0:
                return index
    raise ValueError('a bracket is never closed')


def without_fixed_parts(tokens: list[Token]) -> list[Token]:
    """Leaves out what is checked while compiling and what only describes."""
    kept: list[Token] = []
    at = 0
    while at < len(tokens):
        if tokens[at].text in ('static_assert', '__attribute__'):
            at = closing(tokens, at + 1)
        elif tokens[at].text == 'extern':
            at += 1
        else:
            kept.append(tokens[at])
        at += 1
    return kept


def begins_statement(tokens: list[Token], at: int) -> bool:
    if at == 0 or tokens[at].text in KEYWORDS:
        return False
    before = tokens[at - 1].text
    return before in (';', '{', '}', 'else', 'do', ')')


def end_of_statement(tokens: list[Token], at: int) -> int:
    """The index of its semicolon, or of where it turns out to be no statement."""
    while tokens[at].text not in (';', ')', ']', '}'):
        at = closing(tokens, at) + 1 if tokens[at].text in ('(', '[', '{') else at + 1
        if at == len(tokens):
            return at - 1
    return at


def acts(tokens: list[Token]) -> bool:
    """Whether a statement is a call or an assignment, and no declaration."""
    depth = 0
    assigns = False
    for before, token in zip([None, *tokens], tokens):
        if token.text in ('(', '[', '{'):
            depth += 1
        elif token.text in (')', ']', '}'):
            depth -= 1
        elif depth == 0 and token.text in ('=', '+=', '-=', '|=', '&='):
            assigns = True
        elif depth == 0 and not assigns and token.kind == 'word' and before is not None:
            if before.kind == 'word' or before.text in ('>', '*', '&', '&&'):
                return False
    return assigns or (len(tokens) > 2 and tokens[-1].text == ')')


def other_numbers(text: str) -> list[str]:
    plain = text.replace("'", '')
    if not re.fullmatch(r'\d+|0[xX][0-9a-fA-F]+', plain):
        return [f'({text} + 1)', '0', f'(-{text})']
    value = int(plain, 0) if plain.startswith(('0x', '0X')) else int(plain)
    return [str(value + 1)] if value == 0 else [str(value + 1), '0', f'(-{text})']


def other_texts(token: Token) -> list[str]:
    body = token.text[1:-1]
    if token.kind == 'character':
        return ["'\\r'" if body == '\\n' else "'y'" if body == 'x' else "'x'"]
    if body == '':
        return ['"x"']
    # Neither an escape nor a conversion: the change is one of the text alone.
    parts = re.finditer(r'\\(?:x[0-9a-fA-F]+|[0-7]+|.)|%[-+ #0-9.*]*[hlzjt]*[a-zA-Z%]|(.)', body)
    places = [part.start() for part in parts if part[1]]
    words = [place for place in places if body[place].isalnum()] or places
    if not words:
        return ['""']
    place = words[len(words) // 2]
    other = 'y' if body[place] == 'x' else 'x'
    return [f'"{body[:place]}{other}{body[place + 1:]}"', '""']


def all_mutants(root: Path, files: list[str]) -> list[Mutant]:
    return [mutant for file in files for mutant in Source(root, file).mutants()]
