"""Reads one interface description (src/interfaces/idl/*.idl) into a checked model.

The format is line-oriented: one declaration per line, blocks in braces, '#' starts a comment.
Comment lines right above a declaration and a comment at the end of its line are kept as its
documentation. Every fault is reported as "file:line: what is wrong" through IdlError.
"""

import os
import re

PRIMITIVES = {
    # name: (C++ type, width in bits or None, default initialiser)
    "UInt8": ("uint8_t", 8, " = 0"),
    "UInt16": ("uint16_t", 16, " = 0"),
    "UInt32": ("uint32_t", 32, " = 0"),
    "UInt64": ("uint64_t", 64, " = 0"),
    "Int8": ("int8_t", 8, " = 0"),
    "Int16": ("int16_t", 16, " = 0"),
    "Int32": ("int32_t", 32, " = 0"),
    "Int64": ("int64_t", 64, " = 0"),
    "Float": ("float", None, " = 0"),
    "Double": ("double", None, " = 0"),
    "Boolean": ("bool", None, " = false"),
    "String": ("std::string", None, ""),
}
ENUM_BASES = ("UInt8", "UInt16", "UInt32")
METHOD_IDS = (1, 0x7FFF)  # methods, getters and setters share this space
EVENT_IDS = (0x8000, 0xFFFF)  # events and notifiers share this one
RESERVED = {"Empty", "All"}

IDENT = r"[A-Za-z_][A-Za-z0-9_]*"
QUALIFIED = r"[A-Za-z_][A-Za-z0-9_]*(?:::[A-Za-z_][A-Za-z0-9_]*)+"
TYPE_EXPR = r"(?:%s\.)?%s(?:\[\d*\])*" % (IDENT, IDENT)


class IdlError(Exception):
    pass


class Where:
    def __init__(self, path, line):
        self.path, self.line = path, line

    def fail(self, what):
        raise IdlError("%s:%d: %s" % (self.path, self.line, what))


class TypeRef:
    """A type as the description writes it: a name, optionally with array suffixes."""

    def __init__(self, text, where):
        self.text, self.where = text, where
        m = re.fullmatch(r"((?:%s\.)?%s)((?:\[\d*\])*)" % (IDENT, IDENT), text)
        if not m:
            where.fail("bad type '%s'" % text)
        self.base = m.group(1)
        self.suffixes = re.findall(r"\[(\d*)\]", m.group(2))
        for s in self.suffixes:
            if s and not 1 <= int(s) <= 65535:
                where.fail("array size %s out of range 1..65535" % s)


class Resolved:
    """A type resolved to C++: its spelling, whether it is passed by value, its initialiser."""

    def __init__(self, cpp, scalar, init, enum=None):
        self.cpp, self.scalar, self.init, self.enum = cpp, scalar, init, enum


class Decl:
    def __init__(self, kind, name, where, doc):
        self.kind, self.name, self.where, self.doc = kind, name, where, doc
        self.trailing = ""


