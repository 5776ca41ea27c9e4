#!/usr/bin/python3
"""Generates the NGAP and S1AP aligned-PER descriptor tables and records from the published ASN.1.

Usage: asn1gen.py ngap|s1ap ASN1_DIR OUT_DIR

Reads every module of ASN1_DIR (information object classes are skipped, object sets and the
parameterised container types are expanded), and writes for the protocol:
  mv_<fam>_asn.h          records, value typedefs, operation declarations, IE ids
  mv_<fam>_asn_tables.cpp descriptor tables walked by the one encoder and decoder of libAsn
  mv_<fam>_asn_ops.cpp    the per-type and per-PDU operations as thin wrappers
The output is data, not code, so that it compiles quickly.
"""
import os
import re
import sys

# ---------------------------------------------------------------- tokens

TOKRE = re.compile(r'\s*(::=|\.\.\.|\.\.|\[\[|\]\]|&?[A-Za-z](?:[A-Za-z0-9]|-(?=[A-Za-z0-9]))*|-?\d+|[{}(),|@.!;\[\]:<>^])')


def strip_comments(text):
    out = []
    for line in text.split('\n'):
        res = ''
        i = 0
        while i < len(line):
            j = line.find('--', i)
            if j < 0:
                res += line[i:]
                break
            res += line[i:j]
            k = line.find('--', j + 2)
            if k < 0:
                break
            i = k + 2
        out.append(res)
    return '\n'.join(out)


def tokenize(text):
    text = strip_comments(text)
    toks = []
    pos = 0
    while True:
        m = TOKRE.match(text, pos)
        if not m:
            if text[pos:].strip():
                raise SystemExit('tokenizer stuck at: %r' % text[pos:pos + 60])
            break
        toks.append(m.group(1))
        pos = m.end()
    return toks


class Err(Exception):
    pass


class ClassField(Exception):
    """A member typed by an information object class field: the PDU frame, coded by hand."""


# ---------------------------------------------------------------- parser

class Parser:
    def __init__(self, toks):
        self.t = toks
        self.i = 0

    def peek(self, k=0):
        j = self.i + k
        return self.t[j] if j < len(self.t) else None

    def next(self):
        v = self.t[self.i]
        self.i += 1
        return v

    def expect(self, v):
        got = self.next()
        if got != v:
            raise Err('expected %s got %s near %s' % (v, got, ' '.join(self.t[self.i - 5:self.i + 5])))

    def balanced(self, open_, close):
        """Consumes a balanced group starting at the current open token and returns its inner tokens."""
        self.expect(open_)
        depth = 1
        start = self.i
        while depth:
            v = self.next()
            if v == open_:
                depth += 1
            elif v == close:
                depth -= 1
        return self.t[start:self.i - 1]

    # -- constraints: returns dict with 'range'/'size'/'containing'
    def constraint(self, c):
        inner = self.balanced('(', ')')
        if not inner:
            return
        if inner[0] == 'SIZE':
            sub = Parser(inner[1:])
            if sub.peek() == '(':
                c['size'] = parse_range(sub.balanced('(', ')'))
            else:
                c['size'] = parse_range(inner[1:])
        elif inner[0] == 'CONTAINING':
            c['containing'] = inner[1]
        elif inner[0] == '{':
            pass                        # table constraint of a class field
        else:
            c['range'] = parse_range(inner)

    def constraints(self, c):
        while self.peek() == '(':
            self.constraint(c)

    def type_(self):
        v = self.next()
        c = {}
        if v == 'INTEGER':
            if self.peek() == '{':
                self.balanced('{', '}')
            self.constraints(c)
            return {'k': 'INT', 'c': c}
        if v == 'ENUMERATED':
            inner = self.balanced('{', '}')
            root, ext, seen = [], [], False
            for item in split_commas(inner):
                if item == ['...']:
                    seen = True
                    continue
                (ext if seen else root).append(item[0])
            return {'k': 'ENUM', 'root': root, 'ext': ext, 'hasext': seen}
        if v == 'BOOLEAN':
            return {'k': 'BOOL'}
        if v == 'NULL':
            return {'k': 'NULL'}
        if v == 'OBJECT':
            self.expect('IDENTIFIER')
            return {'k': 'OID'}
        if v in ('OCTET', 'BIT'):
            self.expect('STRING')
            if self.peek() == '{':
                self.balanced('{', '}')
            self.constraints(c)
            return {'k': 'OCT' if v == 'OCTET' else 'BIT', 'c': c}
        if v in ('PrintableString', 'VisibleString', 'IA5String'):
            self.constraints(c)
            return {'k': 'PRT', 'c': c}
        if v in ('SEQUENCE', 'SET') and self.peek() in ('(', 'SIZE', 'OF'):
            if self.peek() == '(':
                self.constraint(c)
            elif self.peek() == 'SIZE':
                self.next()
                c['size'] = parse_range(self.balanced('(', ')'))
            self.expect('OF')
            return {'k': 'SEQOF', 'c': c, 'item': self.type_()}
        if v in ('SEQUENCE', 'CHOICE'):
            inner = self.balanced('{', '}')
            members, extadd, seen = [], [], False
            for item in split_commas(inner):
                if item == ['...']:
                    seen = True
                    continue
                if item[0] in ('[[', ']]'):
                    raise Err('extension groups are not handled')
                name = item[0]
                sub = Parser(item[1:])
                t = sub.type_()
                opt = False
                while sub.peek() is not None:
                    w = sub.next()
                    if w in ('OPTIONAL', 'DEFAULT'):
                        opt = True
                m = {'name': name, 'type': t, 'opt': opt}
                (extadd if seen else members).append(m)
            return {'k': 'SEQ' if v == 'SEQUENCE' else 'CHOICE', 'members': members, 'extadd': extadd,
                    'ext': seen}
        # reference, maybe parameterised, maybe a class field
        if self.peek() == '.':
            self.next()
            self.next()
            self.constraints(c)
            raise ClassField()
        args = None
        if self.peek() == '{':
            args = split_commas(self.balanced('{', '}'))
        self.constraints(c)
        return {'k': 'REF', 'name': v, 'args': args, 'c': c}


