"""Finds the places of a source file where a mutant can stand, and writes the file with all of them.

Every mutant is a call into MutantSwitch.h, asleep unless its number is the one in the environment.
The source is read as clang-format leaves it: binary operators have blanks around them, brackets of
templates have none.
"""
import re
from dataclasses import dataclass

COMPARISONS = {"<": "kLess", "<=": "kLessEqual", ">": "kGreater", ">=": "kGreaterEqual",
               "==": "kEqual", "!=": "kUnequal"}
NUMBER = re.compile(r"(?<![\w.'])(0[xX][0-9a-fA-F']+|\d[\d']*(?:\.\d+)?(?:[eE][+-]?\d+)?)[uUlLzZfF]*(?![\w.'])")
RESULT = re.compile(r"\breturn (Vr(?:Error\w+|Success));")
SCALAR = re.compile(r"constexpr\s+(?:const\s+)?(?:std::)?(?:u?int\d+_t|size_t|int|unsigned|double|float|bool)\s+(k[A-Z]\w*)\s*=")
ENUMERATOR = re.compile(r"^\s+(k[A-Z]\w*) = -?\d+,", re.M)


@dataclass
class Mutant:
    number: int
    file: str
    line: int
    kind: str      # comparison, constant, condition, case, result
    text: str      # the line, for people
    detail: str
    guard: bool    # belongs to an `if` whose body leaves the function at once, or to a switch

    @property
    def key(self):
        return f"{self.file}: {self.kind} {self.detail}: {self.text}"


def blanked(source):
    """The source, of the same length, with blanks for comments and preprocessor lines, "~" for texts."""
    pattern = re.compile(r"//[^\n]*|/\*.*?\*/|\"(?:\\.|[^\"\\\n])*\"|(?<!\w)'(?:\\.|[^'\\\n])+'"
                         r"|^[ \t]*#(?:\\\n|[^\n])*", re.S | re.M)
    return pattern.sub(lambda match: re.sub(r"[^\n]", "~" if match.group()[0] in "\"'" else " ", match.group()), source)


def closing(code, at):
    """The index of the bracket that closes the one at `at`."""
    pairs = {"(": ")", "{": "}", "[": "]"}
    depth = 0
    for index in range(at, len(code)):
        if code[index] in pairs:
            depth += 1
        elif code[index] in pairs.values():
            depth -= 1
            if depth == 0:
                return index
    raise ValueError("unbalanced")


def compile_time(code):
    """Marks what is fixed while compiling, where a mutant could not wake."""
    fixed = bytearray(len(code))
    for match in re.finditer(r"\bstatic_assert\s*\(", code):
        fixed[match.start():closing(code, match.end() - 1) + 1] = b"\1" * (closing(code, match.end() - 1) + 1 - match.start())
    for match in re.finditer(r"\benum\b[^;{]*\{", code):
        end = closing(code, match.end() - 1)
        fixed[match.start():end] = b"\1" * (end - match.start())
    for match in re.finditer(r"\bconstexpr\b[^;(]*?=|\bconstexpr\b[^;(=]*\{|\bcase\b[^\n:]*(?:::\w+)*|\btemplate <[^\n]*>|\bif constexpr \([^\n]*"
                             r"|\balignas\([^)]*\)|\bstd::array<[^;\n]*?>|\boperator\s*(?:<=>|[<>=!]=?)", code):
        end = match.end()
        if match.group().startswith("constexpr") and match.group().endswith("="):  # the whole of a constant's value
            depth = 0
            while code[end] != ";" or depth:
                depth += (code[end] in "({[") - (code[end] in ")}]")
                end += 1
        fixed[match.start():end] = b"\1" * (end - match.start())
    return fixed


