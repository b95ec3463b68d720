"""What scripts/mutate changes: a list of small faults for every source file, found in its text.

Comments, literals and what only traces or asserts are left alone. Each mutant keeps the number of lines, so that a
report names the line of the tree.
"""
import collections
import random
import re

Mutant = collections.namedtuple("Mutant", "file line kind before after offset length text")

# Statuses stand as a result where one of these is in front; in a comparison another one is just another condition.
STATUS = re.compile(r"(?:return |GV_REFUSE\(|GV_REFUSE_AS\([^,]*, |[?:=,{] |\{)(STATUS_\w+)")
RELATION = re.compile(r"(?<= )(==|!=|<=|>=|<|>|&&|\|\|)(?= )")
OTHER_RELATION = {"==": "!=", "!=": "==", "<": "<=", "<=": "<", ">": ">=", ">=": ">", "&&": "||", "||": "&&"}
ARITHMETIC = re.compile(r"(?<=[\w)\]] )([+-])(?= [\w(])")
NUMBER = re.compile(r"(?<=[ (\[])(\d+)(?=[;,)\] ])")
BOOLEAN = re.compile(r"\b(true|false|TRUE|FALSE)\b")
SILENT = re.compile(r"\bif \((?:[^()]|\((?:[^()]|\([^()]*\))*\))*\)\s*(?=\x01)")
TRACING = re.compile(r"\b(?:GV_TRACE\w*|GV_ASSERT\w*|static_assert|GvTrace\w+)\(")
LOCAL = re.compile(r"^(?:const |auto |return |using |case |break;|continue;|goto |delete |else|\[\[|struct |enum )")
CALL = re.compile(r"(?:[\w.>:\-\[\]*]+ = )?[\w.>:\-]+\(")
STATEMENT = re.compile(r"^( +)((?:[^\s{}#;][^{};]*);)[ ]*$", re.M)


def blank(text, start, end, filler=" "):
    return text[:start] + re.sub(r"[^\n]", filler, text[start:end]) + text[end:]


def closing(text, opening):
    """Where the parenthesis at `opening` ends."""
    depth = 0
    for at in range(opening, len(text)):
        depth += {"(": 1, ")": -1}.get(text[at], 0)
        if depth == 0:
            return at
    return len(text) - 1


def code_of(text):
    """The text with everything blanked, at its place, that no mutant touches."""
    for found in re.finditer(r'//[^\n]*|/\*.*?\*/|L?"(?:\\.|[^"\\])*"|L?\'(?:\\.|[^\'\\])*\'', text, re.S):
        text = blank(text, *found.span(), " " if found.group()[0] == "/" else "\x02")
    text = re.sub(r"^#(?:[^\n]*\\\n)*[^\n]*", lambda m: re.sub(r"[^\n]", " ", m.group()), text, flags=re.M)
    for found in TRACING.finditer(text):
        end = closing(text, found.end() - 1) + 1
        text = blank(text, found.start(), end + (text[end:end + 1] == ";"), "\x01")
    for found in re.finditer(r"\bGV_REFUSE\w*\(", text):  # the status may change, what is traced may not
        end = closing(text, found.end() - 1)
        message = text.find("\x02", found.end(), end)
        text = blank(text, message, end, "\x02") if message > 0 else text
    for found in SILENT.finditer(text):
        text = blank(text, *found.span())
    return text.replace("\x01", " ")


def conditions(code):
    for found in re.finditer(r"\b(?:if|while) (?:constexpr )?\(", code):
        opening = found.end() - 1
        end = closing(code, opening)
        start = code.rfind(";", opening, end) + 1 or opening + 1
        if code[start:end].strip():
            yield start, end, lambda condition: f"{' ' if condition[0] == ' ' else ''}!({condition.strip()})"
    for found in re.finditer(r"\breturn ([^;?]*(?:&&|\|\||==|!=| < | > )[^;?]*);", code):
        yield *found.span(1), lambda condition: f"!({condition})"


def declares(statement):
    """`Type name = ...;` and its like, which other lines need."""
    head = re.split(r"[=({]", statement)[0].rstrip()
    return bool(LOCAL.match(statement)) or bool(re.match(r"^[\w:<>,]+[ *&]+(?:const )?[*&]?\w+;?$", head))