def split_commas(toks):
    out, cur, depth = [], [], 0
    for v in toks:
        if v in ('{', '('):
            depth += 1
        elif v in ('}', ')'):
            depth -= 1
        if v == ',' and depth == 0:
            out.append(cur)
            cur = []
        else:
            cur.append(v)
    if cur:
        out.append(cur)
    return out


def parse_range(toks):
    """(lb..ub, ...) or (n) or (n, ...) -> (lb, ub, ext); values may be names."""
    parts = split_commas(toks)
    ext = any(p == ['...'] for p in parts)
    root = parts[0]
    if '..' in root:
        k = root.index('..')
        return (' '.join(root[:k]), ' '.join(root[k + 1:]), ext)
    return (' '.join(root), ' '.join(root), ext)


# ---------------------------------------------------------------- modules

def parse_module(toks, mod):
    p = Parser(toks)
    while p.next() != 'BEGIN':
        pass
    while p.peek() in ('IMPORTS', 'EXPORTS'):
        while p.next() != ';':
            pass
    while p.peek() != 'END':
        start = p.i
        j = start
        while p.t[j] != '::=':
            j += 1
        lhs = p.t[start:j]
        p.i = j + 1
        name = lhs[0]
        if len(lhs) > 1 and lhs[1] == '{':
            params = []
            for item in split_commas(lhs[2:-1]):
                params.append(item[-1])
            s = p.i
            try:
                p.type_()
            except ClassField:
                pass
            mod['ptypes'][name] = (params, p.t[s:p.i])
        elif len(lhs) == 1:
            if p.peek() == 'CLASS':
                p.next()
                p.balanced('{', '}')
                if p.peek() == 'WITH':
                    p.next()
                    p.next()
                    p.balanced('{', '}')
                continue
            try:
                mod['types'][name] = p.type_()
            except ClassField:
                pass
        elif name[0].islower():
            if p.peek() == '{':
                mod['objects'][name] = (lhs[1], p.balanced('{', '}'))
            else:
                mod['values'][name] = p.next()
        else:
            mod['sets'][name] = (lhs[1], p.balanced('{', '}'))
    return mod


# ---------------------------------------------------------------- model

KEYWORDS = {'delete', 'new', 'private', 'public', 'protected', 'class', 'default', 'union', 'struct', 'int', 'long',
            'short', 'char', 'float', 'double', 'signed', 'unsigned', 'register', 'template', 'this', 'operator',
            'namespace', 'typename', 'virtual', 'friend', 'inline', 'static', 'const', 'volatile', 'auto',
            'register', 'extern', 'and', 'or', 'not', 'xor', 'bool', 'true', 'false'}


def cname(n):
    return n.replace('-', '_')


def fieldname(n):
    s = n.replace('-', '_')
    return s + '_' if s in KEYWORDS else s


def ie_field(idname):
    s = idname[3:] if idname.startswith('id-') else idname
    s = s.replace('-', '')
    return s[0].lower() + s[1:]


