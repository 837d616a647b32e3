#!/usr/bin/env python3
"""Host build of the interface headers: reads a HIDL package's .hal files and writes the C++ that
the platform's code generator gives clients and servers of that package, in the same shape.

Per package: types.h (enumerations, records with their layout pinned by static_assert, toString,
PrintTo, == and != where the platform has them, the bit operators of enumerations and
hidl_enum_values), one I<Name>.h per interface (methods, the IBase methods, castFrom, the
getService family, registerAsService, toString) and one source file with what the platform puts
in the interface library (descriptors, IBase methods of local objects, castFrom, getService,
registerAsService). Proxies, stubs and parcelling have no place in-process and are not written.

Only the subset of the language the packages use is read: enum, struct, interface (extending
IBase), scalar types, bool, handle, string, vec<T>, T[N], and named types of the same package.
Anything else is an error, so a .hal change that needs more fails the build instead of producing
a header the platform would not.

usage: hidl_host_gen.py --out DIR PACKAGE_DIR...
"""
import argparse
import hashlib
import os
import re
import sys

SCALARS = {
    # name: (C++ type, size = alignment)
    'int8_t': ('int8_t', 1), 'uint8_t': ('uint8_t', 1), 'bool': ('bool', 1),
    'int16_t': ('int16_t', 2), 'uint16_t': ('uint16_t', 2),
    'int32_t': ('int32_t', 4), 'uint32_t': ('uint32_t', 4), 'float': ('float', 4),
    'int64_t': ('int64_t', 8), 'uint64_t': ('uint64_t', 8), 'double': ('double', 8),
}
HW = '::android::hardware::'
IBASE = '::android::hidl::base::V1_0::IBase'

TOKEN = re.compile(r'\s*(?:(0[xX][0-9a-fA-F]+|-?\d+)|([A-Za-z_][\w.@:]*)|(.))', re.S)


class HalError(Exception):
    pass


def strip_comments(text):
    text = re.sub(r'/\*.*?\*/', lambda m: '\n' * m.group(0).count('\n'), text, flags=re.S)
    return re.sub(r'//[^\n]*', '', text)


class Tokens:
    def __init__(self, path, text):
        self.path = path
        self.items = []
        for m in TOKEN.finditer(strip_comments(text)):
            if m.group(0).strip():
                self.items.append(m.group(1) or m.group(2) or m.group(3))
        self.pos = 0

    def peek(self, ahead=0):
        i = self.pos + ahead
        return self.items[i] if i < len(self.items) else None

    def take(self, expected=None):
        tok = self.peek()
        if tok is None or (expected is not None and tok != expected):
            raise HalError('%s: expected %r, found %r' % (self.path, expected, tok))
        self.pos += 1
        return tok


class Type:
    """kind: scalar, enum, struct, interface, handle, string, vec, array."""

    def __init__(self, kind, name=None, elem=None, dims=None, decl=None):
        self.kind, self.name, self.elem, self.dims, self.decl = kind, name, elem, dims, decl


class Package:
    def __init__(self, name):
        self.name = name  # vendor.quenlark.hardware.capture@1.0
        fq, version = name.split('@')
        major, minor = version.split('.')
        self.parts = fq.split('.')
        self.ns_parts = self.parts + ['V%s_%s' % (major, minor)]
        self.ns = '::' + '::'.join(self.ns_parts)
        self.path = '/'.join(self.parts) + '/' + version
        self.decls = []       # enums and structs, in declaration order
        self.interfaces = []
        self.named = {}
        self.hashes = {}

    def q(self, name):
        return '%s::%s' % (self.ns, name)


def parse_type(tokens, pkg):
    name = tokens.take()
    if name == 'vec':
        tokens.take('<')
        t = Type('vec', elem=parse_type(tokens, pkg))
        tokens.take('>')
    elif name in SCALARS:
        t = Type('scalar', name=name)
    elif name in ('handle', 'string'):
        t = Type(name)
    elif name in pkg.named:
        decl = pkg.named[name]
        t = Type(decl['kind'], name=name, decl=decl)
    else:
        raise HalError('%s: unknown type %r' % (tokens.path, name))
    dims = []
    while tokens.peek() == '[':
        tokens.take('[')
        dims.append(int(tokens.take(), 0))
        tokens.take(']')
    if dims:
        t = Type('array', elem=t, dims=dims)
    return t


