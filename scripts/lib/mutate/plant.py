"""Finds the places where one small fault can be made in a source file, and rewrites the file so that
it holds all of them, each switched on by its number.

Each fault replaces one piece of the text. Pieces nest, and only one fault is on at a time, so what
stands in a fault's stead is the original text: the rewritten file grows with the number of faults.
"""

import collections
import re

from clang.cindex import CursorKind as K
from clang.cindex import Index, StorageClass
from clang.cindex import TypeKind as T

PRELUDE = """extern "C" int hnetd_mutant;
extern "C" unsigned char* hnetd_reached;
static inline bool hnetd_is(int n)
{
    if (__builtin_expect(hnetd_reached != nullptr, 0)) {
        __atomic_store_n(&hnetd_reached[n], 1, __ATOMIC_RELAXED);
    }
    return hnetd_mutant == n;
}
"""

# What stands for more than it says, and is no place for a fault of its own.
MACROS = ("LOCK_SECTION", "END_SECTION", "TEST_POINT", "pthread_cleanup_")
# Orders between threads that this machine keeps anyway; the models tell them. And annotations.
ORDERS = re.compile(r"(__atomic_(signal|thread)_fence|full_fence|role_(taken|given)|static_cast<void>)\b")
# Calls whose place among their neighbours matters to other threads.
TELLING = re.compile(r"\b\w*(lock|unlock|take|give|wake|signal|broadcast|free|leave|enter|drop|hold|"
                     r"store|exit|kill|wait|link|insert|remove|begin|end|put|cut)\w*\(")
STATUS = re.compile(r"OK|ERROR|SEC_\w+|S_\w+Lib_\w+")
ERRNO = re.compile(r"E[A-Z0-9]+")
NUMBER = re.compile(r"(0[xX][0-9a-fA-F']+|[0-9][0-9']*)[uUlLzZ]*")
SHIFTED = {"<": "<=", "<=": "<", ">": ">=", ">=": ">"}
TURNED = {"==": "!=", "!=": "=="}
INTEGERS = (T.INT, T.UINT, T.LONG, T.ULONG, T.LONGLONG, T.ULONGLONG, T.SHORT, T.USHORT)

# form: how the piece is rewritten; function, line: where; old, new: the text before and after
Fault = collections.namedtuple("Fault", "number form start end function line old new")


def without_comments(text):
    """Comments become blanks, so that every other character keeps its place."""
    pattern = r'"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])\'|//[^\n]*|/\*.*?\*/'
    blank = lambda m: re.sub(r"[^\n]", " ", m[0]) if m[0][0] == "/" else m[0]
    return re.sub(pattern, blank, text, flags=re.S)


