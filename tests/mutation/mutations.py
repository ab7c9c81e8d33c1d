"""Every way in which a C++ file is broken. It is read as text that clang-format has laid out, token by token: a binary
operator has blanks on both sides, a template's brackets and a pointer's star have none. What does not compile all
the same is told by the compiler, and costs only its time."""

import bisect
import re
from dataclasses import dataclass

KINDS = """
comparison   < to <= and >=, and so on; == to !=
arithmetic   + to -, * to +, / and % to *, << to >>, and back
bits         & to |, and back; a ~ or a minus sign dropped
logic        && to ||, and back; a ! dropped
assignment   += to -=, |= to &=, and back
step         ++ to --, and back; before to after, where the value is used
number       one more, one less
truth        true to false, and back
character    another one
text         another character in the middle; the last one dropped; an empty text filled
condition    negated; taken for true, or for false, whatever it is
statement    dropped: a call, an assignment, return, throw, break, continue; a declaration that nothing uses
jump         break to continue, and back
result       what is returned negated, or empty
arguments    two neighbours swapped
name         min to max, find to rfind, front to back, first to last, and back
"""

OPERATORS = {
    '<': ('comparison', '<=', '>='), '>': ('comparison', '>=', '<='),
    '<=': ('comparison', '<', '>'), '>=': ('comparison', '>', '<'),
    '==': ('comparison', '!='), '!=': ('comparison', '=='),
    '+': ('arithmetic', '-'), '-': ('arithmetic', '+'), '*': ('arithmetic', '+'), '/': ('arithmetic', '*'),
    '%': ('arithmetic', '*'), '<<': ('arithmetic', '>>'), '>>': ('arithmetic', '<<'),
    '&': ('bits', '|'), '|': ('bits', '&'), '&&': ('logic', '||'), '||': ('logic', '&&'),
    '+=': ('assignment', '-='), '-=': ('assignment', '+='), '*=': ('assignment', '/='), '/=': ('assignment', '*='),
    '|=': ('assignment', '&='), '&=': ('assignment', '|='), '<<=': ('assignment', '>>='), '>>=': ('assignment', '<<='),
}
NAMES = {'min': 'max', 'find': 'rfind', 'front': 'back', 'find_first_of': 'find_last_of',
         'find_first_not_of': 'find_last_not_of', 'true': 'false'}
NAMES.update({after: before for before, after in NAMES.items()})

TOKEN = re.compile(r'''
    (?P<blank>\s+|//[^\n]*|/\*.*?\*/|\#(?:[^\n\\]|\\.)*)
  | (?P<text>(?:u8|[LuU])?R"(?P<mark>[^(\s]*)\(.*?\)(?P=mark)"|(?:u8|[LuU])?"(?:[^"\\\n]|\\.)*")
  | (?P<character>(?:u8|[LuU])?'(?:[^'\\\n]|\\.)+')
  | (?P<number>\d(?:[\w.']|[eEpP][+-])*)
  | (?P<name>[A-Za-z_]\w*)
  | (?P<sign><<=|>>=|\.\.\.|->\*|<=>|::|->|\+\+|--|&&|\|\||[-+*/%&|^<>=!]=|<<|>>|.)
  ''', re.VERBOSE | re.DOTALL)

OPENING = {'(': ')', '[': ']', '{': '}'}
ASSIGNING = ('=', '+=', '-=', '*=', '/=', '%=', '&=', '|=', '^=', '<<=', '>>=')
COMPARING = ('==', '!=', '<', '>', '<=', '>=')
NOT_CALLED = ('if', 'for', 'while', 'switch', 'return', 'sizeof', 'catch', 'alignas', 'decltype', 'noexcept',
              'static_assert', 'operator')
DECLARED_BY = ('const', 'constexpr', 'static', 'auto', 'using', 'typedef', 'struct', 'class', 'enum', 'template',
               'typename', 'union', 'friend', 'extern', 'public', 'private', 'protected', 'case', 'default',
               'thread_local', 'static_assert')