class Model:
    def __init__(self, path):
        self.path = path
        self.file = os.path.basename(path)
        self.header_doc = []
        self.name = self.namespace = self.alias = None
        self.service = self.major = self.minor = None
        self.servicename = None
        self.proxy = self.skeleton = self.logtag = None
        self.includes = []
        self.imports = []  # Models
        self.types = {}  # name -> Decl (typedef, extern, enum, struct, arguments)
        self.order = []  # declarations in description order
        self.methods, self.events, self.fields = [], [], []

    # --- lookups -------------------------------------------------------------------------------

    def imported(self, alias, where):
        for m in self.imports:
            if m.alias == alias:
                return m
        where.fail("unknown import '%s' (import its description first)" % alias)

    def resolve(self, ref, where, before=None):
        """C++ spelling of a TypeRef; `before` makes a local type declared later an error."""
        base = self.resolve_name(ref.base, where, before)
        for s in reversed(ref.suffixes):
            if s:
                base = Resolved("std::array<%s, %s>" % (base.cpp, s), False, "{}")
            else:
                base = Resolved("std::vector<%s>" % base.cpp, False, "")
        return base

    def resolve_name(self, name, where, before=None):
        if name in PRIMITIVES:
            cpp, _, init = PRIMITIVES[name]
            return Resolved(cpp, name != "String", init)
        if "." in name:
            alias, local = name.split(".", 1)
            other = self.imported(alias, where)
            d = other.types.get(local)
            if d is None or d.kind == "arguments":
                where.fail("unknown type '%s'" % name)
            r = other.resolve_decl(d)
            return Resolved("%s::%s" % (alias, local) if d.kind != "extern" else r.cpp,
                            r.scalar, r.init, r.enum)
        d = self.types.get(name)
        if d is None or d.kind == "arguments":
            where.fail("unknown type '%s'" % name)
        if before is not None and d.where.line > before:
            where.fail("type '%s' is used before its declaration on line %d" % (name, d.where.line))
        return self.resolve_decl(d)

    def resolve_decl(self, d):
        if d.kind == "enum":
            return Resolved(d.name, True, "{}", d)
        if d.kind == "struct":
            return Resolved(d.name, False, "")
        target = d.resolved
        if d.kind == "extern":
            return Resolved(d.cpp, target.scalar, target.init or "{}")
        return Resolved(d.name, target.scalar, target.init, target.enum)


class Param:
    def __init__(self, type_ref, name, where, doc, trailing):
        self.type, self.name, self.where, self.doc, self.trailing = type_ref, name, where, doc, trailing
        self.resolved = None


def strip_comment(line):
    """(code, comment) of one line; '#' inside double quotes is text."""
    quoted = False
    for i, c in enumerate(line):
        if c == '"':
            quoted = not quoted
        elif c == "#" and not quoted:
            return line[:i].rstrip(), line[i + 1:].strip()
    return line.rstrip(), ""


def parse_number(text, where, what):
    try:
        return int(text, 0)
    except ValueError:
        where.fail("%s: expected a number, not '%s'" % (what, text))


def parse_attributes(text, where, allowed):
    """'[a = 1, flag]' -> {'a': '1', 'flag': True}; only keys in `allowed`."""
    out = {}
    if not text:
        return out
    for part in text.split(","):
        part = part.strip()
        m = re.fullmatch(r"(%s)\s*(?:=\s*(\S+))?" % IDENT, part)
        if not m:
            where.fail("bad attribute '%s'" % part)
        key, value = m.group(1), m.group(2)
        if key not in allowed:
            where.fail("unknown attribute '%s' (known: %s)" % (key, ", ".join(sorted(allowed))))
        if key in out:
            where.fail("attribute '%s' given twice" % key)
        out[key] = value if value is not None else True
    return out


def upper_first(name):
    return name[0].upper() + name[1:]


def parse(path, loading=()):
    """Parses and checks the description at `path`; imports are read relative to it."""
    model = Model(path)
    try:
        with open(path, encoding="utf-8") as f:
            lines = f.read().split("\n")
    except OSError as e:
        raise IdlError("%s: cannot read: %s" % (path, e.strerror))

    doc = []  # comment lines waiting for the next declaration
    block = None  # the open declaration, while inside braces
    header_done = False

    for number, raw in enumerate(lines, 1):
        where = Where(path, number)
        code, comment = strip_comment(raw)
        code = code.strip()
        if not code:
            if raw.strip().startswith("#"):
                doc.append(comment)
            else:
                if not header_done and model.name is None and doc:
                    model.header_doc, header_done = doc, True
                doc = []
            continue
        if block is not None:
            if code == "}":
                block = None
            else:
                parse_member(model, block, code, where, doc, comment)
            doc = []
            continue
        parse_declaration(model, code, where, doc, comment, loading)
        last = model.order[-1] if model.order else None
        if code.endswith("{"):
            block = last
        doc = []
    if block is not None:
        Where(path, len(lines)).fail("'%s' is not closed with '}'" % block.name)
    check(model)
    return model