class Finder:
    def __init__(self, path, arguments):
        with open(path, encoding="latin-1") as source:
            self.original = source.read()
        self.text = without_comments(self.original)
        self.path = path
        self.found = {}  # (start, end, form, new) -> function
        self.conditions = set()  # pieces whose value is nothing but a condition
        unit = Index.create().parse(path, arguments)
        for problem in unit.diagnostics:
            if problem.severity >= 3:
                raise SystemExit(f"{path}: {problem}")
        self.top(unit.cursor)

    # ---- The tree ----

    def top(self, node):
        for child in node.get_children():
            if child.location.file is None or child.location.file.name != self.path:
                continue
            if child.kind != K.FUNCTION_DECL:
                self.top(child)
            elif child.is_definition() and "constexpr" not in self.of(child).split("(")[0]:
                self.function = child.spelling
                returns = child.result_type.kind != T.VOID
                for body in child.get_children():
                    if body.kind == K.COMPOUND_STMT:
                        self.last = self.span(list(body.get_children())[-1]) if returns else None
                        self.visit(body)
                        self.sections(*self.span(body))

    @staticmethod
    def kind(node):
        try:
            return node.kind
        except ValueError:  # newer than the bindings
            return K.UNEXPOSED_EXPR

    @staticmethod
    def span(node):
        return node.extent.start.offset, node.extent.end.offset

    def of(self, node):
        start, end = self.span(node)
        return self.text[start:end]

    def bare(self, node):
        """The expression inside implicit conversions and parentheses."""
        children = list(node.get_children())
        while self.kind(node) in (K.UNEXPOSED_EXPR, K.PAREN_EXPR) and len(children) == 1:
            node = children[0]
            children = list(node.get_children())
        return node

    def is_expect(self, node):
        return self.kind(node) == K.CALL_EXPR and self.of(node).startswith("__builtin_expect(")

    def add(self, start, end, form, new):
        self.found.setdefault((start, end, form, new), self.function)

    def visit(self, node):
        kind = self.kind(node)
        text = self.of(node)
        if text.startswith(MACROS) and kind not in (K.COMPOUND_STMT, K.DO_STMT):
            return
        handler = {
            K.COMPOUND_STMT: self.block, K.IF_STMT: self.choice, K.CONDITIONAL_OPERATOR: self.choice,
            K.WHILE_STMT: self.loop, K.FOR_STMT: self.loop, K.BINARY_OPERATOR: self.operator,
            K.UNARY_OPERATOR: self.unary, K.RETURN_STMT: self.result, K.VAR_DECL: self.variable,
            K.CXX_BOOL_LITERAL_EXPR: self.word, K.INTEGER_LITERAL: self.word,
            K.DECL_REF_EXPR: self.word,
        }.get(kind)
        if kind in (K.CXX_UNARY_EXPR, K.STATIC_ASSERT) or (handler and handler(node) is False):
            return
        children = list(node.get_children())
        if kind == K.CASE_STMT or self.is_expect(node):
            children = children[1:2]  # not the label; not the likely value
        if kind == K.CASE_STMT or kind == K.DEFAULT_STMT or kind == K.LABEL_STMT:
            self.statement(children[-1])
        for child in children:
            self.visit(child)

    # ---- Statements ----

    def block(self, node):
        previous = None
        for child in node.get_children():
            piece = self.statement(child)
            if previous and piece and self.ordered(previous, piece):
                (s1, e1), (s2, e2) = previous, piece
                self.add(s1, e2, "swap", f"{self.text[s2:e2]} {self.text[s1:e1]}")
                piece = None  # pairs do not overlap
            previous = piece

    def statement(self, node):
        """A statement that can be left out; returns its piece if it can change places."""
        start, end = self.span(node)
        text = self.text[start:end]
        kind = self.kind(node)
        leaves = kind in (K.BREAK_STMT, K.CONTINUE_STMT) or text == "return"
        if not (kind.is_expression() or leaves) or text.startswith(MACROS) or ORDERS.match(text):
            return None
        if (start, end) == self.last:  # never returns: nothing may follow it
            return None
        end = self.text.index(";", end) + 1
        self.add(start, end, "statement", ";")
        if text.startswith("pthread_cond_broadcast("):
            self.add(start, end, "statement", text.replace("broadcast", "signal", 1) + ";")
        return None if leaves else (start, end)

    def ordered(self, one, other):
        """Whether it matters which comes first, as far as the text tells."""
        first, second = self.text[slice(*one)], self.text[slice(*other)]
        if first.startswith("printf(") or second.startswith("printf("):
            return True
        writes = [re.match(r"(?:\+\+|--)?([^=;(]*?) ?(?:[-+|&*/]?=(?!=)|\+\+|--|;)", s)
                  for s in (first, second)]
        mentions = [bool(w and w[1]) and w[1] in text for w, text in zip(writes, (second, first))]
        return any(mentions) or bool(TELLING.search(first) and TELLING.search(second))

    def sections(self, start, end):
        for lock in re.compile(r"LOCK_SECTION\((.*?), (\w+)\);", re.S).finditer(self.text, start, end):
            close = self.text.index(f"END_SECTION({lock[2]});", lock.end())
            self.add(lock.start(), lock.end(), "section", "no section")
            self.add(close, self.text.index(";", close) + 1, "unlock", "no unlock")

    # ---- Conditions ----

    def condition(self, node, answers):
        start, end = self.span(node)
        for answer in answers:
            self.add(start, end, "condition", answer)
        self.operands(node)

    def operands(self, node):
        node = self.bare(node)
        self.conditions.add(self.span(node))
        inner = list(node.get_children())
        if self.is_expect(node):
            self.operands(inner[1])
        elif self.operator_of(node, inner) in ("&&", "||"):
            self.operands(inner[0])
            self.operands(inner[1])

    def choice(self, node):
        head = next(node.get_children())
        if self.kind(head).is_expression():
            self.condition(head, ("false", "true"))

    def loop(self, node):
        children = list(node.get_children())
        body = children[-1]
        if self.kind(node) == K.WHILE_STMT:
            heads = children[:1]
        else:
            first = self.text.index(";", self.span(node)[0])
            second = self.text.index(";", first + 1)
            heads = [c for c in children if first < self.span(c)[0] < second]
        for head in heads:
            if self.kind(head).is_expression():
                self.condition(head, ("false",))  # for ever would only cost time
        end = self.span(body)[1]
        endless = self.of(node).startswith("for (;;)")  # and nothing may follow that
        if self.kind(body) == K.COMPOUND_STMT and self.text[end - 1] == "}" and not endless:
            self.add(end - 1, end - 1, "once", "break;")

    # ---- Expressions ----

    def operator_of(self, node, children):
        if self.kind(node) != K.BINARY_OPERATOR or len(children) != 2:
            return ""
        return self.text[self.span(children[0])[1]:self.span(children[1])[0]].strip(" \n()")

    def operator(self, node):
        children = list(node.get_children())
        op = self.operator_of(node, children)
        start, end = self.span(node)
        left, right = (self.of(c) for c in children)
        if op in SHIFTED:
            self.add(start, end, "expression", f"{left} {SHIFTED[op]} {right}")
        elif op in TURNED and (start, end) not in self.conditions:
            self.add(start, end, "expression", f"{left} {TURNED[op]} {right}")
        elif op in ("&&", "||"):
            for operand in children:
                self.add(start, end, "expression", f"static_cast<bool>({self.of(operand)})")
        if op in SHIFTED or op in TURNED:  # an off by one there is the comparison's
            for operand in children:
                if list(self.bare(operand).get_children()):
                    self.visit(operand)
            return False
        return True

    def unary(self, node):
        start, end = self.span(node)
        text = self.text[start:end]
        if text.startswith(("++", "--")) or text.endswith(("++", "--")):
            self.add(start, end, "expression", text.strip("+-"))

    def result(self, node):
        value = next(node.get_children(), None)
        if value is None:
            return
        bare = self.bare(value)
        start, end = self.span(value)
        text = self.text[start:end]
        kind = value.type.get_canonical().kind
        op = self.operator_of(bare, list(bare.get_children()))
        leaf = self.kind(bare) in (K.CXX_BOOL_LITERAL_EXPR, K.INTEGER_LITERAL,
                                   K.CXX_NULL_PTR_LITERAL_EXPR) or STATUS.fullmatch(text)
        if leaf or self.kind(bare) == K.CONDITIONAL_OPERATOR or op not in ("", "&&", "||"):
            return
        if kind == T.BOOL:
            self.add(start, end, "expression", f"!({text})")
        elif kind == T.POINTER:
            self.add(start, end, "expression", "nullptr")
        elif kind in INTEGERS and not text.startswith("fail_with("):
            self.add(start, end, "expression", f"{text} + 1")

    def variable(self, node):
        """Only the first value of a variable is looked at, and only if somebody does."""
        start, end = self.span(node)
        text = self.text[start:end]
        if node.storage_class == StorageClass.STATIC or "constexpr" in text:
            return False
        after = re.compile(rf"\b{node.spelling}\b(\s*=(?!=))?").search(self.text, end)
        between = self.text[end:after.start()] if after else ""
        overwritten = after and after[1] and between.count("{") == between.count("}")
        value = text.find("=")
        for child in node.get_children():
            if not overwritten and value >= 0 and self.span(child)[0] > start + value:
                self.visit(child)
        return False

    def word(self, node):
        start, end = self.span(node)
        text = self.text[start:end]
        if NUMBER.fullmatch(text):
            self.add(start, end, "expression", f"{text} + 1")
        elif text in ("true", "false"):
            self.add(start, end, "expression", "false" if text == "true" else "true")
        elif STATUS.fullmatch(text):
            others = {"OK": ("ERROR",), "ERROR": ("OK",), "SEC": ("SEC_UNSPEC", "SEC_OK")}.get(
                text.split("_")[0], ("S_objLib_OBJ_TIMEOUT", "S_objLib_OBJ_ID_ERROR"))
            self.add(start, end, "expression", next(o for o in others if o != text))
        elif self.kind(node) == K.INTEGER_LITERAL and ERRNO.fullmatch(text):
            self.add(start, end, "expression", "EDOM")


