"""What can be changed in a driver source, one thing at a time: every place where one of a kind of
faults fits, found over the tokens of the functions and of the file's constants. What only the
analysis, the compiler or the trace ring reads is left alone."""

import collections
import random
import re

KINDS = ("arithmetic", "comparison", "condition", "constant", "flag", "lock", "logic", "mirror",
         "name", "order", "statement", "status")

Token = collections.namedtuple("Token", "text start end")
# Places of a file that have the same key are told apart by a number in the change.
Mutant = collections.namedtuple("Mutant", "kind file routine line source change edits")
Statement = collections.namedtuple("Statement", "first last")  # indices of tokens, with the ';'

SKIPPED = re.compile(r"\s+|//[^\n]*|/\*.*?\*/|^[ \t]*#(?:\\\n|[^\n])*", re.S | re.M)
TOKEN = re.compile(r'L?"(?:\\.|[^"\\])*"|L?\'(?:\\.|[^\'\\])*\'|[A-Za-z_]\w*|\d[\w.]*|'
                   r"->|\+\+|--|<<=?|>>|::|&&|\|\||[-+*/%&|^!<>=]=|\.\.\.|.", re.S)
ANNOTATIONS = {"REQUIRES", "RELEASE", "ACQUIRE", "EXCLUDES", "ASSERT_HELD", "ANALYSIS_OFF"}
COMPARISONS = {"==": "!=", "!=": "==", "<": "<=", "<=": "<", ">": ">=", ">=": ">"}
ARITHMETIC = {"+": "-", "-": "+", "+=": "-=", "-=": "+=", "++": "--", "--": "++", "&": "|",
              "|=": "=", "&=": "=", "~": "", "%": "/", "<<": ">>", ">>": "<<"}
MIRRORS = [("ClientPipe", "ZkPipe"), ("ClientSlot", "ZkSlot"), ("ClientRequests", "ZkRequests"),
           ("CurrentReader", "CurrentWriter"), ("ReaderQueue", "WriterQueue"),
           ("PROXY_CLIENT_CLASS", "PROXY_ZK_CLASS"), ("Flink", "Blink"),
           ("RemoveHeadList", "RemoveTailList"), ("InsertTailList", "InsertHeadList"),
           ("NotificationEvent", "SynchronizationEvent"),
           ("InterlockedIncrement", "InterlockedDecrement"), ("TRUE", "FALSE"),
           ("HoldPort", "ReleasePort"), ("HeaderLength", "DataLength"),
           ("ControlDevice", "MessageDevice"), ("HardwareIds", "CompatibleIds"),
           ("PortInterface", "ControlInterface"), ("SystemWake", "DeviceWake"),
           ("RetiredDosDeviceName", "RetiredControlLinkName"),
           ("IoSkipCurrentIrpStackLocation", "IoCopyCurrentIrpStackLocationToNext"),
           ("IoGetCurrentIrpStackLocation", "IoGetNextIrpStackLocation"),
           ("WaitAny", "WaitAll"), ("CompleteRefused", "CompleteAdmitted"), ("Set", "Clear"),
           ("FinishDevice", "FinishRequest")]
MIRROR = {a: b for pair in MIRRORS for a, b in (pair, pair[::-1])}
MIRROR["NonPagedPoolNx"] = "PagedPool"  # the other way round nothing can go wrong
SIBLING_LOCKS = {"ClientLock": "PortLock", "PortLock": "AdmissionLock", "AdmissionLock": "PortLock"}
# Without any effect of their own.
PURE = {"PortOf", "HeaderOf", "IoGetCurrentIrpStackLocation", "IoGetNextIrpStackLocation", "if",
        "static_cast", "reinterpret_cast", "CONTAINING_RECORD", "sizeof", "LowerDeviceOf",
        "IsZkSide", "PipeOfSide", "PortLinkName", "PipePayload", "ReadULongAcquire", "PortMode",
        "ReadPointerAcquire", "PortStateFlags", "PortProxyState", "PortMessageLevel", "FlagOfSide",
        "ElementOf", "PacketLocation", "InitializeListHead", "KeInitializeEvent",
        "KeInitializeSpinLock", "KeInitializeSemaphore", "RtlInitUnicodeString", "InitializeHeader",
        "PipeInitialize", "ProxyReadPrepare", "InitSerializer"}