def statements(code):
    """Spans of whole statements that are not declarations: calls, stores, counts."""
    for found in STATEMENT.finditer(code):
        statement = found.group(2)
        depth = code.count("(", 0, found.start(2)) - code.count(")", 0, found.start(2))
        previous = code[:found.start()].rstrip()[-1:]
        if depth or previous not in ";{}:" or declares(statement):
            continue
        if re.match(r"[\w*(+\-]", statement) and re.search(r"\(|=|\+\+|--", statement):
            yield found.span(2)


def replaced(code, source):
    """(kind, start, end, what stands there instead)"""
    for start, end, change in conditions(code):
        yield "negated condition", start, end, change(source[start:end])
    for found in RELATION.finditer(code):
        kind = "and for or" if found.group(1) in "&&||" else "relation"
        yield kind, *found.span(1), OTHER_RELATION[found.group(1)]
    for found in ARITHMETIC.finditer(code):
        yield "plus for minus", *found.span(1), "-" if found.group(1) == "+" else "+"
    for found in NUMBER.finditer(code):
        yield "off by one", *found.span(1), str(int(found.group(1)) + 1)
    for found in BOOLEAN.finditer(code):
        yield "other boolean", *found.span(1), {"t": "false", "f": "true", "T": "FALSE", "F": "TRUE"}[found.group(1)[0]]
    for found in STATUS.finditer(code):
        other = "STATUS_UNSUCCESSFUL" if found.group(1) != "STATUS_UNSUCCESSFUL" else "STATUS_INVALID_PARAMETER"
        yield "wrong status", *found.span(1), other
    spans = list(statements(code))
    for start, end in spans:
        yield "dropped statement", start, end, ";" + "\n" * source.count("\n", start, end)
    for (start, middle), (second, end) in zip(spans, spans[1:]):
        adjacent = source[middle:second].strip() == "" and source.count("\n", middle, second) == 1
        if adjacent and CALL.match(source, start) and CALL.match(source, second):
            yield "swapped", start, end, source[second:end] + source[middle:second] + source[start:middle]


def of_file(name, source):
    code = code_of(source)
    for kind, start, end, instead in replaced(code, source):
        before = " ".join(source[start:end].split())
        line = source.count("\n", 0, start) + 1
        text = source.split("\n")[line - 1].strip()
        yield Mutant(name, line, kind, before, " ".join(instead.split()), start, end - start,
                     source[:start] + instead + source[end:]), text


def identified(root, names):
    """All mutants by a name that holds as long as the line reads the same: file, text of the line, change, and which
    of several like it."""
    found, seen = {}, collections.Counter()
    for name in names:
        for mutant, text in of_file(name, (root / name).read_text()):
            key = (name, text, mutant.kind, mutant.before, mutant.after)
            seen[key] += 1
            found["|".join(key) + (f"|{seen[key]}" if seen[key] > 1 else "")] = mutant
    return found


def drawn(mutants, seed):
    """Of each folder, its mutants in random order. Kinds take turns, else numbers would crowd out the rest."""
    folders = collections.defaultdict(lambda: collections.defaultdict(list))
    for name, mutant in mutants.items():
        folders[mutant.file.split("/")[1]][mutant.kind].append(name)
    order = {}
    for folder, kinds in sorted(folders.items()):
        generator = random.Random(f"{seed} {folder}")
        ranked = []
        for kind, names in sorted(kinds.items()):
            generator.shuffle(names)
            weight = min(len(names), 4 * min(len(n) for n in kinds.values()) + 8)
            ranked += [((place + generator.random()) / weight, name) for place, name in enumerate(names)]
        order[folder] = [name for _, name in sorted(ranked)]
    return order


def shares(order, count):
    """How many of each folder: by what it has, and ten at least."""
    all_of_them = sum(map(len, order.values()))
    wanted = {f: min(len(n), max(10, round(count * len(n) / all_of_them))) for f, n in order.items()}
    while sum(wanted.values()) > count and max(wanted.values()) > 10:
        wanted[max(wanted, key=wanted.get)] -= 1
    return wanted
