"""One-line faults that can be planted in a C++ source: where, what kind, and the text with the fault in it."""

import re
from dataclasses import dataclass

TOKEN = re.compile(r"""
    (?P<comment>//[^\n]*|/\*.*?\*/)
  | (?P<directive>^[ \t]*\#(?:[^\n\\]|\\.|\\\n)*)
  | (?P<string>(?:u8|L|u|U)?R"(?P<delimiter>[^()\s\\]{0,16})\(.*?\)(?P=delimiter)"|(?:u8|L|u|U)?"(?:[^"\\\n]|\\.)*")
  | (?P<character>'(?:[^'\\\n]|\\.)+')
  | (?P<number>(?:0[xX][0-9a-fA-F']+|\d[\d']*(?:\.\d[\d']*)?(?:[eE][+-]?\d+)?)[a-zA-Z]*)
  | (?P<word>[A-Za-z_]\w*)
  | (?P<blank>\s+)
  | (?P<mark><=>|->\*|<<=|>>=|\.\.\.|::|->|\+\+|--|&&|\|\||[=!<>+\-*/%&|^]=|\[\[|\]\]|.)
""", re.VERBOSE | re.DOTALL | re.MULTILINE)

COMPARISONS = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}
COMBINED = {"&&": "||", "||": "&&"}
# What begins a statement that is no plain call or assignment.
NO_PLAIN_STATEMENT = {"return", "using", "if", "for", "while", "do", "switch", "case", "default", "const", "constexpr",
                      "auto", "static", "typedef", "break", "continue", "struct", "class", "enum", "namespace", "else",
                      "template", "friend", "public", "private", "protected", "extern", "goto", "throw", "try", "catch",
                      "thread_local", "static_assert", "inline", "explicit", "virtual", "mutable", "operator", "union",
                      "unsigned", "signed", "int", "char", "bool", "double", "float", "long", "short", "void",
                      "[[", "ZUN_CHECK", "ZUN_ASSERT", "ZUN_ASSERT_ON_QUEUE", "__extension__"}
OPENING, CLOSING = {"(": ")", "[": "]", "{": "}"}, {")": "(", "]": "[", "}": "{"}


@dataclass(frozen=True)
class Token:
    kind: str
    text: str
    start: int
    end: int


@dataclass(frozen=True)
class Fault:
    """The text between `start` and `end` becomes `replacement`."""
    kind: str
    start: int
    end: int
    replacement: str

    def plant(self, source):
        return source[:self.start] + self.replacement + source[self.end:]

    def line(self, source):
        return source.count("\n", 0, self.start) + 1


def tokens_of(source):
    found = []
    for match in TOKEN.finditer(source):
        kind = match.lastgroup if match.lastgroup != "delimiter" else "string"
        if kind not in ("blank", "comment", "directive"):
            found.append(Token(kind, match.group(), match.start(), match.end()))
    return found


def matching(tokens):
    """Index of the bracket that closes or opens each bracket."""
    partner, open_brackets = {}, []
    for index, token in enumerate(tokens):
        if token.kind != "mark":
            continue
        if token.text in OPENING:
            open_brackets.append(index)
        elif token.text in CLOSING and open_brackets and tokens[open_brackets[-1]].text == CLOSING[token.text]:
            first = open_brackets.pop()
            partner[first], partner[index] = index, first
    return partner


class Source:
    def __init__(self, text):
        self.text = text
        self.tokens = tokens_of(text)
        self.partner = matching(self.tokens)
        self.bodies = self._bodies()

    def _is_body(self, brace):
        """Whether this brace opens statements, rather than a type, a namespace or a list of values."""
        before = self.tokens[brace - 1] if brace else None
        if before is None or before.text in ("=", ",", "(", "return", "{", "[") and before.text != "{":
            return False
        first = brace
        while first and self.tokens[first - 1].text not in (";", "{", "}"):
            first -= 1
            if self.tokens[first].text == ")" and first in self.partner:
                first = self.partner[first]
        words = {token.text for token in self.tokens[first:brace]}
        if words & {"namespace", "class", "struct", "enum", "union"} and "(" not in words:
            return False
        if before.text in (")", "else", "do", "try", "const", "noexcept", "override", "final", "mutable", ";", "{", "}"):
            return True
        return before.text == ":" or ")" in words and ("->" in words or ":" in words)

    def _bodies(self):
        """Pairs of indices: the braces between which statements stand."""
        return [(index, self.partner[index]) for index, token in enumerate(self.tokens)
                if token.text == "{" and index in self.partner and self._is_body(index)]

    def behind_head(self, first):
        """The first token of what stands under "if (...)", "else" and the like without braces."""
        while self.tokens[first].text in ("if", "while", "for", "else"):
            first += 1
            if self.tokens[first].text == "constexpr":
                first += 1
            if self.tokens[first].text == "(" and first in self.partner:
                first = self.partner[first] + 1
        return first

    def statements(self):
        """(first, last) indices of the statements directly in a body, each with its semicolon."""
        for opening, closing in self.bodies:
            found, first, index = [], opening + 1, opening + 1
            while index < closing:
                text = self.tokens[index].text
                if text in OPENING and index in self.partner:
                    is_block = text == "{" and self._is_body(index)
                    index = self.partner[index]
                    if is_block and not (index + 1 < closing and self.tokens[index + 1].text in (")", ",", ";", "(")):
                        first = index + 1
                elif text == ";":
                    found.append((first, index))
                    first = index + 1
                elif text == ":" and self.tokens[first].text in ("case", "default"):
                    first = index + 1
                index += 1
            yield found