def parse_declaration(model, code, where, doc, comment, loading):
    words = code.split()
    head = words[0]
    header_keys = {"interface", "namespace", "service", "servicename", "proxy", "skeleton",
                   "logtag"}
    if head in header_keys and model.order:
        where.fail("'%s' belongs to the head of the description, before any type" % head)

    m = None
    if head == "interface" and (m := re.fullmatch(r"interface (%s)" % IDENT, code)):
        model.name = m.group(1)
    elif head == "namespace" and (m := re.fullmatch(r"namespace (%s|%s) as (%s)" % (QUALIFIED, IDENT, IDENT), code)):
        model.namespace, model.alias = m.group(1), m.group(2)
    elif head == "service" and (m := re.fullmatch(r"service (\S+) version (\d+)\.(\d+)", code)):
        model.service = parse_number(m.group(1), where, "service")
        model.major, model.minor = int(m.group(2)), int(m.group(3))
        if not 1 <= model.service <= 0xFFFE:
            where.fail("service id %d out of range 1..65534" % model.service)
        if model.major > 254 or model.minor > 0xFFFFFFFE:
            where.fail("version %d.%d out of range (major 0..254)" % (model.major, model.minor))
    elif head == "servicename" and (m := re.fullmatch(r'servicename "([^"\\]*)"', code)):
        model.servicename = m.group(1)
    elif head in ("proxy", "skeleton", "logtag") and (m := re.fullmatch(r"\S+ (%s)" % IDENT, code)):
        setattr(model, head, m.group(1))
    elif head == "include" and (m := re.fullmatch(r'include "([^"]+)"', code)):
        model.includes.append(m.group(1))
    elif head == "import" and (m := re.fullmatch(r'import "([^"]+)"', code)):
        target = os.path.join(os.path.dirname(model.path), m.group(1))
        if os.path.abspath(target) in loading:
            where.fail("import cycle through '%s'" % m.group(1))
        model.imports.append(parse(target, loading + (os.path.abspath(model.path),)))
    elif head == "typedef" and (m := re.fullmatch(r"typedef (%s) is (%s)" % (IDENT, TYPE_EXPR), code)):
        d = add_type(model, "typedef", m.group(1), where, doc, comment)
        d.target = TypeRef(m.group(2), where)
    elif head == "extern" and (m := re.fullmatch(r"extern (%s) is (%s) = (%s)" % (IDENT, TYPE_EXPR, QUALIFIED), code)):
        d = add_type(model, "extern", m.group(1), where, doc, comment)
        d.target, d.cpp = TypeRef(m.group(2), where), m.group(3)
    elif head == "enum" and (m := re.fullmatch(r"enum (%s) : (%s)(?: \[(.*)\])?(?: (\{)| = (%s\.%s))" % (IDENT, IDENT, IDENT, IDENT), code)):
        d = add_type(model, "enum", m.group(1), where, doc, comment)
        d.base = m.group(2)
        if d.base not in ENUM_BASES:
            where.fail("enumeration base must be one of %s, not '%s'" % (", ".join(ENUM_BASES), d.base))
        attrs = parse_attributes(m.group(3), where, {"names", "notostring"})
        d.names, d.notostring = attrs.get("names"), bool(attrs.get("notostring"))
        if d.names is not None and (d.names is True or not re.fullmatch(QUALIFIED, d.names)):
            where.fail("names must be a qualified function name such as orv::lum::stateName")
        d.enumerators, d.copy_of = [], None
        if m.group(5):
            copy_enum(model, d, m.group(5), where)
    elif head in ("struct", "arguments") and (m := re.fullmatch(r"(?:struct|arguments) (%s) \{" % IDENT, code)):
        d = add_type(model, head, m.group(1), where, doc, comment)
        d.params = []
    elif head == "method" and (m := re.fullmatch(r"method (\S+) (%s)(?: \[(.*)\])? \{" % IDENT, code)):
        d = add_member(model, model.methods, "method", m.group(2), where, doc, comment)
        d.id = parse_number(m.group(1), where, "method id")
        attrs = parse_attributes(m.group(3), where, {"fireAndForget"})
        d.fire_and_forget = bool(attrs.get("fireAndForget"))
        d.inputs, d.outputs, d.in_group, d.out_group = [], [], None, None
    elif head == "event" and (m := re.fullmatch(r"event (\S+) (%s) \[(.*)\] \{" % IDENT, code)):
        d = add_member(model, model.events, "event", m.group(2), where, doc, comment)
        d.id = parse_number(m.group(1), where, "event id")
        attrs = parse_attributes(m.group(3), where, {"eventgroup"})
        d.eventgroup = required_number(attrs, "eventgroup", where)
        d.params = []
    elif head == "field" and (m := re.fullmatch(r"field (%s) (%s) \[(.*)\]" % (TYPE_EXPR, IDENT), code)):
        d = add_member(model, model.fields, "field", m.group(2), where, doc, comment)
        d.type = TypeRef(m.group(1), where)
        attrs = parse_attributes(m.group(3), where, {"notifier", "getter", "setter", "eventgroup"})
        d.notifier = required_number(attrs, "notifier", where)
        d.getter = required_number(attrs, "getter", where)
        d.eventgroup = required_number(attrs, "eventgroup", where)
        d.setter = parse_number(attrs["setter"], where, "setter") if "setter" in attrs else None
    else:
        known = ("interface, namespace, service, servicename, proxy, skeleton, logtag, include, "
                 "import, typedef, extern, enum, struct, arguments, method, event, field")
        if head in known.split(", "):
            where.fail("malformed '%s' declaration" % head)
        where.fail("unknown declaration '%s' (expected one of: %s)" % (head, known))