DECLARATION = re.compile(r'(?:\[\[|(?:' + '|'.join(DECLARED_BY) + r')\b'
                         r'|[\w:]+(?:<.*?>+)?[*&]*\s+(?:const\s+)?\w+\s*(?:[=({;[,]|$))', re.DOTALL)


@dataclass(frozen=True)
class Token:
    kind: str
    text: str
    start: int
    end: int


@dataclass(frozen=True)
class Mutant:
    """One change of one file: the text between two offsets becomes another. Lines count from 1."""
    file: str
    line: int
    first_line: int  # of the statement
    last_line: int
    kind: str
    start: int
    end: int
    before: str
    after: str
    old_lines: tuple  # the whole lines that change, without their outer blanks: what a mutant is known by
    new_lines: tuple

    def apply(self, source):
        return source[:self.start] + self.after + source[self.end:]

    def change(self):
        shorten = lambda text: ' '.join(text.split()) or 'nothing'
        return f'{self.kind}: {shorten(self.before)} -> {shorten(self.after)}'


class Source:
    """A file as tokens, with its brackets paired and its braces told apart: of code, of a type or a namespace, of a
    list of values."""

    def __init__(self, name, text):
        self.name = name
        self.text = text
        self.line_starts = [0] + [match.end() for match in re.finditer('\n', text)]
        self.tokens = [Token(match.lastgroup if match.lastgroup != 'mark' else 'text', match.group(), match.start(),
                             match.end())
                       for match in TOKEN.finditer(text) if match.lastgroup != 'blank']
        self.partner = {}
        self.enclosing = []  # of each token: the opening bracket around it, or None
        self.braces = {}  # of each opening brace: 'code', 'type' or 'list'
        self._pair_brackets()

    def _pair_brackets(self):
        open_brackets = []
        for index, token in enumerate(self.tokens):
            if token.kind == 'sign' and token.text in OPENING.values() and open_brackets:
                opening = open_brackets.pop()
                self.partner[opening], self.partner[index] = index, opening
            self.enclosing.append(open_brackets[-1] if open_brackets else None)
            if token.kind == 'sign' and token.text in OPENING:
                if token.text == '{':
                    self.braces[index] = self._kind_of_brace(index)
                open_brackets.append(index)

    def _kind_of_brace(self, index):
        before = self[index - 1]
        if before in (')', 'else', 'do', 'try', 'const', 'override', 'noexcept', '}', ';', '{', ':'):
            return 'list' if before == '{' and self.braces.get(index - 1) == 'list' else 'code'
        start = index
        while start > 0 and self[start - 1] not in (';', '}', '{'):
            start -= 1
        words = [token.text for token in self.tokens[start:index]]
        if {'namespace', 'struct', 'class', 'union'} & set(words) and '=' not in words and '(' not in words:
            return 'type'
        return 'list'

    def __getitem__(self, index):
        return self.tokens[index].text if 0 <= index < len(self.tokens) else ''

    def line_of(self, offset):
        return bisect.bisect_right(self.line_starts, offset)

    def lines_between(self, start, end):
        """The whole lines that hold the characters from start to end."""
        last = self.line_of(max(start, end - 1))
        to = self.line_starts[last] if last < len(self.line_starts) else len(self.text)
        return self.line_starts[self.line_of(start) - 1], to

    def is_in_code(self, index):
        around = self.enclosing[index]
        while around is not None:
            if self.braces.get(around) == 'code':
                return True
            if self.braces.get(around) == 'type':
                return False
            around = self.enclosing[around]
        return False

    def is_boundary(self, index):
        """Whether a statement begins behind this token or ends before it."""
        text = self[index]
        around = self.enclosing[index]
        if text == ';':
            return around is None or self[around] == '{'
        if text == '{':
            return self.braces[index] != 'list'
        return text == '}' and self.braces.get(self.partner.get(index)) != 'list'

    def statement(self, index):
        """First and last token of the statement, or of the head of the compound statement, around a token."""
        first = last = index
        while first > 0 and not self.is_boundary(first - 1):
            first -= 1
        while last + 1 < len(self.tokens) and not self.is_boundary(last + 1):
            last += 1
        return first, last

    def span(self, first, last):
        return self.tokens[first].start, self.tokens[last].end

    def words(self, first, last):
        return self.text[slice(*self.span(first, last))]

    def pieces(self, opening):
        """What stands between commas inside a bracket: pairs of first and last token."""
        found, first = [], opening + 1
        for index in range(opening + 1, self.partner[opening] + 1):
            at_end = index == self.partner[opening]
            if at_end or (self[index] == ',' and self.enclosing[index] == opening):
                if index > first:
                    found.append((first, index - 1))
                first = index + 1
        return found

    def outer_signs(self, first, last):
        """The operators that stand in no further bracket."""
        return [self[index] for index in range(first, last + 1)
                if self.tokens[index].kind == 'sign' and self.enclosing[index] == self.enclosing[first]
                and (self.is_binary(index) or self[index] == '?')]

    def declared_at(self, offset):
        """The name that the statement around a character declares, if it looks like a declaration; else None."""
        index = bisect.bisect_right([token.start for token in self.tokens], offset) - 1
        first, last = self.statement(index)
        for at in range(index, first - 1, -1):
            if self.tokens[at].kind == 'name' and self[at + 1] in ('=', '['):
                return self[at]
        return next((self[at] for at in range(first, last + 1)
                     if self.tokens[at].kind == 'name' and self[at + 1] in ('{', '(', ';')), None)

    def uses_of(self, name):
        """Where a name stands: its offset, and the first and the last line of the statement around it."""
        for index, token in enumerate(self.tokens):
            if token.text == name:
                start, end = self.span(*self.statement(index))
                yield token.start, self.line_of(start), self.line_of(end - 1)

    def is_binary(self, index):
        token = self.tokens[index]
        return self.text[token.start - 1].isspace() and self.text[token.end:token.end + 1].isspace()