class T:
    """One descriptor: a named type, an inline type given a name, or a container."""

    def __init__(self, name, kind):
        self.name = name          # ASN.1 name as printed
        self.c = cname(name)      # C name
        self.kind = kind
        self.ext = False
        self.lb = self.ub = 0
        self.haslb = self.hasub = False
        self.members = []         # SEQ/CHOICE: dicts name, type, opt, extadd
        self.nroot = 0
        self.names = []           # ENUM
        self.item = None          # SEQOF item / SINGLE value / OCT containing
        self.ies = []             # MSG
        self.private = False
        self.alias = None         # typedef to another record
        self.single = None        # SINGLE: (id, crit, presence)

    @property
    def store(self):
        if self.kind == 'INT':
            return 'U64'
        if self.kind in ('ENUM', 'BOOL', 'NULL'):
            return 'U8'
        if self.kind == 'SINGLE':
            return self.item.store if self.item else 'PTR'
        if self.kind == 'EXTC':
            return 'NONE'
        return 'PTR'


class Model:
    def __init__(self, mods):
        self.types, self.ptypes, self.values, self.sets, self.objects = {}, {}, {}, {}, {}
        for m in mods:
            self.types.update(m['types'])
            self.ptypes.update(m['ptypes'])
            self.values.update(m['values'])
            self.sets.update(m['sets'])
            self.objects.update(m['objects'])
        self.descs = {}           # C name -> T
        self.order = []
        self.singles = {}

    def bound(self, s, pick):
        # a union of single values constrains PER to its smallest and largest value
        if '|' in s:
            return pick(self.val(x) for x in s.split('|'))
        return self.val(s)

    def val(self, s):
        s = s.strip()
        if re.fullmatch(r'-?\d+', s):
            return int(s)
        if s in self.values:
            return self.val(self.values[s])
        raise Err('unknown value %s' % s)

    def add(self, t):
        if t.c in self.descs:
            raise Err('duplicate descriptor %s' % t.c)
        self.descs[t.c] = t
        self.order.append(t)
        return t

    def named(self, name):
        c = cname(name)
        if c in self.descs:
            return self.descs[c]
        if name not in self.types:
            raise Err('unknown type %s' % name)
        return self.build(name, self.types[name])

    def set_entries(self, setname):
        cls, body = self.sets[setname]
        out = []
        for item in split_set(body):
            if item == ['...']:
                continue
            if item[0] != '{':
                out.extend(self.set_entries(item[0]))
                continue
            inner = item[1:-1]
            fields = {}
            k = 0
            while k < len(inner):
                key = inner[k]
                if key in ('ID', 'CRITICALITY', 'PRESENCE'):
                    fields[key] = inner[k + 1]
                    k += 2
                elif key in ('TYPE', 'EXTENSION'):
                    e = k + 1
                    while inner[e] != 'PRESENCE':
                        e += 1
                    fields['TYPE'] = inner[k + 1:e]
                    k = e
                else:
                    raise Err('bad object field %s in %s' % (key, setname))
            out.append(fields)
        return out

    def build(self, name, ast, parent=None):
        """Builds the descriptor of a type assignment or of an inline type named `name`."""
        k = ast['k']
        if k == 'REF':
            return self.ref(name, ast, parent)
        kind = {'INT': 'INT', 'ENUM': 'ENUM', 'BOOL': 'BOOL', 'NULL': 'NULL', 'OID': 'OID', 'OCT': 'OCT',
                'BIT': 'BIT', 'PRT': 'PRT', 'SEQOF': 'SEQOF', 'SEQ': 'SEQ', 'CHOICE': 'CHOICE'}[k]
        if k == 'SEQ' and len(ast['members']) == 1 and ast['members'][0]['type']['k'] == 'REF' and \
                ast['members'][0]['type']['name'] in ('ProtocolIE-Container', 'PrivateIE-Container'):
            return self.message(name, ast)
        t = self.add(T(name, kind))
        c = ast.get('c', {})
        if k == 'INT':
            if 'range' in c:
                lb, ub, ext = c['range']
                t.lb, t.ub, t.ext = self.bound(lb, min), self.bound(ub, max), ext
                t.haslb = t.hasub = True
        elif k == 'ENUM':
            t.names = ast['root'] + ast['ext']
            t.nroot = len(ast['root'])
            t.ext = ast['hasext']
        elif k in ('OCT', 'BIT', 'PRT', 'SEQOF'):
            if 'size' in c:
                lb, ub, ext = c['size']
                t.lb, t.ub, t.ext = self.bound(lb, min), self.bound(ub, max), ext
                t.haslb = t.hasub = True
            if 'containing' in c:
                t.item = self.named(c['containing'])
            if k == 'SEQOF':
                t.item = self.inline(t.name + '-item', ast['item'], t)
        elif k in ('SEQ', 'CHOICE'):
            t.ext = ast['ext']
            for m in ast['members'] + ast['extadd']:
                mt = self.inline(name + '-' + m['name'], m['type'], t)
                t.members.append({'name': m['name'], 'type': mt, 'opt': m['opt'] and k == 'SEQ',
                                  'extadd': m in ast['extadd']})
            t.nroot = len(ast['members'])
        return t

    def inline(self, name, ast, parent):
        if ast['k'] == 'REF':
            return self.ref(name, ast, parent)
        return self.build(name, ast, parent)

    def ref(self, name, ast, parent):
        rn = ast['name']
        args = ast['args']
        if rn in ('ProtocolExtensionContainer',):
            c = cname('ExtC')
            if c not in self.descs:
                self.add(T('ExtC', 'EXTC'))
            return self.descs[c]
        if rn == 'ProtocolIE-SingleContainer':
            return self.single(strip_braces(args[0]))
        if rn == 'ProtocolIE-ContainerList':
            lb, ub, s = self.val(' '.join(args[0])), self.val(' '.join(args[1])), strip_braces(args[2])
            t = self.add(T(name, 'SEQOF'))
            t.lb, t.ub, t.haslb, t.hasub = lb, ub, True, True
            t.item = self.single(s)
            return t
        if rn in ('ProtocolIE-Container', 'ProtocolIE-ContainerPair', 'ProtocolIE-ContainerPairList',
                  'PrivateIE-Container'):
            raise Err('%s outside a message: %s' % (rn, name))
        if rn in self.ptypes:
            params, body = self.ptypes[rn]
            sub = []
            amap = dict(zip(params, args))
            for v in body:
                sub.extend(amap.get(v, [v]))
            return self.inline(name, Parser(sub).type_(), parent)
        target = self.named(rn)
        if parent is None:
            # a type assignment that names another type: same record, its own name in dumps
            a = self.add(T(name, target.kind))
            a.__dict__.update({k: v for k, v in target.__dict__.items() if k not in ('name', 'c', 'alias')})
            a.alias = target.alias or target
            return a
        return target

    def single(self, setname):
        c = cname(setname)
        if c in self.descs:
            return self.descs[c]
        t = self.add(T(setname, 'SINGLE'))
        entries = self.set_entries(setname)
        if entries:
            e = entries[0]
            if len(entries) > 1:
                print('note: %s has %d entries; the record keeps the first' % (setname, len(entries)),
                      file=sys.stderr)
            t.single = (self.val(e['ID']), crit(e['CRITICALITY']), e['PRESENCE'], e['ID'])
            t.item = self.inline(setname + '-value', Parser(e['TYPE']).type_(), t)
        return t

    def message(self, name, ast):
        t = self.add(T(name, 'MSG'))
        t.ext = ast['ext']
        m = ast['members'][0]['type']
        if m['name'] == 'PrivateIE-Container':
            t.private = True
            return t
        for e in self.set_entries(strip_braces(m['args'][0])):
            it = self.inline(name + '-' + e['ID'][3:], Parser(e['TYPE']).type_(), t)
            t.ies.append({'id': self.val(e['ID']), 'idname': e['ID'], 'field': ie_field(e['ID']), 'type': it,
                          'crit': crit(e['CRITICALITY']), 'presence': e['PRESENCE']})
        return t


