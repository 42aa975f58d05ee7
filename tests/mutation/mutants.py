"""The mutants of a source: small changes of its text, each as a text of its own or all of them in one that chooses."""

import os
import re

from cpp_text import without_comments_and_strings

SHIFTED = {"<": "<=", "<=": "<", ">": ">=", ">=": ">"}
OPPOSITE = {"==": "!=", "!=": "==", "&&": "||", "||": "&&", "+": "-", "-": "+"} | SHIFTED
OPERATORS = [
    ("negate", re.compile(r"\bif \((?=.*\) \{$)"), lambda m: "if (!("),
    ("boundary", re.compile(r" (<=|>=|<|>)(?: |$)"), lambda m: f" {SHIFTED[m.group(1)]} "),
    ("equality", re.compile(r" (==|!=)(?: |$)"), lambda m: f" {OPPOSITE[m.group(1)]} "),
    ("logic", re.compile(r" (&&|\|\|)(?: |$)"), lambda m: f" {OPPOSITE[m.group(1)]} "),
    ("arithmetic", re.compile(r" ([+-])(?: |$)"), lambda m: f" {OPPOSITE[m.group(1)]} "),
    ("constant", re.compile(r"(?<![\w.])(\d+)(?![\w.])"), lambda m: str(int(m.group(1)) + 1)),
    ("truth", re.compile(r"\b(true|false)\b"), lambda m: "false" if m.group(1) == "true" else "true"),
    ("drop", re.compile(r"^ +(?!return\b|else\b)[\w:.>\-\[\]*]+\(.*\);$"), lambda m: ";"),
]

# How tightly operators bind. Formatted as this project is, one of two operands has white space on either side.
BINDING = {"||": 1, "&&": 2, "|": 3, "^": 4, "&": 5, "==": 6, "!=": 6, "<": 7, "<=": 7, ">": 7, ">=": 7, "<=>": 8,
           "<<": 9, ">>": 9, "+": 10, "-": 10, "*": 11, "/": 11, "%": 11}
WEAKEST = ("=", "+=", "-=", "*=", "/=", "%=", "&=", "|=", "^=", "<<=", ">>=", "?", ":")
OPERATOR = re.compile(r"(?<=\s)(" + "|".join(map(re.escape, sorted([*BINDING, *WEAKEST], key=len, reverse=True))) +
                      r")(?=\s)|\b(?:return|case|throw|else)\b")


class Mutant:
    """One change of one line. `start` and `end` are what it changes in the text of its file."""

    def __init__(self, name, operator, source, start, end, change):
        self.name, self.operator = name, operator
        self.start, self.end = start, end
        self._source, self._change = source, change

    def text(self):
        """The file with this change alone."""
        text = self._source[:self.start] + self._change + self._source[self.end:]
        if self.operator == "negate":
            line_end = text.index("\n", self.start)
            text = text[:line_end].removesuffix(") {") + ")) {" + text[line_end:]
        return text


def mutants_of(root, path):
    """The mutants of a file. A name holds the line's text, so that it outlives an edit above it."""
    with open(os.path.join(root, path), encoding="utf-8") as file:
        source = file.read()
    seen, at = {}, 0
    for line, bare in zip(source.split("\n"), without_comments_and_strings(source).split("\n")):
        begin, at = at, at + len(line) + 1
        if bare.startswith("#") or not bare.startswith(" ") or "static_assert" in bare:
            continue
        for operator, pattern, change in OPERATORS:
            if operator == "drop" and bare.count("(") != bare.count(")"):
                continue  # the end of a call that begins on a line above
            for place, match in enumerate(pattern.finditer(bare.rstrip())):
                name = f"{path} | {line.strip()} | {operator} {place + 1}"
                seen[name] = seen.get(name, 0) + 1
                if seen[name] > 1:
                    name += f" of line {seen[name]}"
                yield Mutant(name, operator, source, begin + match.start(), begin + match.end(), change(match))