def parse_enum(tokens, pkg):
    name = tokens.take()
    tokens.take(':')
    storage = tokens.take()
    if storage not in SCALARS or storage in ('bool', 'float', 'double'):
        raise HalError('%s: enum %s: storage %r' % (tokens.path, name, storage))
    tokens.take('{')
    values, nxt = [], 0
    while tokens.peek() != '}':
        ident = tokens.take()
        if tokens.peek() == '=':
            tokens.take('=')
            nxt = int(tokens.take(), 0)
        values.append((ident, nxt))
        nxt += 1
        if tokens.peek() == ',':
            tokens.take(',')
    tokens.take('}')
    tokens.take(';')
    decl = {'kind': 'enum', 'name': name, 'storage': storage, 'values': values}
    pkg.named[name] = decl
    pkg.decls.append(decl)


def parse_struct(tokens, pkg):
    name = tokens.take()
    tokens.take('{')
    fields = []
    while tokens.peek() != '}':
        t = parse_type(tokens, pkg)
        fields.append((t, tokens.take()))
        tokens.take(';')
    tokens.take('}')
    tokens.take(';')
    decl = {'kind': 'struct', 'name': name, 'fields': fields}
    pkg.named[name] = decl
    pkg.decls.append(decl)


def parse_args(tokens, pkg):
    tokens.take('(')
    args = []
    while tokens.peek() != ')':
        t = parse_type(tokens, pkg)
        args.append((t, tokens.take()))
        if tokens.peek() == ',':
            tokens.take(',')
    tokens.take(')')
    return args


def parse_interface(tokens, pkg):
    name = tokens.take()
    if tokens.peek() == 'extends':
        tokens.take('extends')
        if tokens.take() not in ('IBase', 'android.hidl.base@1.0::IBase'):
            raise HalError('%s: only IBase may be extended' % tokens.path)
    decl = {'kind': 'interface', 'name': name, 'methods': []}
    pkg.named[name] = decl
    tokens.take('{')
    while tokens.peek() != '}':
        oneway = tokens.peek() == 'oneway'
        if oneway:
            tokens.take()
        mname = tokens.take()
        args = parse_args(tokens, pkg)
        results = []
        if tokens.peek() == 'generates':
            tokens.take()
            results = parse_args(tokens, pkg)
        tokens.take(';')
        decl['methods'].append({'name': mname, 'args': args, 'results': results,
                                'oneway': oneway})
    tokens.take('}')
    tokens.take(';')
    pkg.interfaces.append(decl)


def predeclare_interfaces(pkg, texts):
    """Interfaces of the package may name each other (callbacks), in any file order."""
    for _, text in texts:
        for m in re.finditer(r'\binterface\s+(\w+)', strip_comments(text)):
            pkg.named.setdefault(m.group(1), {'kind': 'interface', 'name': m.group(1),
                                              'methods': []})


def read_package(directory):
    files = sorted(f for f in os.listdir(directory) if f.endswith('.hal'))
    if 'types.hal' in files:  # types first: the interfaces use them
        files.remove('types.hal')
        files.insert(0, 'types.hal')
    texts = [(f, open(os.path.join(directory, f), encoding='utf-8').read()) for f in files]
    pkg = None
    for f, text in texts:
        m = re.search(r'\bpackage\s+([\w.]+@\d+\.\d+)\s*;', strip_comments(text))
        if not m or (pkg and pkg.name != m.group(1)):
            raise HalError('%s: missing or different package line' % f)
        pkg = pkg or Package(m.group(1))
        # The platform hashes each file's exact bytes (getHashChain).
        pkg.hashes[f[:-4]] = hashlib.sha256(text.encode('utf-8')).digest()
    predeclare_interfaces(pkg, texts)
    for f, text in texts:
        tokens = Tokens(os.path.join(directory, f), text)
        while tokens.peek() is not None:
            kw = tokens.take()
            if kw == 'package':
                tokens.take()
                tokens.take(';')
            elif kw == 'import':
                tokens.take()
                tokens.take(';')
            elif kw == 'enum':
                parse_enum(tokens, pkg)
            elif kw == 'struct':
                parse_struct(tokens, pkg)
            elif kw == 'interface':
                parse_interface(tokens, pkg)
            else:
                raise HalError('%s: unexpected %r' % (f, kw))
    return pkg