def crit(s):
    return {'reject': 0, 'ignore': 1, 'notify': 2}[s]


def strip_braces(toks):
    return [v for v in toks if v not in ('{', '}')][0]


def split_set(body):
    out, cur, depth = [], [], 0
    for v in body:
        if v == '{':
            depth += 1
        elif v == '}':
            depth -= 1
        if v in ('|', ',') and depth == 0:
            if cur:
                out.append(cur)
            cur = []
        else:
            cur.append(v)
    if cur:
        out.append(cur)
    return out


# ---------------------------------------------------------------- procedures

def procedures(model, proto):
    top = model.sets[proto.upper() + '-ELEMENTARY-PROCEDURES']
    names = []

    def walk(setname):
        for item in split_set(model.sets[setname][1]):
            if item == ['...']:
                continue
            if item[0] in model.sets:
                walk(item[0])
            else:
                names.append(item[0])
    walk(proto.upper() + '-ELEMENTARY-PROCEDURES')
    del top
    procs = []
    for n in names:
        body = model.objects[n][1]
        f = {}
        k = 0
        while k < len(body):
            if body[k] in ('INITIATING', 'SUCCESSFUL', 'UNSUCCESSFUL', 'PROCEDURE'):
                f[body[k]] = body[k + 2]
                k += 3
            elif body[k] == 'CRITICALITY':
                f['CRITICALITY'] = body[k + 1]
                k += 2
            else:
                raise Err('bad procedure field %s' % body[k])
        procs.append({'name': n, 'code': model.val(f['PROCEDURE']), 'crit': crit(f.get('CRITICALITY', 'ignore')),
                      'forms': [(0, f.get('INITIATING')), (1, f.get('SUCCESSFUL')), (2, f.get('UNSUCCESSFUL'))]})
    procs.sort(key=lambda p: p['code'])
    return procs


# ---------------------------------------------------------------- emit

