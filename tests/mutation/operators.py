# SPDX-License-Identifier: MIT
"""Where a C++ source can be changed in one place, and to what.

Works on the tokens of sources laid out by clang-format: an operator with a space on both sides is a binary one,
so that template brackets, pointers and references are told from comparisons, products and sums.
"""
import re
from typing import NamedTuple


class Mutant(NamedTuple):
    start: int  # place in the text
    end: int
    new: str
    kind: str


class Token(NamedTuple):
    start: int
    end: int
    text: str


TOKEN = re.compile(
    r"""(?P<skip>//[^\n]* | /\*.*?\*/ | ^[ \t]*\#(?:\\\n|[^\n])* | \s+)
      | (?P<text>R"\((?s:.*?)\)" | u?L?"(?:\\.|[^"\\\n])*" | L?'(?:\\.|[^'\\\n])*')
      | (?P<token>[A-Za-z_]\w* | (?:0[xX][0-9A-Fa-f']+|\d[\d'.]*)[uUlLfF]*
          | ->\*? | \+\+ | -- | <<= | >>= | <=> | << | >> | <= | >= | == | != | && | \|\| | :: | [-+*/%&|^]= | .)""",
    re.VERBOSE | re.MULTILINE | re.DOTALL)

COMPARISON = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}
ARITHMETIC = {"+": "-", "-": "+", "*": "/", "/": "*", "%": "/", "+=": "-=", "-=": "+=", "<<": ">>", ">>": "<<",
              "&": "|", "|": "&", "^": "&", "|=": "&=", "&=": "|="}
UNARY = {"++": "--", "--": "++"}
LOGIC = {"&&": "||", "||": "&&"}
WORDS = {"true": "false", "false": "true"}

# Their arguments say nothing about behaviour: messages, and what the compiler already proves.
OUT_OF_BOUNDS = {"DbgPrint", "static_assert", "fprintf", "perror", "fmt", "print_line", "asm", "__asm__",
                 "__attribute__", "operator"}
NO_STATEMENT = {"return", "if", "for", "while", "do", "else", "switch", "case", "default", "using", "typedef", "goto",
                "public", "private", "protected", "struct", "class", "enum", "union", "namespace", "template",
                "delete", "throw", "co_return", "static_assert", "extern", "friend", "virtual", "explicit"}
GUARDS = re.compile(r"\w*(_Guard|_Hold|lock_guard|scoped_lock)$")


def tokens_of(text):
    """Tokens without comments, preprocessor lines and literal texts; a text leaves an empty token."""
    found = []
    for match in TOKEN.finditer(text):
        if match.group("token"):
            found.append(Token(match.start(), match.end(), match.group()))
        elif match.group("text"):
            found.append(Token(match.start(), match.end(), ""))
    return found


def closing(tokens, index):
    """The index of the bracket that closes the one at index."""
    pairs = {"(": ")", "[": "]", "{": "}"}
    opening, close = tokens[index].text, pairs[tokens[index].text]
    depth = 0
    for i in range(index, len(tokens)):
        depth += (tokens[i].text == opening) - (tokens[i].text == close)
        if depth == 0:
            return i
    return len(tokens) - 1


def in_bounds(tokens):
    """The indices of tokens that may be changed."""
    allowed, index = [], 0
    while index < len(tokens):
        if tokens[index].text in OUT_OF_BOUNDS:
            index += 1
            while index < len(tokens) and tokens[index].text not in ("(", ";", "{"):
                index += 1
            if index < len(tokens) and tokens[index].text == "(":
                index = closing(tokens, index) + 1
        else:
            allowed.append(index)
            index += 1
    return allowed


def next_number(text):
    digits = re.match(r"0[xX][0-9A-Fa-f']+|\d[\d']*", text).group()
    rest = text[len(digits):]
    if rest.startswith("."):
        return None
    hexadecimal = digits.lower().startswith("0x")
    value = int(digits.replace("'", ""), 16 if hexadecimal else 10)
    changed = value - 1 if value == 1 or value & (value + 1) == 0 and value > 255 else value + 1
    return (f"0x{changed:X}" if hexadecimal else str(changed)) + rest


def token_mutants(text, tokens, index):
    token = tokens[index]
    spaced = text[token.start - 1:token.start] in (" ", "\n") and text[token.end:token.end + 1] in (" ", "\n")
    before = tokens[index - 1].text if index else ""
    if spaced and before not in ("template", "operator"):
        for kind, table in (("comparison", COMPARISON), ("arithmetic", ARITHMETIC), ("logic", LOGIC)):
            if token.text in table:
                yield Mutant(token.start, token.end, table[token.text], kind)
    if token.text in UNARY:
        yield Mutant(token.start, token.end, UNARY[token.text], "arithmetic")
    if token.text in WORDS:
        yield Mutant(token.start, token.end, WORDS[token.text], "constant")
    if token.text[:1].isdigit():
        number = next_number(token.text)
        if number is not None:
            yield Mutant(token.start, token.end, number, "constant")


def condition_mutants(text, tokens, index):
    if tokens[index].text not in ("if", "while") or index + 1 >= len(tokens) or tokens[index + 1].text != "(":
        return
    first, last = tokens[index + 1], tokens[closing(tokens, index + 1)]
    inner = [t.text for t in tokens if first.start < t.start < last.start]
    if ";" not in inner and "=" not in inner:  # neither has a declaration of its own
        yield Mutant(first.end, last.start, f"!({text[first.end:last.start]})", "condition")


def is_expression(words):
    if words[0] in ("break", "continue"):
        return len(words) == 1
    if words[0] in NO_STATEMENT:
        return False
    if words[0] in ("++", "--", "*", "("):
        return True
    if not re.match(r"[A-Za-z_]", words[0]):
        return False
    if GUARDS.match(words[0]) and len(words) > 2 and words[2] == "(":
        return True
    place = 1
    while words[place:place + 1] == ["::"]:
        place += 2
    if words[place:place + 1] == ["<"]:
        return False
    return words[place:place + 1] != [] and words[place] in ("(", ".", "->", "[", "=", "++", "--", "+=", "-=", "|=",
                                                             "&=", "^=", "<<=", ">>=")


def statement_mutants(text, tokens, index):
    """A statement that begins at the token, without it."""
    before = tokens[index - 1].text if index else ""
    if before not in ("{", "}", ";", ")", "else", ":"):
        return
    end, depth = index, 0
    while end < len(tokens) and not (tokens[end].text == ";" and depth == 0):
        depth += (tokens[end].text in ("(", "[", "{")) - (tokens[end].text in (")", "]", "}"))
        if depth < 0:
            return
        end += 1
    if end < len(tokens) and end > index and is_expression([t.text for t in tokens[index:end]]):
        yield Mutant(tokens[index].start, tokens[end].end, "{}", "deleted statement")


def mutants_of(text):
    tokens = tokens_of(text)
    found = []
    for index in in_bounds(tokens):
        found += token_mutants(text, tokens, index)
        found += condition_mutants(text, tokens, index)
        found += statement_mutants(text, tokens, index)
    return sorted(found)


def apply(text, mutant):
    return text[:mutant.start] + mutant.new + text[mutant.end:]