# ---- layout ------------------------------------------------------------------------------------

def layout(t):
    """(size, alignment) of a type inside a record, as the platform lays records out."""
    if t.kind == 'scalar':
        n = SCALARS[t.name][1]
        return n, n
    if t.kind == 'enum':
        n = SCALARS[t.decl['storage']][1]
        return n, n
    if t.kind in ('handle', 'string', 'vec'):
        return 16, 8
    if t.kind == 'array':
        size, align = layout(t.elem)
        count = 1
        for d in t.dims:
            count *= d
        return size * count, align
    if t.kind == 'struct':
        return struct_layout(t.decl)[:2]
    raise HalError('no record layout for %s' % t.kind)


def struct_layout(decl):
    offset, align, offsets = 0, 1, []
    for t, _ in decl['fields']:
        size, a = layout(t)
        offset = (offset + a - 1) // a * a
        offsets.append(offset)
        offset += size
        align = max(align, a)
    return (offset + align - 1) // align * align, align, offsets


def comparable(t):
    """The platform writes == only for records without handles (or interfaces) inside."""
    if t.kind in ('handle', 'interface'):
        return False
    if t.kind in ('vec', 'array'):
        return comparable(t.elem)
    if t.kind == 'struct':
        return all(comparable(ft) for ft, _ in t.decl['fields'])
    return True


# ---- C++ text ----------------------------------------------------------------------------------

def cpp_type(t, pkg):
    if t.kind == 'scalar':
        return SCALARS[t.name][0]
    if t.kind in ('enum', 'struct'):
        return pkg.q(t.name)
    if t.kind == 'interface':
        return '::android::sp<%s>' % pkg.q(t.name)
    if t.kind == 'handle':
        return HW + 'hidl_handle'
    if t.kind == 'string':
        return HW + 'hidl_string'
    if t.kind == 'vec':
        return '%shidl_vec<%s>' % (HW, cpp_type(t.elem, pkg))
    if t.kind == 'array':
        return '%shidl_array<%s, %s>' % (HW, cpp_type(t.elem, pkg), ', '.join(map(str, t.dims)))
    raise HalError(t.kind)


def cpp_param(t, name, pkg):
    if t.kind in ('scalar', 'enum'):
        return '%s %s' % (cpp_type(t, pkg), name)
    return 'const %s& %s' % (cpp_type(t, pkg), name)


def elided(method):
    """A single scalar, enum or interface result comes back in Return<T>, not a callback."""
    r = method['results']
    return len(r) == 1 and r[0][0].kind in ('scalar', 'enum', 'interface')


def namespaces(pkg, close=False):
    if close:
        return '\n'.join('}  // namespace %s' % p for p in reversed(pkg.ns_parts)) + '\n'
    return '\n'.join('namespace %s {' % p for p in pkg.ns_parts) + '\n'


def guard(pkg, name):
    return 'HIDL_GENERATED_%s_%s_H' % ('_'.join(p.upper() for p in pkg.ns_parts), name.upper())


def header_open(pkg, name, includes):
    out = ['// Written by host/hidl/hidl_host_gen.py from %s; do not edit.' % pkg.name,
           '#ifndef ' + guard(pkg, name), '#define ' + guard(pkg, name), '']
    out += ['#include <%s>' % i for i in includes]
    out += ['', namespaces(pkg)]
    return out


def header_close(pkg, name):
    return [namespaces(pkg, close=True), '#endif  // ' + guard(pkg, name), '']