def mutants_of(name, text):
    """Every mutant of a file, in the order of the file."""
    source = Source(name, text)
    found = {}
    for index in range(len(source.tokens)):
        for kind, first, last, after in _changes_at(source, index):
            mutant = _mutant(source, index, kind, *source.span(first, last), after)
            found.setdefault(mutant.apply(text), mutant)
    found.pop(text, None)
    return sorted(found.values(), key=lambda mutant: (mutant.start, mutant.end, mutant.after))


def _mutant(source, index, kind, start, end, after):
    from_line, to_line = source.lines_between(start, end)
    old, new = _that_differ(source.text[from_line:to_line],
                            source.text[from_line:start] + after + source.text[end:to_line])
    statement_start, statement_end = source.span(*source.statement(index))
    return Mutant(source.name, source.line_of(start), source.line_of(statement_start),
                  source.line_of(statement_end - 1), kind, start, end, source.text[start:end], after, old, new)


def _that_differ(old, new):
    old, new = ([line.strip() for line in text.splitlines()] for text in (old, new))
    if len(old) == len(new):
        pairs = [pair for pair in zip(old, new) if pair[0] != pair[1]]
        old, new = zip(*pairs) if pairs else ((), ())
    return tuple(old), tuple(new)


def _changes_at(source, index):
    """The changes of one token, and of what begins with it: kind, first token, last token, new text."""
    token = source.tokens[index]
    if _is_only_for_the_compiler(source, index):
        return
    if token.kind == 'number':
        yield from _numbers(index, token.text)
    elif token.kind == 'character':
        yield 'character', index, index, _other_character(token.text)
    elif token.kind == 'text':
        for after in _other_texts(token.text):
            yield 'text', index, index, after
    elif token.kind == 'name':
        yield from _names(source, index)
    else:
        yield from _signs(source, index)
    if _begins_statement(source, index):
        yield from _statements(source, index)


def _is_only_for_the_compiler(source, index):
    first, last = source.statement(index)
    if source[first] in ('static_assert', 'using', 'namespace', 'extern', 'friend', 'typedef'):
        return True
    around = source.enclosing[index]
    if around is not None and source[around] == '[' and source[around + 1] == '[':
        return True  # an attribute
    is_last_zero = source[index] == '0' and source[index - 1] == '=' and source[index - 2] in (')', 'const', 'noexcept')
    return is_last_zero and index == last - 1  # a function without a body