def blanks_around(source, token):
    return source.text[token.start - 1:token.start].isspace() and source.text[token.end:token.end + 1].isspace()


def operators(source):
    for token in source.tokens:
        if token.kind != "mark" or not blanks_around(source, token):
            continue
        if token.text in COMPARISONS:
            yield Fault("comparison", token.start, token.end, COMPARISONS[token.text])
        elif token.text in COMBINED:
            yield Fault("condition", token.start, token.end, COMBINED[token.text])


def constants(source):
    for index, token in enumerate(source.tokens):
        if token.text in ("true", "false"):
            yield Fault("constant", token.start, token.end, "false" if token.text == "true" else "true")
        elif token.kind == "number":
            digits = re.match(r"\d[\d']*$|\d[\d']*(?=[a-zA-Z]*$)", token.text)
            if digits and not token.text.lower().startswith("0x"):
                yield Fault("constant", token.start, token.start + digits.end(),
                            str(int(digits.group().replace("'", "")) + 1))


def conditions(source):
    for index, token in enumerate(source.tokens[:-1]):
        opening = index + 1
        if token.text != "if" or source.tokens[opening].text != "(" or opening not in source.partner:
            continue
        closing = source.partner[opening]
        inside, depth, start, name = source.tokens[opening + 1:closing], 0, source.tokens[opening].end, None
        for place, inner in enumerate(inside):
            depth += (inner.text in OPENING) - (inner.text in CLOSING)
            if depth == 0 and inner.text == ";":
                start, name = inner.end, None
            elif depth == 0 and inner.text == "=" and place and inside[place - 1].kind == "word":
                name = inside[place - 1].text
        end = source.tokens[closing].start
        if name:
            yield Fault("condition", end, end, f"; !({name})")
        else:
            if not any(inner.text in ("==", "!=") for inner in inside) or any(inner.text in COMBINED for inner in inside):
                yield Fault("condition", start, end, f"!({source.text[start:end].strip()})")


def is_plain(source, first, last):
    """A call or an assignment, not a declaration."""
    tokens = source.tokens[first:last]
    if not tokens or tokens[0].text in NO_PLAIN_STATEMENT or tokens[0].text in ("}", "{"):
        return False
    if tokens[0].text in ("++", "--", "*", "("):
        return True
    depth = 0
    for before, token in zip(tokens, tokens[1:]):
        depth += (before.text in OPENING) - (before.text in CLOSING)
        if depth:
            continue
        if token.text in ("=", "(", "+=", "-=", "++", "--", "|=", "&=", "<<", "{"):
            return token.text != "{"
        if token.kind == "word" and (before.kind == "word" or before.text in (">", "&", "*", "&&")):
            return False
    return False


SETTER = re.compile(r"(\w+)(\.|->)set[A-Z]\w*\(")


def are_setters_of_one(one, other):
    """Two properties of one object, set one after the other."""
    first, second = SETTER.match(one), SETTER.match(other)
    return bool(first and second and first.group(1) == second.group(1))


def is_assignment(source, first, last):
    depth = 0
    for token in source.tokens[first:last]:
        depth += (token.text in OPENING) - (token.text in CLOSING)
        if depth == 0 and token.text in ("=", "+=", "-=", "|=", "&="):
            return True
    return False


def statement_faults(source):
    for statements in source.statements():
        for place, (head, last) in enumerate(statements):
            first = source.behind_head(head)
            start, end = source.tokens[first].start, source.tokens[last].end
            if source.tokens[first].text == "return":
                continue
            if not is_plain(source, first, last):
                continue
            if ".reserve(" not in source.text[start:end]:  # room made in advance changes no outcome
                yield Fault("statement left out", start, end, ";")
            following = statements[place + 1] if place + 1 < len(statements) else None
            if head == first and following and following[0] == last + 1 and is_plain(source, *following):
                begin, finish = source.tokens[following[0]].start, source.tokens[following[1]].end
                one, other = source.text[start:end], source.text[begin:finish]
                # What two assignments leave behind seldom depends on their order.
                are_assignments = is_assignment(source, first, last) and is_assignment(source, *following)
                if one != other and not are_assignments and not are_setters_of_one(one, other):
                    yield Fault("calls swapped", start, finish, other + source.text[end:begin] + one)


def dropped_returns(source):
    """Returns that something follows: under a condition, or at the end of a conditional block."""
    ends = {closing: opening for opening, closing in source.bodies}
    for index, token in enumerate(source.tokens):
        if token.text != "return":
            continue
        last = index
        while last < len(source.tokens) and source.tokens[last].text != ";":
            last = source.partner.get(last, last) if source.tokens[last].text in OPENING else last
            last += 1
        if last >= len(source.tokens):
            continue
        is_conditional = source.tokens[index - 1].text in (")", "else")
        if not is_conditional:
            # What ends a whole function is what it gives; what ends a block under an "if" is an early return.
            head = ends.get(last + 1, 1) - 1
            if source.tokens[head].text != ")" or head not in source.partner:
                continue
            if source.tokens[source.partner[head] - 1].text not in ("if", "while", "for"):
                continue
        yield Fault("return dropped", token.start, source.tokens[last].end, "{}" if is_conditional else ";")


def faults_of(text):
    """Every fault that can be planted in this source, in the order of its places."""
    source = Source(text)
    found = [fault for kind in (operators, constants, conditions, statement_faults, dropped_returns)
             for fault in kind(source)]
    return sorted(set(found), key=lambda fault: (fault.start, fault.end, fault.replacement))