def enum_text(decl, pkg):
    q, st = pkg.q(decl['name']), decl['storage']
    out = []
    defs = ['enum class %s : %s {' % (decl['name'], st)]
    defs += ['    %s = %s,' % (n, v) for n, v in decl['values']]
    defs += ['};', '']
    # Declarations (before the records, which print their fields with them).
    out.append('template <typename>\nstatic inline std::string toString(%s o);' % st)
    out.append('static inline std::string toString(%s o);' % q)
    out.append('static inline void PrintTo(%s o, ::std::ostream* os);' % q)
    for op in ('|', '&'):
        out.append('constexpr %s operator%s(const %s lhs, const %s rhs) {\n'
                   '    return static_cast<%s>(static_cast<%s>(lhs) %s static_cast<%s>(rhs));\n}'
                   % (st, op, q, q, st, st, op, st))
        out.append('constexpr %s operator%s(const %s lhs, const %s rhs) {\n'
                   '    return static_cast<%s>(lhs %s static_cast<%s>(rhs));\n}'
                   % (st, op, st, q, st, op, st))
        out.append('constexpr %s operator%s(const %s lhs, const %s rhs) {\n'
                   '    return static_cast<%s>(static_cast<%s>(lhs) %s rhs);\n}'
                   % (st, op, q, st, st, st, op))
        out.append('constexpr %s& operator%s=(%s& v, const %s e) {\n'
                   '    v %s= static_cast<%s>(e);\n    return v;\n}' % (st, op, st, q, op, st))
    out.append('')
    # Definitions.
    body = ['template <>',
            'inline std::string toString<%s>(%s o) {' % (q, st),
            '    using %sdetails::toHexString;' % HW,
            '    std::string os;',
            '    %shidl_bitfield<%s> flipped = 0;' % (HW, q),
            '    bool first = true;']
    for n, _ in decl['values']:
        body += ['    if ((o & %s::%s) == static_cast<%s>(%s::%s)) {' % (q, n, st, q, n),
                 '        os += (first ? "" : " | ");',
                 '        os += "%s";' % n,
                 '        first = false;',
                 '        flipped |= %s::%s;' % (q, n),
                 '    }']
    body += ['    if (o != flipped) {',
             '        os += (first ? "" : " | ");',
             '        os += toHexString(o & (~flipped));',
             '    }',
             '    os += " (";',
             '    os += toHexString(o);',
             '    os += ")";',
             '    return os;',
             '}', '',
             'static inline std::string toString(%s o) {' % q,
             '    using %sdetails::toHexString;' % HW]
    for n, _ in decl['values']:
        body += ['    if (o == %s::%s) {' % (q, n), '        return "%s";' % n, '    }']
    body += ['    std::string os;',
             '    os += toHexString(static_cast<%s>(o));' % st,
             '    return os;', '}', '',
             'static inline void PrintTo(%s o, ::std::ostream* os) {' % q,
             '    *os << toString(o);', '}', '']
    return defs, out, body


def struct_text(decl, pkg):
    q = pkg.q(decl['name'])
    size, align, offsets = struct_layout(decl)
    defs = ['struct %s final {' % decl['name']]
    for t, n in decl['fields']:
        defs.append('    %s %s __attribute__((aligned(%d)));' % (cpp_type(t, pkg), n, layout(t)[1]))
    defs += ['};', '']
    for (t, n), off in zip(decl['fields'], offsets):
        defs.append('static_assert(offsetof(%s, %s) == %d, "wrong offset");' % (q, n, off))
    defs += ['static_assert(sizeof(%s) == %d, "wrong size");' % (q, size),
             'static_assert(__alignof(%s) == %d, "wrong alignment");' % (q, align), '']
    eq = all(comparable(t) for t, _ in decl['fields'])
    out = ['static inline std::string toString(const %s& o);' % q,
           'static inline void PrintTo(const %s& o, ::std::ostream*);' % q]
    if eq:
        out += ['static inline bool operator==(const %s& lhs, const %s& rhs);' % (q, q),
                'static inline bool operator!=(const %s& lhs, const %s& rhs);' % (q, q)]
    else:
        out.append('// operator== and operator!= are not generated for %s' % decl['name'])
    out.append('')
    body = ['static inline std::string toString(const %s& o) {' % q,
            '    using %stoString;' % HW,
            '    std::string os;',
            '    os += "{";']
    for i, (t, n) in enumerate(decl['fields']):
        body.append('    os += "%s.%s = ";' % ('' if i == 0 else ', ', n))
        where = pkg.ns if t.kind in ('enum', 'struct') else HW[:-2]
        body.append('    os += %s::toString(o.%s);' % (where, n))
    body += ['    os += "}";', '    return os;', '}', '',
             'static inline void PrintTo(const %s& o, ::std::ostream* os) {' % q,
             '    *os << toString(o);', '}', '']
    if eq:
        body.append('static inline bool operator==(const %s& lhs, const %s& rhs) {' % (q, q))
        for _, n in decl['fields']:
            body += ['    if (lhs.%s != rhs.%s) {' % (n, n), '        return false;', '    }']
        body += ['    return true;', '}', '',
                 'static inline bool operator!=(const %s& lhs, const %s& rhs) {' % (q, q),
                 '    return !(lhs == rhs);', '}', '']
    return defs, out, body