def _numbers(index, text):
    match = re.fullmatch(r"(0[xX][\da-fA-F']+|0[bB][01']+|[\d']+)([uUlLzZ]*)", text)
    if match is None:
        return
    digits = match.group(1).replace("'", '')
    is_octal = len(digits) > 1 and digits[0] == '0' and digits.isdigit()
    value = int(digits, 8 if is_octal else 0)
    show = '{:#x}' if digits[:2].lower() == '0x' else '0{:o}' if is_octal else '{}'
    yield 'number', index, index, show.format(value + 1) + match.group(2)
    if value > 0:
        yield 'number', index, index, show.format(value - 1) + match.group(2)


def _other_character(text):
    start = text.index("'") + 1
    inside = text[start:-1]
    other = chr(ord(inside) + 1) if len(inside) == 1 else 'x'
    return text[:start] + ('x' if other in "'\\" else other) + "'"


def _other_texts(text):
    if 'R"' in text[:4]:
        return
    start = text.index('"') + 1
    characters = re.findall(r'\\(?:x[\da-fA-F]+|[0-7]{1,3}|.)|[^\\]', text[start:-1])
    if not characters:
        yield text[:start] + 'x"'
        return
    yield text[:start] + ''.join(characters[:-1]) + '"'
    middle = len(characters) // 2
    other = characters[middle]
    other = chr(ord(other) + 1) if other.isalnum() and other not in 'zZ9' else '.' if other != '.' else ','
    yield text[:start] + ''.join(characters[:middle] + [other] + characters[middle + 1:]) + '"'


def _names(source, index):
    text = source[index]
    if text in NAMES and (text in ('true', 'false') or source[index + 1] == '('):
        yield 'truth' if text in ('true', 'false') else 'name', index, index, NAMES[text]
    if text in ('if', 'while', 'for') and source[index + 1] == '(':
        yield from _conditions(source, index)
    if source[index + 1] in ('(', '{') and text not in NOT_CALLED and source.is_in_code(index):
        yield from _swapped(source, index + 1)


def _signs(source, index):
    text = source[index]
    if text in OPERATORS and source.is_binary(index) and not _is_stream_operator(source, index):
        kind, *others = OPERATORS[text]
        for other in others:
            yield kind, index, index, other
    elif text in ('!', '~', '-') and source.is_in_code(index) and not source.is_binary(index):
        yield 'logic' if text == '!' else 'bits', index, index, ''
    elif text in ('++', '--'):
        yield 'step', index, index, '--' if text == '++' else '++'
        yield from _step_turned(source, index)
    elif text == '?':
        yield from _ternary(source, index)
    if text in ('(', '{') and source[index - 1] in ('(', ',', '=', '>') and source.is_in_code(index):
        yield from _swapped(source, index)


def _is_stream_operator(source, index):
    if source[index] not in ('<<', '>>'):
        return False
    first, last = source.statement(index)
    is_printed = any(token.kind == 'text' or token.text == 'cout' for token in source.tokens[first:last + 1])
    return is_printed or source[index] == '>>' and source.tokens[index + 1].kind == 'name'


def _step_turned(source, index):
    """x++ to ++x and back, where somebody looks at the value."""
    first = last = index
    if re.fullmatch(r'\w+', source[index - 1]):
        first -= 1
        while re.fullmatch(r'\w+|\.|->|::', source[first - 1]):
            first -= 1
        turned = source[index] + source.words(first, index - 1)
    else:
        last += 1
        while source[last + 1] in ('.', '->', '::'):
            last += 2
        turned = source.words(index + 1, last) + source[index]
    if source[first - 1] in ('(', ',', '=', '[', '<', '>', '<=', '>=', '==', '!=', '+', '-', 'return', '*'):
        yield 'step', first, last, turned