def required_number(attrs, key, where):
    if key not in attrs or attrs[key] is True:
        where.fail("missing attribute '%s = <number>'" % key)
    return parse_number(attrs[key], where, key)


def add_type(model, kind, name, where, doc, comment):
    if name in RESERVED or name in PRIMITIVES:
        where.fail("'%s' is a reserved name" % name)
    if name in model.types:
        where.fail("duplicate name '%s' (first declared on line %d)" % (name, model.types[name].where.line))
    d = Decl(kind, name, where, doc)
    d.trailing = comment
    model.types[name] = d
    model.order.append(d)
    return d


def add_member(model, into, kind, name, where, doc, comment):
    for other in model.methods + model.events + model.fields:
        if other.name == name:
            where.fail("duplicate name '%s' (first declared on line %d)" % (name, other.where.line))
    d = Decl(kind, name, where, doc)
    d.trailing = comment
    into.append(d)
    model.order.append(d)
    return d


def copy_enum(model, d, source, where):
    alias, local = source.split(".", 1)
    other = model.imported(alias, where)
    src = other.types.get(local)
    if src is None or src.kind != "enum":
        where.fail("'%s' is not an enumeration" % source)
    if src.base != d.base:
        where.fail("'%s' is %s, not %s" % (source, src.base, d.base))
    d.copy_of = "%s::%s" % (alias, local)
    d.doc = d.doc + ["The values of %s." % d.copy_of]
    d.enumerators = list(src.enumerators)
    d.notostring = src.notostring
    d.names = None