def write_types(pkg, out_dir):
    lines = header_open(pkg, 'types', ['hidl/HidlSupport.h', 'stddef.h', 'stdint.h', 'array',
                                       'ostream', 'string'])
    lines += ['// Forward declarations, as the records may name each other.']
    for d in pkg.decls:
        if d['kind'] == 'enum':
            lines.append('enum class %s : %s;' % (d['name'], d['storage']))
        else:
            lines.append('struct %s;' % d['name'])
    lines.append('')
    decls, bodies = [], []
    for d in pkg.decls:
        defs, dcl, body = (enum_text if d['kind'] == 'enum' else struct_text)(d, pkg)
        lines += defs
        decls += dcl
        bodies += body
    lines += ['//', '// type declarations for package', '//', ''] + decls
    lines += ['//', '// type header definitions for package', '//', ''] + bodies
    lines.append(namespaces(pkg, close=True))
    for d in pkg.decls:
        if d['kind'] != 'enum':
            continue
        q = pkg.q(d['name'])
        lines += ['namespace android {', 'namespace hardware {', 'namespace details {',
                  'template <>',
                  'inline constexpr std::array<%s, %d> hidl_enum_values<%s> = {'
                  % (q, len(d['values']), q)]
        lines += ['    %s::%s,' % (q, n) for n, _ in d['values']]
        lines += ['};', '}  // namespace details', '}  // namespace hardware',
                  '}  // namespace android', '']
    lines += ['#endif  // ' + guard(pkg, 'types'), '']
    emit(out_dir, pkg, 'types.h', lines)


BASE_METHODS = [
    ('using interfaceChain_cb = std::function<void(const {hw}hidl_vec<{hw}hidl_string>& '
     'descriptors)>;', 'Return<void> interfaceChain(interfaceChain_cb _hidl_cb)'),
    (None, 'Return<void> debug(const {hw}hidl_handle& fd, '
           'const {hw}hidl_vec<{hw}hidl_string>& options)'),
    ('using interfaceDescriptor_cb = std::function<void(const {hw}hidl_string& descriptor)>;',
     'Return<void> interfaceDescriptor(interfaceDescriptor_cb _hidl_cb)'),
    ('using getHashChain_cb = std::function<void(const {hw}hidl_vec<{hw}hidl_array<uint8_t, 32>>'
     '& hashchain)>;', 'Return<void> getHashChain(getHashChain_cb _hidl_cb)'),
    (None, 'Return<void> setHALInstrumentation()'),
    (None, 'Return<bool> linkToDeath(const ::android::sp<{hw}hidl_death_recipient>& recipient, '
           'uint64_t cookie)'),
    (None, 'Return<void> ping()'),
    ('using getDebugInfo_cb = std::function<void(const ::android::hidl::base::V1_0::DebugInfo& '
     'info)>;', 'Return<void> getDebugInfo(getDebugInfo_cb _hidl_cb)'),
    (None, 'Return<void> notifySyspropsChanged()'),
    (None, 'Return<bool> unlinkToDeath(const ::android::sp<{hw}hidl_death_recipient>& recipient)'),
]


def method_decl(m, pkg):
    args = [cpp_param(t, n, pkg) for t, n in m['args']]
    pre = []
    if not m['results']:
        ret = 'void'
    elif elided(m):
        ret = cpp_type(m['results'][0][0], pkg)
    else:
        ret = 'void'
        cb = ', '.join(cpp_param(t, n, pkg) for t, n in m['results'])
        pre.append('    using %s_cb = std::function<void(%s)>;' % (m['name'], cb))
        args.append('%s_cb _hidl_cb' % m['name'])
    return pre, '%sReturn<%s> %s(%s)' % (HW, ret, m['name'], ', '.join(args))