class _Text:
    """A source without its comments, and where its operators and brackets are."""

    def __init__(self, source):
        self.bare = without_comments_and_strings(source)
        comments = re.compile(r'"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])+\'|(//[^\n]*|/\*.*?\*/)', re.S)
        self.code = comments.sub(
            lambda match: re.sub(r"[^\n]", " ", match.group()) if match.group(1) else match.group(), source)
        self.operators = [(match.start(), match.end(), match.group()) for match in OPERATOR.finditer(self.bare)]
        self.ends = {end - 1: text for _, end, text in self.operators}
        self.starts = {start: text for start, _, text in self.operators}

    def left(self, at, binding):
        """Where the operand that ends in front of `at` begins."""
        depth, here = 0, at - 1
        while here >= 0:
            char = self.bare[here]
            if char == "}" and depth == 0 and self.bare[here + 1] == "\n":
                break
            if char in ")]}":
                depth += 1
            elif char in "([{":
                if depth == 0:
                    break
                depth -= 1
            elif depth == 0 and (char in ",;" or here in self.ends and BINDING.get(self.ends[here], 0) < binding):
                break
            here -= 1
        here += 1
        while self.code[here].isspace():
            here += 1
        return here

    def right(self, at, binding):
        """Where the operand that begins behind `at` ends."""
        depth, here = 0, at
        while here < len(self.bare):
            char = self.bare[here]
            if char in "([{":
                depth += 1
            elif char in ")]}":
                if depth == 0:
                    break
                depth -= 1
            elif depth == 0 and (char in ",;" or here in self.starts and BINDING.get(self.starts[here], 0) <= binding):
                break
            here += 1
        while self.code[here - 1].isspace():
            here -= 1
        return here


class _Place:
    """Where a mutant is in a text that has all of them: it replaces [start, end)."""

    def __init__(self, number, mutant, text):
        self.number, self.kind = number, mutant.operator
        self.start, self.end = mutant.start, mutant.end
        self.parts = []
        if self.kind == "negate":
            self.start = mutant.end
            close = text.right(mutant.end, -1)
            # Behind a statement of its own, which ends with a semicolon.
            while text.bare[close] == ";":
                self.start = close + 1
                while text.bare[self.start].isspace():
                    self.start += 1
                close = text.right(self.start, -1)
            self.end = close
        elif self.kind == "drop":
            self.start += len(text.bare[self.start:]) - len(text.bare[self.start:].lstrip())
        elif self.kind in ("boundary", "equality", "logic", "arithmetic"):
            self.operator = text.bare[mutant.start:mutant.end].strip()
            binding = BINDING[self.operator]
            self.middle = mutant.start, mutant.end
            self.start, self.end = text.left(mutant.start + 1, binding), text.right(mutant.end, binding)

    def render(self, render, code):
        chosen = f"mutation::Is({self.number})"
        if self.kind == "negate":
            return f"({chosen} != static_cast<bool>({render(self.start, self.end)}))"
        if self.kind == "drop":
            return f"if (!{chosen}) {render(self.start, self.end)}"
        if self.kind == "constant":
            number = code[self.start:self.end]
            return f"({chosen} ? {int(number) + 1} : {number})"
        if self.kind == "truth":
            truth = code[self.start:self.end]
            return f"({chosen} ? {'false' if truth == 'true' else 'true'} : {truth})"
        left, right = render(self.start, self.middle[0]), render(self.middle[1], self.end)
        space = code[self.middle[0]:self.middle[1]].replace(self.operator, "")
        flat_left, flat_right = (" ".join(text.split("\n")) for text in (left, right))
        return (f"({chosen} ? ({flat_left}) {OPPOSITE[self.operator]} ({flat_right}) : ({left}) {self.operator}{space}"
                f"({right}))")


ORDER = ["drop", "negate", "logic", "equality", "boundary", "arithmetic", "constant", "truth"]


def switched(source, chosen):
    """The source with these mutants in it, by number, each where the process may be told to be it; and the numbers of
    those that could be put there. Its lines are those of the source."""
    text = _Text(source)
    places = sorted((_Place(number, mutant, text) for number, mutant in chosen.items()),
                    key=lambda place: (place.start, -place.end, ORDER.index(place.kind)))
    inside = set()

    def render(start, end, those):
        result, at = "", start
        while those:
            place, *those = those
            if place.start < at or place.end > end:
                continue  # lies across another one
            inner = [other for other in those if other.start < place.end]
            those = those[len(inner):]
            inside.add(place.number)
            result += text.code[at:place.start]
            result += place.render(
                lambda low, high, inner=inner: render(low, high, [
                    other for other in inner if other.start >= low and other.end <= high]), text.code)
            at = place.end
        return result + text.code[at:end]
    return render(0, len(source), places), inside