def parse_member(model, block, code, where, doc, comment):
    if block.kind == "enum":
        m = re.fullmatch(r"(%s) = (-?\d+|0x[0-9A-Fa-f]+|%s)" % (IDENT, QUALIFIED), code)
        if not m:
            where.fail("expected 'name = value' in enumeration '%s'" % block.name)
        name, value = m.group(1), m.group(2)
        for e in block.enumerators:
            if e[0] == name:
                where.fail("duplicate enumerator '%s' in '%s'" % (name, block.name))
        if "::" not in value:
            number = int(value, 0)
            limit = (1 << PRIMITIVES[block.base][1]) - 1
            if not 0 <= number <= limit:
                where.fail("value %s of '%s' out of range 0..%d" % (value, name, limit))
            for e in block.enumerators:
                if "::" not in e[1] and int(e[1], 0) == number:
                    where.fail("duplicate value %s in '%s' ('%s' has it)" % (value, block.name, e[0]))
        block.enumerators.append((name, value, doc, comment))
        return
    if block.kind in ("struct", "arguments", "event"):
        m = re.fullmatch(r"(%s) (%s)" % (TYPE_EXPR, IDENT), code)
        if not m:
            where.fail("expected 'Type name' in '%s'" % block.name)
        add_param(block.params, m.group(1), m.group(2), where, doc, comment, block.name)
        return
    if block.kind == "method":
        m = re.fullmatch(r"(in|out) (%s)(?: (%s))?" % (TYPE_EXPR, IDENT), code)
        if not m:
            where.fail("expected 'in Type name', 'out Type name' or 'in|out Arguments' in '%s'" % block.name)
        direction, type_text, name = m.groups()
        params = block.inputs if direction == "in" else block.outputs
        group_attr = "in_group" if direction == "in" else "out_group"
        if name is None:
            group = model.types.get(type_text)
            if group is None or group.kind != "arguments":
                where.fail("'%s' is not an arguments block (write '%s Type name' for one argument)"
                           % (type_text, direction))
            if params or getattr(block, group_attr):
                where.fail("an arguments block stands alone: no other '%s' in '%s'" % (direction, block.name))
            setattr(block, group_attr, group)
            params.extend(group.params)
            return
        if getattr(block, group_attr):
            where.fail("an arguments block stands alone: no other '%s' in '%s'" % (direction, block.name))
        add_param(params, type_text, name, where, doc, comment, block.name)
        return
    where.fail("'%s' has no members" % block.name)


def add_param(params, type_text, name, where, doc, comment, owner):
    for p in params:
        if p.name == name:
            where.fail("duplicate name '%s' in '%s'" % (name, owner))
    params.append(Param(TypeRef(type_text, where), name, where, doc, comment))


def check(model):
    """Resolves every type and checks ids; the first fault ends the run."""
    head = Where(model.path, 1)
    for key, what in (("name", "interface NAME"), ("namespace", "namespace NS as ALIAS"),
                      ("service", "service ID version MAJOR.MINOR")):
        if getattr(model, key) is None:
            head.fail("missing '%s' line" % what)
    for key in ("proxy", "skeleton", "logtag"):
        if getattr(model, key) is None:
            head.fail("missing '%s NAME' line" % key)

    for d in model.order:
        if d.kind in ("typedef", "extern"):
            d.resolved = model.resolve(d.target, d.where, before=d.where.line)
        elif d.kind in ("struct", "arguments", "event"):
            for p in d.params:
                p.resolved = model.resolve(p.type, p.where, before=d.where.line)
        elif d.kind == "method":
            for p in d.inputs + d.outputs:
                if p.resolved is None:
                    p.resolved = model.resolve(p.type, p.where)
            if d.fire_and_forget and d.outputs:
                d.where.fail("fire-and-forget method '%s' cannot have outputs" % d.name)
        elif d.kind == "field":
            d.resolved = model.resolve(d.type, d.where)

    method_ids, event_ids = {}, {}

    def take(space, limits, value, what, where):
        lo, hi = limits
        if not lo <= value <= hi:
            where.fail("%s %d out of range %d..%d" % (what, value, lo, hi))
        if value in space:
            where.fail("duplicate id %d: %s and %s" % (value, space[value], what))
        space[value] = what

    for d in model.methods:
        take(method_ids, METHOD_IDS, d.id, "method %s" % d.name, d.where)
    for d in model.events:
        take(event_ids, EVENT_IDS, d.id, "event %s" % d.name, d.where)
    for d in model.fields:
        take(event_ids, EVENT_IDS, d.notifier, "notifier of %s" % d.name, d.where)
        take(method_ids, METHOD_IDS, d.getter, "getter of %s" % d.name, d.where)
        if d.setter is not None:
            take(method_ids, METHOD_IDS, d.setter, "setter of %s" % d.name, d.where)
    for d in model.events + model.fields:
        if not 1 <= d.eventgroup <= 0xFFFF:
            d.where.fail("eventgroup %d out of range 1..65535" % d.eventgroup)
    model.methods.sort(key=lambda d: d.id)
    model.events.sort(key=lambda d: d.id)
    model.fields.sort(key=lambda d: d.notifier)
    for d in model.methods + model.events + model.fields:
        d.descriptor = upper_first(d.name)