def write_interface(pkg, iface, out_dir):
    name = iface['name']
    q = pkg.q(name)
    includes = ['android/hidl/base/1.0/IBase.h', pkg.path + '/types.h']
    for m in iface['methods']:
        for t, _ in m['args'] + m['results']:
            if t.kind == 'interface' and t.name != name:
                inc = '%s/%s.h' % (pkg.path, t.name)
                if inc not in includes:
                    includes.append(inc)
    includes += ['hidl/HidlSupport.h', 'hidl/Status.h', 'utils/StrongPointer.h', 'functional',
                 'string']
    lines = header_open(pkg, name, includes)
    lines += ['struct %s : public %s {' % (name, IBASE),
              '    typedef %sdetails::i_tag _hidl_tag;' % HW,
              '    static const char* descriptor;', '',
              '    virtual bool isRemote() const override { return false; }', '']
    for m in iface['methods']:
        pre, sig = method_decl(m, pkg)
        lines += pre + ['    virtual %s = 0;' % sig, '']
    for alias, sig in BASE_METHODS:
        if alias:
            lines.append('    ' + alias.format(hw=HW))
        lines.append('    virtual %s%s override;' % (HW, sig.format(hw=HW)))
    lines += ['',
              '    static %sReturn<::android::sp<%s>> castFrom(const ::android::sp<%s>& parent, '
              'bool emitError = false);' % (HW, q, q),
              '    static %sReturn<::android::sp<%s>> castFrom(const ::android::sp<%s>& parent, '
              'bool emitError = false);' % (HW, q, IBASE), '']
    for fn in ('tryGetService', 'getService'):
        lines += [
            '    static ::android::sp<%s> %s(const std::string& serviceName = "default", '
            'bool getStub = false);' % (name, fn),
            '    static ::android::sp<%s> %s(const char serviceName[], bool getStub = false) {'
            % (name, fn),
            '        std::string str(serviceName ? serviceName : "");',
            '        return %s(str, getStub);' % fn, '    }',
            '    static ::android::sp<%s> %s(const %shidl_string& serviceName, '
            'bool getStub = false) {' % (name, fn, HW),
            '        std::string str(serviceName.c_str());',
            '        return %s(str, getStub);' % fn, '    }',
            '    static ::android::sp<%s> %s(bool getStub) {' % (name, fn),
            '        return %s("default", getStub);' % fn, '    }']
    lines += ['    __attribute__((warn_unused_result)) ::android::status_t registerAsService('
              'const std::string& serviceName = "default");', '};', '',
              'static inline std::string toString(const ::android::sp<%s>& o) {' % q,
              '    std::string os = "[class or subclass of ";',
              '    os += %s::descriptor;' % q,
              '    os += "]";',
              '    os += o->isRemote() ? "@remote" : "@local";',
              '    return os;', '}', '']
    lines += header_close(pkg, name)
    emit(out_dir, pkg, name + '.h', lines)