KIND = {'INT': 'MV_ASN_K_INT', 'ENUM': 'MV_ASN_K_ENUM', 'BOOL': 'MV_ASN_K_BOOL', 'NULL': 'MV_ASN_K_NULL',
        'OID': 'MV_ASN_K_OID', 'OCT': 'MV_ASN_K_OCTSTR', 'BIT': 'MV_ASN_K_BITSTR', 'PRT': 'MV_ASN_K_PRTSTR',
        'SEQ': 'MV_ASN_K_SEQ', 'SEQOF': 'MV_ASN_K_SEQOF', 'CHOICE': 'MV_ASN_K_CHOICE', 'MSG': 'MV_ASN_K_MSG',
        'SINGLE': 'MV_ASN_K_SINGLE', 'EXTC': 'MV_ASN_K_EXTC'}


def emit(model, proto, outdir):
    fam = {'ngap': 'amf', 's1ap': 'mme'}[proto]
    FAM = fam.upper()
    pre = '__mv_%s_' % fam
    dt = lambda t: '%sdt_%s' % (pre, t.c)
    procs = procedures(model, proto)
    # the family's PDUs, in procedure and form order
    pdus = []
    for p in procs:
        for form, msg in p['forms']:
            if msg:
                pdus.append((p, form, model.named(msg)))
    ieids = sorted((model.val(n), n) for n in ie_id_names(model))
    maxid = max(v for v, n in ieids)
    ies_prefix = {'amf': 'AMF_IE_', 'mme': 'S1AP_IE_'}[fam]

    def rec_of(t):
        """C type of the record behind a type (struct or value typedef)."""
        return dt(t)

    def slot_ctype(t):
        s = t.store
        if s == 'U64':
            return 'unsigned long long'
        if s == 'U8':
            return 'uint8_t'
        return '%s*' % rec_of(real(t))

    def real(t):
        if t.kind == 'SINGLE' and t.item is not None:
            return real(t.item)
        return t.alias or t

    H = []
    H.append('// Generated by tools/asn1gen from the %s ASN.1 modules; do not edit.' % proto.upper())
    H.append('#pragma once\n#include "mv_asn.h"\n')
    # forward declarations
    structs = [t for t in model.order if t.store == 'PTR' and t.alias is None and t.kind != 'EXTC'
               and not (t.kind == 'SINGLE' and t.item is not None)]
    for t in structs:
        H.append('struct %s;' % dt(t))
    H.append('')
    # value typedefs and aliases
    for t in model.order:
        if t.kind == 'EXTC':
            continue
        if t.store == 'U64':
            H.append('typedef unsigned long long %s;' % dt(t))
        elif t.store == 'U8':
            H.append('typedef uint8_t %s;' % dt(t))
    H.append('')
    for t in structs:
        H.append('struct __attribute__((packed)) %s {' % dt(t))
        if t.kind in ('OCT', 'PRT', 'OID'):
            H.append('    uint8_t* data;\n    uint32_t length;')
        elif t.kind == 'BIT':
            H.append('    uint8_t* data;\n    uint32_t length;\n    int bitslen;')
        elif t.kind == 'SEQOF':
            H.append('    __mv_asn_list* %s;' % ('list' if fam == 'mme' else fieldname(real(t.item).c)))
        elif t.kind == 'SEQ':
            n = 0
            for m in t.members:
                if m['type'].kind == 'EXTC':
                    continue
                H.append('    %s %s;' % (slot_ctype(m['type']), fieldname(m['name'])))
                n += 1
                if m['opt'] or m['extadd']:
                    H.append('    int isPresent_%s;' % fieldname(m['name']))
            if n == 0:
                H.append('    uint8_t unused_;')
        elif t.kind == 'CHOICE':
            H.append('    uint8_t SelectedChoice;\n    union {')
            for m in t.members:
                H.append('        %s %s;' % (slot_ctype(m['type']), fieldname(m['name'])))
            H.append('    } u;')
        elif t.kind == 'SINGLE':
            H.append('    uint8_t unused_;  // an extension set this release leaves empty')
        elif t.kind == 'MSG':
            H.append('    uint8_t pduIEExtension;\n    uint8_t pduMessageChoice;\n    uint8_t messageId;\n'
                     '    void* transportObject;\n    uint16_t iECount;\n    uint8_t decodingError;')
            if t.name == 'InitialUEMessage':
                H.append('    uint8_t* buffer;\n    int buffer_len;')
            for ie in t.ies:
                H.append('    %s %s;\n    int %s_isset;' % (slot_ctype(ie['type']), ie['field'], ie['field']))
        H.append('};')
    H.append('')
    for t in model.order:
        if t.kind == 'EXTC':
            continue
        if t.store == 'PTR' and (t.alias is not None or (t.kind == 'SINGLE' and t.item is not None)):
            H.append('typedef %s %s;' % (rec_of(real(t)), dt(t)))
        H.append('typedef %s MV_%s_DT_%s;' % (dt(t), FAM, t.c))
    H.append('')
    H.append('namespace mv_asn_%s {' % fam)
    for t in model.order:
        H.append('extern const MvAsnType T_%s;' % t.c)
    H.append('extern const MvAsnPdu kPdus[];\nextern const unsigned kPduCount;')
    H.append('}  // namespace mv_asn_%s\n' % fam)
    # placeholders for the _ExtIEs sets
    extsets = sorted(n for n, (cls, _) in model.sets.items() if n.endswith('ExtIEs'))
    # operations
    H.append('// Operations per type.')
    for t in model.order:
        if t.kind == 'EXTC':
            continue
        n = t.c
        if t.store == 'PTR':
            H.append('int %sinit_%s(%s** rec);' % (pre, n, dt(t)))
            if t.kind in ('OCT', 'PRT', 'BIT', 'OID'):
                H.append('int %sinit_%s2(%s** rec, const uint8_t* bytes, uint32_t length);' % (pre, n, dt(t)))
            H.append('void %sdebug_%s(const char* key, const %s* rec, int level);' % (pre, n, dt(t)))
            H.append('void %smemfree_%s(%s* rec);' % (pre, n, dt(t)))
            H.append('[[nodiscard]] int %sEncode_%s(const %s* rec, int level, __mv_asn_coding_context* ctx);'
                     % (pre, n, dt(t)))
            H.append('[[nodiscard]] int %sDecode_%s(%s** out, int* isset, int level, __mv_asn_coding_context* ctx);'
                     % (pre, n, dt(t)))
        else:
            H.append('void %sdebug_%s(const char* key, %s value, int level);' % (pre, n, dt(t)))
            H.append('[[nodiscard]] int %sEncode_%s(%s value, int level, __mv_asn_coding_context* ctx);' % (pre, n, dt(t)))
            H.append('[[nodiscard]] int %sDecode_%s(%s* out, int* isset, int level, __mv_asn_coding_context* ctx);'
                     % (pre, n, dt(t)))
    H.append('\n// Placeholders of the extension sets: nothing to code, always good (1).')
    for s in extsets:
        n = cname(s)
        if n in model.descs:
            continue
        H.append('inline int %sEncode_%s(const void*, int, __mv_asn_coding_context*) { return 1; }' % (pre, n))
        H.append('inline int %sDecode_%s(void**, int*, int, __mv_asn_coding_context*) { return 1; }' % (pre, n))
        H.append('inline void %sdebug_%s(const char*, const void*, int) {}' % (pre, n))
        H.append('inline void %smemfree_%s(void*) {}' % (pre, n))
    H.append('\n// Operations per PDU.')
    for p, form, m in pdus:
        n = m.c
        H.append('[[nodiscard]] int %sencode_pdu_%s(%s* rec, __mv_asn_coding_context* ctx);' % (pre, n, dt(m)))
        H.append('[[nodiscard]] int %sdecode_pdu_%s(%s* rec, __mv_asn_coding_context* ctx);' % (pre, n, dt(m)))
        H.append('void %sdebug_pdu_%s(const %s* rec);' % (pre, n, dt(m)))
        H.append('void %smemfree_pdu_%s(%s* rec);' % (pre, n, dt(m)))
    H.append('\n// Protocol IE ids and their names.')
    for v, n in ieids:
        H.append('#define MV_%s_%s %d' % (FAM, cname(n), v))
    for v, n in ieids:
        H.append('extern const char* %s%s;' % (ies_prefix, cname(n)))
    H.append('extern const char* %sid_NULL;' % ies_prefix)
    H.append('#define MV_%s_MAX_IE_ID %d' % (FAM, maxid))
    H.append('int %sget_ie_name(uint32_t id, const char** out);' % pre)
    H.append('\n// Procedure codes.')
    for p in procs:
        H.append('#define MV_%s_PROC_%s %d' % (FAM, cname(p['name']), p['code']))
    H.append('#define MV_%s_PDU_COUNT %d' % (FAM, len(pdus)))
    H.append('')

    # ---------------- tables
    C = []
    C.append('// Generated by tools/asn1gen from the %s ASN.1 modules; do not edit.' % proto.upper())
    C.append('#include <cstddef>\n#include "mv_%s_asn.h"\n#include "mv_asn_code.h"\n' % fam)
    C.append('#pragma GCC diagnostic ignored "-Winvalid-offsetof"')
    C.append('namespace mv_asn_%s {' % fam)
    for t in model.order:
        tt = real(t)
        if t.kind == 'ENUM':
            C.append('static const char* const N_%s[] = {%s};' % (t.c, ', '.join('"%s"' % x for x in t.names)))
        elif t.kind in ('SEQ', 'CHOICE') and t.alias is None:
            rows = []
            for m in t.members:
                mt = m['type']
                if mt.kind == 'EXTC':
                    rows.append('{"%s", &T_ExtC, 0, -1, 1, 0}' % m['name'])
                    continue
                f = fieldname(m['name'])
                if t.kind == 'CHOICE':
                    off = 'offsetof(%s, u)' % dt(tt)
                    pres = '-1'
                else:
                    off = 'offsetof(%s, %s)' % (dt(tt), f)
                    pres = 'int32_t(offsetof(%s, isPresent_%s))' % (dt(tt), f) if (m['opt'] or m['extadd']) else '-1'
                rows.append('{"%s", &T_%s, uint32_t(%s), %s, %d, %d}' % (m['name'], mt.c, off, pres,
                                                                      int(m['opt']), int(m['extadd'])))
            C.append('static constexpr MvAsnMember M_%s[] = {\n    %s};' % (t.c, ',\n    '.join(rows or ['{}'])))
        elif t.kind == 'MSG' and t.ies:
            rows = []
            for ie in t.ies:
                rows.append('{"%s", "%s", &T_%s, uint32_t(offsetof(%s, %s)), uint32_t(offsetof(%s, %s_isset)), '
                            '%d, %d, %d}' % (ie['field'], ie['idname'], ie['type'].c, dt(t), ie['field'], dt(t),
                                             ie['field'], ie['id'], ie['crit'],
                                             {'mandatory': 2, 'conditional': 1, 'optional': 0}[ie['presence']]))
            C.append('static constexpr MvAsnIE I_%s[] = {\n    %s};' % (t.c, ',\n    '.join(rows)))
        elif t.kind == 'SINGLE' and t.single:
            sid, scrit, spres, sidname = t.single
            C.append('static constexpr MvAsnIE I_%s[] = {{"%s", "%s", &T_%s, 0, 0, %d, %d, 2}};'
                     % (t.c, ie_field(sidname), sidname, t.item.c, sid, scrit))
    for t in model.order:
        src = t.alias or t
        size = 'sizeof(%s)' % dt(real(t)) if t.store == 'PTR' else '0'
        members = 'M_%s' % src.c if t.kind in ('SEQ', 'CHOICE') else 'nullptr'
        nall = len(t.members) if t.kind in ('SEQ', 'CHOICE') else len(t.names) if t.kind == 'ENUM' else \
            len(t.ies) if t.kind in ('MSG', 'SINGLE') and (t.ies or t.single) else 0
        if t.kind == 'SINGLE':
            nall = 1 if t.single else 0
        ies = 'I_%s' % t.c if (t.kind == 'MSG' and t.ies) or (t.kind == 'SINGLE' and t.single) else 'nullptr'
        item = '&T_%s' % t.item.c if t.item is not None else 'nullptr'
        names = 'N_%s' % t.c if t.kind == 'ENUM' else 'nullptr'
        flags = []
        if t.haslb:
            flags.append('MV_ASN_F_LB')
        if t.hasub:
            flags.append('MV_ASN_F_UB')
        if t.private:
            flags.append('MV_ASN_F_PRIVATE')
        # each descriptor names the coder the templates make of it
        coders = '&mv_asn_detail::mvAsnEncode<T_%s>, &mv_asn_detail::mvAsnDecode<T_%s>, %s' % (
            t.c, t.c, '&mv_asn_detail::mvAsnDecodeIEs<T_%s>' % t.c if t.kind == 'MSG' else 'nullptr')
        C.append('constexpr MvAsnType T_%s = {"%s", %s, MV_ASN_S_%s, %d, %s, %s, %s, %s, %d, %d, %s, %s, %s, %s,\n    %s};'
                 % (t.c, t.name, KIND[t.kind], t.store, int(t.ext), '|'.join(flags) or '0', i64(t.lb), i64(t.ub), size,
                    t.nroot, nall, members, ies, item, names, coders))
    rows = []
    for p, form, m in pdus:
        rows.append('{"%s", &T_%s, %d, %d, %d}' % (m.name, m.c, p['code'], form, p['crit']))
    C.append('const MvAsnPdu kPdus[] = {\n    %s};' % ',\n    '.join(rows))
    C.append('const unsigned kPduCount = %d;' % len(pdus))
    C.append('}  // namespace mv_asn_%s\n' % fam)
    for v, n in ieids:
        C.append('const char* %s%s = "%s";' % (ies_prefix, cname(n), n))
    C.append('const char* %sid_NULL = "INVALID-IE-ID";' % ies_prefix)
    names = {v: n for v, n in ieids}
    C.append('static const char* const* const kIeNames[%d] = {\n    %s};' % (
        maxid + 1, ',\n    '.join(('&%s%s' % (ies_prefix, cname(names[i]))) if i in names else 'nullptr'
                                 for i in range(maxid + 1))))
    C.append('int %sget_ie_name(uint32_t id, const char** out) {' % pre)
    C.append('    if (id > MV_%s_MAX_IE_ID || kIeNames[id] == nullptr) {\n        *out = %sid_NULL;\n        return 0;\n'
             '    }\n    *out = *kIeNames[id];\n    return 1;\n}' % (FAM, ies_prefix))

    # ---------------- operations
    O = []
    O.append('// Generated by tools/asn1gen from the %s ASN.1 modules; do not edit.' % proto.upper())
    O.append('#include "mv_%s_asn.h"\n#include "mv_asn_ops.h"\n' % fam)
    O.append('using namespace mv_asn_%s;' % fam)
    for t in model.order:
        if t.kind == 'EXTC':
            continue
        if t.store == 'PTR':
            mac = 'MV_ASN_STRING_OPS' if t.kind in ('OCT', 'PRT', 'OID') else \
                'MV_ASN_BITSTRING_OPS' if t.kind == 'BIT' else 'MV_ASN_RECORD_OPS'
        else:
            mac = 'MV_ASN_VALUE_OPS'
        O.append('%s(%s, %s)' % (mac, fam, t.c))
    for p, form, m in pdus:
        O.append('MV_ASN_PDU_OPS(%s, %s, %d)' % (fam, m.c, pdus.index((p, form, m))))
    os.makedirs(outdir, exist_ok=True)
    for fn, lines in (('mv_%s_asn.h' % fam, H), ('mv_%s_asn_tables.cpp' % fam, C), ('mv_%s_asn_ops.cpp' % fam, O)):
        with open(os.path.join(outdir, fn), 'w') as f:
            f.write('\n'.join(lines) + '\n')
    print('%s: %d descriptors, %d PDUs, %d IE ids (max %d)' % (proto, len(model.order), len(pdus), len(ieids), maxid))