class Instrumenter:
    def __init__(self, first_number=0):
        self.next = first_number
        self.mutants = []

    def file(self, name, source, constants):
        code = blanked(source)
        fixed = compile_time(code)
        inserts = []  # (index, order, text, length replaced)
        guards = self._guards(code)

        def line_of(index):
            return code.count("\n", 0, index) + 1

        def text_at(index):
            start = source.rfind("\n", 0, index) + 1
            return source[start:source.find("\n", index)].strip()

        def is_guard(index):
            return any(start <= index < end for start, end in guards)

        def add(index, kind, detail):
            number = self.next
            self.next += 1
            self.mutants.append(Mutant(number, name, line_of(index), kind, text_at(index), detail, is_guard(index)))
            return number

        for match in re.finditer(r" (<=|>=|==|!=|<|>)(?=[ \n])", code):
            if fixed[match.start(1)] or not re.search(r"[\w)\]'~]$", code[:match.start()].rstrip()[-1:]):
                continue
            symbol = match.group(1)
            kind = COMPARISONS[symbol]
            place = match.start(1)
            if kind in ("kEqual", "kUnequal"):
                number = add(place, "comparison", f"'{symbol}' turned round")
            else:
                number = add(place, "comparison", f"'{symbol}' moved by one")
                add(place, "comparison", f"'{symbol}' turned round")
            inserts.append((match.end(1), 0, f" ::mutant::Operator<::mutant::{kind}>{{{number}}} {symbol}", 0))

        for match in NUMBER.finditer(code):
            if fixed[match.start()]:
                continue
            if code[match.start() - 1] in "<" or code[match.end():match.end() + 1] == ">":
                continue
            if re.search(r"(?:\boperator\"\"|= )$", code[:match.start()]) and code[match.end():match.end() + 1] == ";" \
                    and re.search(r"virtual|\) const = $|\) = $", code[code.rfind("\n", 0, match.start()):match.start()]):
                continue  # a pure virtual function
            number = add(match.start(), "constant", match.group())
            inserts.append((match.start(), 1, f"::mutant::Constant({number}, ", 0))
            inserts.append((match.end(), -1, ")", 0))

        if constants:
            names = re.compile(r"(?<![\w.:])(?:%s)\b(?!\s*(?:[({\[<.]|::|=[^=]))" % "|".join(sorted(constants, key=len, reverse=True)))
            for match in names.finditer(code):
                if fixed[match.start()] or code[match.start() - 1] in "<&" or code[match.end()] == ">":
                    continue
                number = add(match.start(), "constant", match.group())
                inserts.append((match.start(), 1, f"::mutant::Constant({number}, ", 0))
                inserts.append((match.end(), -1, ")", 0))

        for match in RESULT.finditer(code):
            number = add(match.start(1), "result", match.group(1))
            inserts.append((match.start(1), 1, f"::mutant::Result({number}, ", 0))
            inserts.append((match.end(1), -1, ")", 0))

        for match in re.finditer(r"\b(if|while) \(", code):
            start, end = match.end(), closing(code, match.end() - 1)
            semicolon = self._top_level(code, start, end, ";")
            start = semicolon[-1] + 1 if semicolon else start
            if fixed[start] or re.match(r"\s*(const )?\w[\w:<>*& ]*[*&]? ?(const )?\w+ = ", code[start:end]):
                continue  # a declaration is its own condition
            for outcome, word in (("true", "always"), ("false", "never")):
                if match.group(1) == "while" and word == "always":
                    continue  # runs for ever
                number = add(start, "condition", word)
                joint = "||" if outcome == "true" else "&& !"
                inserts.append((start, 0 if outcome == "true" else 0, f"(::mutant::On({number}) || " if outcome == "true" else f"(!::mutant::On({number}) && ", 0))
                inserts.append((end, -2, ")", 0))
            inserts.append((start, 0.5, "static_cast<bool>(", 0))
            inserts.append((end, -3, ")", 0))

        for match in re.finditer(r" (&&|\|\|)(?=[ \n])", code):
            left, right = self._operands(code, match.start(1))
            if fixed[match.start(1)] or left is None:
                continue
            neutral = match.group(1) == "&&"
            for begin, stop, side in ((left, match.start(), "left"), (match.end(), right, "right")):
                while code[begin] in " \n":
                    begin += 1
                operand = " ".join(source[begin:stop].split())
                number = add(match.start(1), "condition", f"'{match.group(1)}' without '{operand}'")
                head = f"(::mutant::On({number}) || (" if neutral else f"(!::mutant::On({number}) && ("
                inserts.append((begin, 0.7 if side == "right" else 0.6, head, 0))
                inserts.append((stop, -1.5, "))", 0))

        for match in re.finditer(r"\bswitch \(", code):
            start, end = match.end(), closing(code, match.end() - 1)
            body = code.index("{", end)
            labels = re.findall(r"\bcase ([\w:]+):", code[body:closing(code, body)])
            numbers = [add(start, "case", label) for label in labels]
            inserts.append((start, 0, "".join(f"::mutant::WithoutCase({number}, " for number in numbers), 0))
            inserts.append((end, -2, "".join(f", {label})" for label in reversed(labels)), 0))

        text = source
        # From the back; at one place, what is to stand first is put in last.
        order = sorted(range(len(inserts)), key=lambda n: (inserts[n][0], inserts[n][1], n), reverse=True)
        for n in order:
            index, _, insert, length = inserts[n]
            text = text[:index] + insert + text[index + length:]
        return '#include "MutantSwitch.h"\n#line 1\n' + text

    @staticmethod
    def _guards(code):
        """Spans of conditions whose body returns at once, and of what a switch looks at."""
        spans = []
        for match in re.finditer(r"\b(if|switch) \(", code):
            end = closing(code, match.end() - 1)
            if match.group(1) == "switch" or re.match(r"\)\s*\{\s*return\b", code[end:]):
                spans.append((match.end(), end))
        return spans

    @staticmethod
    def _top_level(code, start, end, wanted):
        found, depth = [], 0
        for index in range(start, end):
            depth += (code[index] in "({[") - (code[index] in ")}]")
            if depth == 0 and code.startswith(wanted, index):
                found.append(index)
        return found

    @staticmethod
    def _operands(code, at):
        """Where the operands of the && or || at `at` begin and end."""
        own = code[at:at + 2]
        ends = [";", ",", "?", " : ", "||", "&&"]
        left = right = None
        depth = 0
        for index in range(at - 1, 0, -1):
            if code[index] in ")}]":
                depth += 1
            elif code[index] in "({[":
                if depth == 0:
                    left = index + 1
                    break
                depth -= 1
            elif depth == 0 and (code[index] in ";,?" or code[index:index + 2] in ("||", "&&")
                                 or code[index:index + 3] in (" : ", " = ")):
                left = index + (2 if code[index:index + 2] in ("||", "&&") else 3 if code[index] == " " else 1)
                break
            elif depth == 0 and re.match(r"return\b", code[index:index + 7]) and not (code[index - 1].isalnum()):
                left = index + 6
                break
        depth = 0
        for index in range(at + 2, len(code)):
            if code[index] in "({[":
                depth += 1
            elif code[index] in ")}]":
                if depth == 0:
                    right = index
                    break
                depth -= 1
            elif depth == 0 and (code[index] in ";,?" or code[index:index + 2] in ("||", "&&")
                                 or code[index:index + 3] == " : "):
                right = index
                break
        while right is not None and code[right - 1] in " \n":
            right -= 1
        return left, right


def constants_of(sources):
    """The names of the scalar constants and of the enumerators that the sources declare."""
    names = set()
    for source in sources:
        code = blanked(source)
        names.update(SCALAR.findall(code))
        names.update(ENUMERATOR.findall(code))
    return names