MUTE = {"UNREFERENCED_PARAMETER", "RunningAsSerializerItem", "NT_ASSERT", "va_start", "va_end",
        "static_assert"}
CONTROL = {"if", "else", "for", "while", "switch", "do", "case", "default", "struct", "using"}


def tokens(text):
    found, position = [], 0
    while position < len(text):
        skipped = SKIPPED.match(text, position)
        if skipped:
            position = skipped.end()
            continue
        match = TOKEN.match(text, position)
        found.append(Token(match.group(), match.start(), match.end()))
        position = match.end()
    return found


def siblings(texts):
    """{name: the next one of its enumeration}; the pool's tags are one, too."""
    groups = [re.findall(r"\bULONG (POOL_\w+) = PoolTag", "".join(texts))]
    for text in texts:
        for body in re.findall(r"\benum\b[^{;]*{(.*?)};", text, re.S):
            body = re.sub(r"//[^\n]*", "", body)
            groups.append([part.split()[0] for part in body.split(",") if part.strip()])
    return {name: group[(i + 1) % len(group)] for group in groups if len(group) > 1
            for i, name in enumerate(group)}


class Source:
    """Finds the mutants of one file."""

    def __init__(self, file, text, names):
        self.file, self.text, self.names = file, text, names
        self.tokens = tokens(text)
        self.words = [token.text for token in self.tokens] + [""]
        self.routine = ""
        self.found = []

    def add(self, kind, change, *edits):
        """Edits are (first token, last token, replacement)."""
        places = [(self.tokens[first].start, self.tokens[last].end, new)
                  for first, last, new in sorted(edits)]
        line = self.text.count("\n", 0, places[0][0]) + 1
        source = " ".join(self.text.splitlines()[line - 1].split())
        self.found.append(Mutant(kind, self.file, self.routine, line, source,
                                 f"{kind}: {change}", tuple(places)))

    def code(self, first, last):
        """Of these tokens, in one line."""
        return " ".join(self.text[self.tokens[first].start:self.tokens[last].end].split())

    def close(self, index):
        """The bracket that ends what the one at the index begins."""
        depth = 0
        while True:
            depth += (self.words[index] in "([{") - (self.words[index] in ")]}")
            if depth == 0:
                return index
            index += 1

    def edge(self, index, step, ends):
        """The last token before an end of the operand that starts beside the index."""
        opening, closing = ("([{", ")]}") if step > 0 else (")]}", "([{")
        depth = 0
        while True:
            word = self.words[index + step]
            if depth == 0 and (word in ends or word in closing):
                return index
            depth += (word in opening) - (word in closing)
            index += step

    # ---- Where ----

    def mutants(self):
        index, depth, constants = 0, 0, False
        while index < len(self.tokens):
            word = self.words[index]
            if word == "{" and depth == 0 and self.words[index - 1] == ")":
                last = self.close(index)
                self.body(index, last)
                index = last + 1
                continue
            if depth == 0 and word in ("=", ";"):
                constants = word == "=" and self.file.endswith(".cpp")
            elif constants:
                self.values(index)
            depth += (word in ("{", "(")) - (word in ("}", ")"))
            index += 1
        return self.numbered()

    def numbered(self):
        seen = collections.Counter()
        result = []
        for mutant in sorted(self.found, key=lambda found: (found.edits, found.change)):
            place = (mutant.routine, mutant.source, mutant.change)
            seen[place] += 1
            if seen[place] > 1:
                mutant = mutant._replace(change=f"{mutant.change} #{seen[place]}")
            result.append(mutant)
        return result

    def body(self, first, last):
        self.routine = self.name_before(first)
        self.locks(first, last)
        for statement in self.statements(first + 1, last):
            self.dropped(statement)
        index = first + 1
        while index < last:
            word = self.words[index]
            if self.words[index + 1] == "(" and (word in MUTE or word in ANNOTATIONS or
                                                 word.startswith("Trace")):
                index = self.close(index + 1)
            self.values(index)
            self.operators(index)
            index += 1
        self.routine = ""

    def name_before(self, index):
        """Of the routine whose body begins there."""
        depth = 0
        while index:
            index -= 1
            depth += (self.words[index] == ")") - (self.words[index] == "(")
            if depth == 0 and self.words[index] == "(" and self.words[index - 1] not in ANNOTATIONS:
                return self.words[index - 1]
        return ""

    # ---- Values and operators ----

    def values(self, index):
        word = self.words[index]
        if re.match(r"\d", word):
            value = int(word.rstrip("uUlL"), 0)
            for new in {value + 1, 0 if value else 1} if value < 2 else {value + 1, value - 1}:
                new = hex(new) if word.startswith("0x") else str(new)
                self.add("constant", f"{word} -> {new}", (index, index, new))
        elif word.startswith("STATUS_") and not word.startswith("STATUS_WAIT"):
            for new in ("STATUS_SUCCESS", "STATUS_UNSUCCESSFUL"):
                if word != new:
                    self.add("status", f"{word} -> {new}", (index, index, new))
        elif word in MIRROR or word in self.names:
            kind = "mirror" if word in MIRROR else "name"
            new = MIRROR.get(word) or self.names[word]
            self.add(kind, f"{word} -> {new}", (index, index, new))

    def operators(self, index):
        word, before, after = self.words[index], self.words[index - 1], self.words[index + 1]
        operand = re.match(r"[\w)\]]", before) and before not in ("return", "case")
        if word in COMPARISONS and not before.endswith("_cast") and not self.ends_cast(index):
            new = COMPARISONS[word]
            self.add("comparison", f"{word} -> {new}", (index, index, new))
        elif word in ("&&", "||"):
            other = "||" if word == "&&" else "&&"
            self.add("logic", f"{word} -> {other}", (index, index, other))
            self.left_out("logic", index, ("&&", "||", ";", "?", ":", ",", "=", "return"))
        elif word == "|" and operand:
            self.left_out("flag", index, ("|", ";", ",", "=", "|=", "return"))
        elif word in ("++", "--", "~", "&=", "|=", "+=", "-=", "<<", ">>") or (
                word in "+-%" and operand) or (word == "&" and operand and
                                               before not in ("auto", "CommandEntry")):
            new = ARITHMETIC[word]
            self.add("arithmetic", f"{word} -> {new or 'nothing'} before {after}",
                     (index, index, new))
        elif word == "if" and after == "(":
            last = self.close(index + 1)
            condition = self.text[self.tokens[index + 2].start:self.tokens[last - 1].end]
            inside = self.words[index + 2:last]
            if not ({"&&", "||"}.isdisjoint(inside) and set(inside) & {"==", "!="}):
                self.add("condition", "negated", (index + 2, last - 1, f"!({condition})"))
            self.add("condition", "never", (index + 2, last - 1, f"({condition}) && false"))
        elif word == "?":
            colon = self.edge(index, 1, (":", ";")) + 1
            last = self.edge(colon, 1, (";", ",", ":"))
            first_text, last_text = self.code(index + 1, colon - 1), self.code(colon + 1, last)
            self.add("condition", "the other choice", (index + 1, colon - 1, last_text),
                     (colon + 1, last, first_text))

    def ends_cast(self, index):
        if self.words[index] != ">":
            return False
        start = index
        while start and self.words[start] not in "<;{}":
            start -= 1
        return self.words[start] == "<" and self.words[start - 1].endswith("_cast")

    def left_out(self, kind, index, ends):
        first, last = self.edge(index, -1, ends), self.edge(index, 1, ends)
        self.add(kind, f"{self.code(index, last)} left out", (index, last, ""))
        self.add(kind, f"{self.code(first, index)} left out", (first, index, ""))

    # ---- Statements ----

    def statements(self, first, last):
        """Of a block and those in it; reports neighbours that could change places."""
        found, before, index = [], None, first
        while index < last:
            word = self.words[index]
            if word in CONTROL or self.words[index + 1] == ":":
                end = index
                while self.words[end] not in ("{", ";", ":") or self.words[end] == ";" and (
                        word == "for" and end < self.close(index + 1)):
                    end = self.close(end) if self.words[end] == "(" and word != "for" else end
                    end += 1
                before = None
            elif word in "{}":
                end, before = index, None
            else:
                end = self.edge(index - 1, 1, (";",)) + 1
                statement = Statement(index, end)
                found.append(statement)
                if before is not None:
                    self.exchanged(before, statement)
                before = statement
            index = end + 1
        return found

    def names_called(self, statement):
        return [self.words[i] for i in range(statement.first, statement.last)
                if self.words[i + 1] == "(" and re.match(r"[A-Za-z_]", self.words[i])]

    def is_declaration(self, statement):
        first, second, third = self.words[statement.first:statement.first + 3]
        return first in ("auto", "static", "const", "constexpr") or bool(
            re.match(r"[A-Za-z]", first) and (re.match(r"[A-Za-z]", second) or
                                              second == "*" and re.match(r"[A-Za-z]", third)))

    def is_mute(self, statement):
        word = self.words[statement.first]
        return word in MUTE or word.startswith("Trace") and self.words[statement.first + 1] == "("

    def dropped(self, statement):
        word = self.words[statement.first]
        simple = word in ("break", "continue", "goto") or (
            word == "return" and statement.last == statement.first + 1)
        if word in MUTE or not simple and (word == "return" or self.is_declaration(statement)):
            return
        self.add("statement", f"{self.code(*statement)} left out", (*statement, ";"))

    def exchanged(self, one, other):
        calls = [[name for name in self.names_called(statement) if name not in PURE and
                  not self.is_mute(statement)] for statement in (one, other)]
        stores = [not self.is_declaration(statement) for statement in (one, other)]
        leaves = {"return", "break", "continue", "goto"} & {self.words[one.first],
                                                            self.words[other.first]}
        acts = all(call or store for call, store in zip(calls, stores))
        if leaves or not acts or not (calls[0] or calls[1]) or self.is_mute(one) or \
                self.is_mute(other):
            return
        texts = [self.text[self.tokens[s.first].start:self.tokens[s.last].end]
                 for s in (one, other)]
        self.add("order", f"after {self.code(*other)}", (*one, texts[1]), (*other, texts[0]))

    # ---- Locks ----

    def locks(self, first, last):
        """A lock that a routine takes and gives back is not taken, or another is."""
        uses = collections.defaultdict(list)
        for index in range(first, last):
            found = re.fullmatch(r"(Ke|Io)(Acquire|Release)\w*SpinLock\w*", self.words[index])
            if found and self.words[index + 1] == "(":
                end = self.close(index + 1)
                comma = self.edge(index + 1, 1, (",",)) + 1
                lock = self.code(index + 2, comma - 1) if found[1] == "Ke" else "cancel"
                uses[lock].append((found[2], index, comma, end))
        for lock, places in uses.items():
            if len({place[0] for place in places}) < 2:
                continue
            none, other = [], []
            sibling = SIBLING_LOCKS.get(lock.split(">")[-1])
            for what, index, comma, end in places:
                rest = self.code(comma + 1, end - 1) if self.words[comma] == "," else ""
                if lock == "cancel":
                    rest = self.code(index + 2, end - 1)
                    new = f"*({rest}) = KeGetCurrentIrql()"
                else:
                    new = "KeGetCurrentIrql()"
                new = new if what == "Acquire" else f"static_cast<void>({rest})"
                none.append((index, end, new))
                other.append((comma - 1, comma - 1, sibling))
            self.add("lock", f"{lock} not taken", *none)
            if sibling:
                self.add("lock", f"{lock} -> {sibling}", *other)


def mutated(text, mutant):
    for start, end, new in reversed(mutant.edits):
        text = text[:start] + new + text[end:]
    return text


def all_mutants(texts):
    """{file: text} -> every mutant, in the order of the files."""
    names = siblings(list(texts.values()))
    return [mutant for file in sorted(texts)
            for mutant in Source(file, texts[file], names).mutants()]


def draw(mutants, count, seed):
    """So many of them, one kind after the other, and of a kind from one file after the other."""
    chance = random.Random(seed)
    kinds = collections.defaultdict(lambda: collections.defaultdict(list))
    for mutant in mutants:
        kinds[mutant.kind][mutant.file].append(mutant)
    rows = []
    for kind in sorted(kinds):
        files = [chance.sample(kinds[kind][file], len(kinds[kind][file]))
                 for file in sorted(kinds[kind])]
        chance.shuffle(files)
        rows.append([row[i] for i in range(max(map(len, files))) for row in files if i < len(row)])
    chance.shuffle(rows)
    turns = [row[i] for i in range(max(map(len, rows), default=0)) for row in rows if i < len(row)]
    return turns[:count]