def emit_procs(procs, proto, outdir):
    """mv_<fam>_asn_procs.h: the elementary procedures as named constants, for dispatch by name."""
    fam = {'ngap': 'amf', 's1ap': 'mme'}[proto]
    enum = {'ngap': 'NgapProc', 's1ap': 'S1apProc'}[proto]
    H = ['// Generated by tools/asn1gen from the %s ASN.1 modules; do not edit.' % proto.upper(),
         '// The elementary procedures by procedure code, and the three message forms of a PDU.',
         '#pragma once\n', '#include <cstdint>\n',
         'enum class %s : uint8_t {' % enum]
    for p in procs:
        H.append('    %s = %d,' % (p['name'][0].upper() + p['name'][1:], p['code']))
    H.append('};')
    H.append('inline constexpr unsigned k%sCount = %d;\n' % (enum, max(p['code'] for p in procs) + 1))
    H.append('enum class %sForm : uint8_t { Initiating = 0, Successful = 1, Unsuccessful = 2 };' % enum[:-4])
    with open(os.path.join(outdir, 'mv_%s_asn_procs.h' % fam), 'w') as f:
        f.write('\n'.join(H) + '\n')


def i64(v):
    # bounds above the signed range (a full 64-bit counter) keep their bit pattern
    return 'int64_t(%dull)' % v if v > 0x7FFFFFFFFFFFFFFF else '%dLL' % v