def faults_in(path, arguments):
    """All faults of a file, in the order of the text, numbered from 1."""
    finder = Finder(path, arguments)
    faults = []
    for start, end, form, new in sorted(finder.found):
        line = finder.text.count("\n", 0, start) + 1
        old = " ".join(finder.text[start:end].split())
        faults.append(Fault(len(faults) + 1, form, start, end, finder.found[start, end, form, new],
                            line, old, " ".join(new.split())))
    return finder, faults


RANK = ("swap", "once", "section", "unlock", "statement", "condition", "expression")


def rewrite(finder, faults):
    """The file with all faults in it, line for line."""
    pieces = collections.defaultdict(list)
    for fault in faults:
        pieces[fault.start, -fault.end, RANK.index(fault.form)].append(fault)
    order = sorted(pieces)
    position = 0

    def inside(start, end):
        nonlocal position
        out = []
        while position < len(order) and order[position][0] < end and -order[position][1] <= end:
            key = order[position]
            position += 1
            out.append(finder.text[start:key[0]])
            start = -key[1]
            out.append(wrap(pieces[key], inside(key[0], start), finder.text[key[0]:start]))
        out.append(finder.text[start:end])
        return "".join(out)

    text = inside(0, len(finder.text))
    return f'{PRELUDE}#line 1 "{finder.path}"\n{text}'


def wrap(faults, inner, text):
    form = faults[0].form
    number = faults[0].number
    if form == "once":
        return f"if (hnetd_is({number})) break; "
    if form == "section":
        mutex, role = re.fullmatch(r"LOCK_SECTION\((.*), (\w+)\);", text, re.S).groups()
        return (f"{{ pthread_mutex_t* const {role}_mutex = ({mutex}); const bool {role}_open = "
                f"hnetd_is({number}); if (!{role}_open) section_open({role}_mutex, {role});")
    if form == "unlock":
        role = re.search(r"\((\w+)\)", text)[1]
        return (f"if (!{role}_open && !hnetd_is({number})) section_close({role}_mutex, {role}); }} "
                "static_assert(true);")
    if form in ("statement", "swap"):
        return "".join(f"if (hnetd_is({f.number})) {{ {f.new} }} else " for f in faults) + f"{{ {inner} }}"
    if form == "condition":
        inner = f"static_cast<bool>({inner})"
    return "(" + "".join(f"hnetd_is({f.number}) ? ({f.new}) : " for f in faults) + f"({inner}))"