def _conditions(source, index):
    opening = index + 1
    first, last = opening + 1, source.partner[opening] - 1
    parts = [at for at in range(first, last + 1) if source[at] == ';' and source.enclosing[at] == opening]
    if source[index] == 'for':
        if len(parts) != 2:
            return
        first, last = parts[0] + 1, parts[1] - 1
    elif parts:
        first = parts[-1] + 1
    if first > last or any(sign in ASSIGNING for sign in source.outer_signs(first, last)):
        return
    yield from _negated(source, 'condition', first, last)
    yield 'condition', first, last, 'false'
    if source[index] == 'if':
        yield 'condition', first, last, 'true'


def _ternary(source, index):
    first = index
    while first > 0 and source.enclosing[first - 1] is not None:
        before = source[first - 1]
        if before in OPENING.values() and first - 1 in source.partner:
            first = source.partner[first - 1]
        elif before in ASSIGNING or before in OPENING or before in (',', ';', 'return', '?', ':', '}'):
            break
        else:
            first -= 1
    if first < index:
        yield from _negated(source, 'condition', first, index - 1)


def _negated(source, kind, first, last):
    """Left out where another change does the same: one comparison, or one thing behind a !."""
    signs = [sign for sign in source.outer_signs(first, last) if sign in COMPARING + ('&&', '||')]
    if len(signs) == 1 and signs[0] in COMPARING or not signs and source[first] == '!':
        return
    yield kind, first, last, f'!({source.words(first, last)})'


def _swapped(source, opening):
    if opening not in source.partner:
        return
    if source[opening] == '{' and source.braces.get(opening) != 'list':
        return
    pieces = source.pieces(opening)
    for (first, last), (next_first, next_last) in zip(pieces, pieces[1:]):
        left, right = source.words(first, last), source.words(next_first, next_last)
        if left.count('<') == left.count('>') and not DECLARATION.match(left):
            between = source.text[source.tokens[last].end:source.tokens[next_first].start]
            yield 'arguments', first, next_last, right + between + left


def _begins_statement(source, index):
    around = source.enclosing[index]
    if around is None or source.braces.get(around) != 'code':
        return False
    before = index - 1
    if source.is_boundary(before) or source[before] in ('else', 'do'):
        return True
    if source[before] == ':':
        return source[before - 2] == 'case' or source[before - 1] == 'default'
    return source[before] == ')' and source[source.partner[before] - 1] in ('if', 'for', 'while', 'switch')


def _end_of_statement(source, index):
    around = source.enclosing[index]
    while index < len(source.tokens) and not (source[index] == ';' and source.enclosing[index] == around):
        if source.is_boundary(index):
            return None
        index += 1
    return index if index < len(source.tokens) else None


def _statements(source, index):
    end = _end_of_statement(source, index)
    word = source[index]
    if end is None or word in ('if', 'for', 'while', 'do', 'switch', 'else', 'try', 'case', 'default', ';', '{', '}'):
        return
    if word in ('break', 'continue'):
        yield 'jump', index, index, 'continue' if word == 'break' else 'break'
    if word == 'return':
        yield from _results(source, index + 1, end - 1)
        if source.is_boundary(index - 1) and source[end + 1] == '}':
            return  # behind it nothing is left to be done
    elif word not in ('delete', 'throw', 'break', 'continue', 'goto') and _is_needed_declaration(source, index, end):
        return
    yield 'statement', index, end, ';'


def _is_needed_declaration(source, first, end):
    match = DECLARATION.match(source.words(first, end))
    if match is None:
        return False
    if source[first] in ('using', 'typedef', 'struct', 'class', 'enum', 'template', 'union', 'static_assert'):
        return True
    declared = [source[index] for index in range(first, end)
                if source.tokens[index].kind == 'name' and source[index + 1] in ('=', '(', '{', ';')
                and source.enclosing[index] == source.enclosing[first]]
    return not declared or sum(token.text == declared[0] for token in source.tokens) > 1


def _results(source, first, last):
    if first > last:
        return
    returned = source.words(first, last)
    if returned not in ('true', 'false', 'nullptr', '{}', '""') and not re.fullmatch(r'-?\d+', returned):
        yield 'result', first, last, '{}'
    if source.tokens[first].kind == 'name' and last > first or source[first] == '!':
        yield from _negated(source, 'result', first, last)