def ie_id_names(model):
    # IE ids are ProtocolIE-ID values; procedure codes are ProcedureCode values
    return {n for n in model.values if n.startswith('id-') and model.vtypes.get(n) == 'ProtocolIE-ID'}


def main():
    proto, src, out = sys.argv[1], sys.argv[2], sys.argv[3]
    mods = []
    vtypes = {}
    for fn in sorted(os.listdir(src)):
        if not fn.endswith('.asn') or fn.startswith('SonTransfer'):
            continue      # the SON transfer module stands alone: S1AP carries it as octets
        text = open(os.path.join(src, fn), encoding='utf-8').read()
        toks = tokenize(text)
        mod = {'types': {}, 'ptypes': {}, 'values': {}, 'sets': {}, 'objects': {}}
        parse_module(toks, mod)
        # remember the type of each value assignment: `id-X ProtocolIE-ID ::= n`
        for k in range(len(toks) - 3):
            if toks[k + 2] == '::=' and toks[k].startswith('id-'):
                vtypes[toks[k]] = toks[k + 1]
        mods.append(mod)
    model = Model(mods)
    model.vtypes = vtypes
    # every type assignment gets a descriptor, in module order
    for m in mods:
        for name, ast in m['types'].items():
            if name in ('NGAP-PDU', 'S1AP-PDU'):
                continue      # the PDU frame around the messages is coded by the walker itself
            model.named(name)
    emit(model, proto, out)
    emit_procs(procedures(model, proto), proto, out)


if __name__ == '__main__':
    main()