def write_sources(pkg, out_dir):
    lines = ['// Written by host/hidl/hidl_host_gen.py from %s; do not edit.' % pkg.name,
             '// What the interface library holds for local objects of the package.']
    lines += ['#include <%s/%s.h>' % (pkg.path, i['name']) for i in pkg.interfaces]
    lines += ['#include <hidl/HidlTransportSupport.h>', '', namespaces(pkg)]
    for iface in pkg.interfaces:
        name = iface['name']
        q = pkg.q(name)
        digest = ', '.join('%d' % b for b in pkg.hashes.get(name, bytes(32)))
        lines += [
            'const char* %s::descriptor("%s::%s");' % (name, pkg.name, name), '',
            '%sReturn<void> %s::interfaceChain(interfaceChain_cb _hidl_cb) {' % (HW, name),
            '    _hidl_cb({%s::descriptor, %s::descriptor});' % (q, IBASE),
            '    return %sVoid();' % HW, '}', '',
            '%sReturn<void> %s::debug(const %shidl_handle& fd, const %shidl_vec<%shidl_string>& '
            'options) {' % (HW, name, HW, HW, HW),
            '    (void)fd;', '    (void)options;', '    return %sVoid();' % HW, '}', '',
            '%sReturn<void> %s::interfaceDescriptor(interfaceDescriptor_cb _hidl_cb) {'
            % (HW, name),
            '    _hidl_cb(%s::descriptor);' % q, '    return %sVoid();' % HW, '}', '',
            '%sReturn<void> %s::getHashChain(getHashChain_cb _hidl_cb) {' % (HW, name),
            '    static const uint8_t kHash[32] = {%s};' % digest,
            '    _hidl_cb({%shidl_array<uint8_t, 32>(kHash), %sdetails::ibaseHash()});'
            % (HW, HW),
            '    return %sVoid();' % HW, '}', '',
            '%sReturn<void> %s::setHALInstrumentation() {' % (HW, name),
            '    return %sVoid();' % HW, '}', '',
            '%sReturn<bool> %s::linkToDeath(const ::android::sp<%shidl_death_recipient>& recipient,'
            ' uint64_t cookie) {' % (HW, name, HW),
            '    (void)cookie;', '    return (recipient != nullptr);', '}', '',
            '%sReturn<void> %s::ping() {' % (HW, name), '    return %sVoid();' % HW, '}', '',
            '%sReturn<void> %s::getDebugInfo(getDebugInfo_cb _hidl_cb) {' % (HW, name),
            '    _hidl_cb(%sdetails::localDebugInfo(this));' % HW,
            '    return %sVoid();' % HW, '}', '',
            '%sReturn<void> %s::notifySyspropsChanged() {' % (HW, name),
            '    return %sVoid();' % HW, '}', '',
            '%sReturn<bool> %s::unlinkToDeath(const ::android::sp<%shidl_death_recipient>& '
            'recipient) {' % (HW, name, HW),
            '    return (recipient != nullptr);', '}', '',
            '%sReturn<::android::sp<%s>> %s::castFrom(const ::android::sp<%s>& parent, '
            'bool /* emitError */) {' % (HW, q, name, q),
            '    return parent;', '}', '',
            '%sReturn<::android::sp<%s>> %s::castFrom(const ::android::sp<%s>& parent, '
            'bool emitError) {' % (HW, q, name, IBASE),
            '    return %sdetails::castInterface<%s>(parent, "%s::%s", emitError);'
            % (HW, q, pkg.name, name), '}', '',
            '::android::sp<%s> %s::tryGetService(const std::string& serviceName, bool getStub) {'
            % (name, name),
            '    return %sdetails::getServiceInternal<%s>(serviceName, false, getStub);'
            % (HW, q), '}', '',
            '::android::sp<%s> %s::getService(const std::string& serviceName, bool getStub) {'
            % (name, name),
            '    return %sdetails::getServiceInternal<%s>(serviceName, true, getStub);'
            % (HW, q), '}', '',
            '::android::status_t %s::registerAsService(const std::string& serviceName) {' % name,
            '    return %sdetails::registerAsServiceInternal(this, serviceName);' % HW, '}', '']
    lines.append(namespaces(pkg, close=True))
    emit(out_dir, pkg, pkg.parts[-1] + '-host.cpp', lines)


def emit(out_dir, pkg, name, lines):
    path = os.path.join(out_dir, pkg.path, name)
    os.makedirs(os.path.dirname(path), exist_ok=True)
    text = '\n'.join(lines)
    # Unchanged files keep their time stamps, so a .hal edit rebuilds only what it changes.
    if os.path.exists(path) and open(path, encoding='utf-8').read() == text:
        return
    with open(path, 'w', encoding='utf-8') as f:
        f.write(text)


def main():
    ap = argparse.ArgumentParser(description=__doc__.split('\n')[0])
    ap.add_argument('--out', required=True)
    ap.add_argument('packages', nargs='+')
    args = ap.parse_args()
    try:
        for directory in args.packages:
            pkg = read_package(directory)
            write_types(pkg, args.out)
            for iface in pkg.interfaces:
                write_interface(pkg, iface, args.out)
            write_sources(pkg, args.out)
    except HalError as e:
        print('hidl_host_gen: error: %s' % e, file=sys.stderr)
        return 1
    return 0


if __name__ == '__main__':
    sys.exit(main())
