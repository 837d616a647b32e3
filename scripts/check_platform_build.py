#!/usr/bin/env python3
"""Checks that the platform build files describe what CMake builds.

- The service library's and the service binary's sources (as CMake compiles them) are the srcs
  of the matching Android.bp modules, no more and no less.
- The .hal files of each HIDL package are the srcs of its hidl_interface.
- The VTS module is a cc_test as the platform's HIDL VTS modules are (VtsHalTargetTestDefaults,
  the interface library linked statically, not a vendor module, in the general-tests and vts
  suites), and lists the sources the workstation build compiles into it.
- The init script starts the binary CMake and Android.bp build, and names the interface and
  instance that the VINTF fragment declares.
- Every Android.bp is laid out as bpfmt leaves it: the file is parsed and printed again by the
  formatter's rules (4-space indents, one property per line with a trailing comma, a list of
  more than one value one value per line, a one-value list as written, one blank line at most
  between blocks) and must come out unchanged.
Prints every mismatch; exit status 1 if there is one.
"""
import argparse
import glob
import os
import re
import sys
import xml.etree.ElementTree as ET

PACKAGE_ROOT = "vendor.quenlark.hardware"
errors = []


def bp_modules(path):
    """{name: {"type": ..., "srcs": [...]}} of the top-level modules of an Android.bp file."""
    text = re.sub(r"//[^\n]*", "", open(path).read())
    modules = {}
    for kind, body in re.findall(r"^(\w+)\s*\{(.*?)^\}", text, re.S | re.M):
        name = re.search(r'^\s*name:\s*"([^"]+)"', body, re.M)
        srcs = re.search(r"^\s*srcs:\s*\[(.*?)\]", body, re.S | re.M)
        if name:
            modules[name.group(1)] = {
                "type": kind,
                "body": body,
                "srcs": re.findall(r'"([^"]+)"', srcs.group(1)) if srcs else [],
            }
    return modules


TOKEN = re.compile(r'\s*(//[^\n]*|"(?:[^"\\]|\\.)*"|[\w.@-]+|[{}\[\]:,=+])')


def bp_tokens(text):
    """(token, line) pairs; comments are tokens too."""
    pos, line, out = 0, 1, []
    while pos < len(text):
        m = TOKEN.match(text, pos)
        if not m:
            if text[pos:].strip():
                raise ValueError(f"line {line}: cannot read {text[pos:pos + 20]!r}")
            break
        line += text.count("\n", pos, m.start(1))
        out.append((m.group(1), line))
        pos = m.end()
    return out


def bpfmt(text):
    """The file as bpfmt prints the subset of Blueprint used here."""
    tokens = bp_tokens(text)
    i = 0
    lines = []  # (text, source line of its first token)

    def take(expected=None):
        nonlocal i
        tok, line = tokens[i]
        if expected is not None and tok != expected:
            raise ValueError(f"line {line}: expected {expected!r}, found {tok!r}")
        i += 1
        return tok, line

    def value(indent):
        tok, line = tokens[i]
        if tok == "[":
            take("[")
            items = []
            while tokens[i][0] != "]":
                items.append(take()[0])
                if tokens[i][0] == ",":
                    take(",")
            end = take("]")[1]
            if len(items) > 1 or end != line:
                inner = " " * (indent + 4)
                return "[\n" + "".join(f"{inner}{v},\n" for v in items) + " " * indent + "]"
            return "[" + "".join(items) + "]"
        if tok == "{":
            return block(indent)
        return take()[0]

    def block(indent):
        take("{")
        body = []
        while tokens[i][0] != "}":
            if tokens[i][0].startswith("//"):
                body.append(" " * (indent + 4) + take()[0])
                continue
            key = take()[0]
            take(":")
            body.append(" " * (indent + 4) + f"{key}: {value(indent + 4)},")
            if tokens[i][0] == ",":
                take(",")
        take("}")
        return "{\n" + "".join(b + "\n" for b in body) + " " * indent + "}" if body else "{}"

    previous_end = None
    while i < len(tokens):
        tok, line = tokens[i]
        if previous_end is not None and line > previous_end + 1:
            lines.append("")
        if tok.startswith("//"):
            take()
            lines.append(tok)
            previous_end = line
            continue
        kind = take()[0]
        lines.append(f"{kind} {block(0)}")
        previous_end = tokens[i - 1][1]
    return "\n".join(lines) + "\n"


def check_layout(path):
    text = open(path).read()
    try:
        formatted = bpfmt(text)
    except (ValueError, IndexError) as e:
        errors.append(f"{path}: not readable as Blueprint ({e})")
        return
    if formatted != text:
        got, want = text.splitlines(), formatted.splitlines()
        n = next((k for k in range(min(len(got), len(want))) if got[k] != want[k]),
                 min(len(got), len(want)))
        errors.append(f"{path}:{n + 1}: not as bpfmt lays it out: "
                      f"{got[n] if n < len(got) else '<end>'!r}, "
                      f"expected {want[n] if n < len(want) else '<end>'!r}")


def compare(what, built, listed, built_means="built"):
    for src in sorted(set(built) - set(listed)):
        errors.append(f"{what}: {src} is {built_means} but not listed in Android.bp")
    for src in sorted(set(listed) - set(built)):
        errors.append(f"{what}: {src} is listed in Android.bp but not {built_means}")
    if len(listed) != len(set(listed)):
        errors.append(f"{what}: Android.bp lists a source twice")


def cmake_sources(list_file, base):
    paths = [line.strip() for line in open(list_file) if line.strip()]
    return [os.path.relpath(p, base) for p in paths if p.endswith((".cpp", ".cc", ".c"))]


def module(modules, name, kind, where):
    m = modules.get(name)
    if m is None or m["type"] != kind:
        errors.append(f"{where}: no {kind} named {name}")
        return {"srcs": [], "body": ""}
    return m


def strings(body, prop):
    """The string values of a property, a list or a single value; None when it is absent."""
    m = re.search(rf"^\s*{prop}:\s*(\[.*?\]|\"[^\"]*\"|\w+)", body, re.S | re.M)
    return re.findall(r'"([^"]+)"', m.group(1)) if m else None


def check_vts(folder, sources):
    bp = os.path.join(folder, "Android.bp")
    name = "VtsHalQuenlarkCaptureV1_0TargetTest"
    if not os.path.exists(bp):
        errors.append(f"{bp}: missing")
        return
    vts = module(bp_modules(bp), name, "cc_test", bp)
    compare(name, cmake_sources(sources, folder), vts["srcs"])
    if "VtsHalTargetTestDefaults" not in (strings(vts["body"], "defaults") or []):
        errors.append(f"{name}: defaults do not include VtsHalTargetTestDefaults")
    if f"{PACKAGE_ROOT}.capture@1.0" not in (strings(vts["body"], "static_libs") or []):
        errors.append(f"{name}: the interface library is not in static_libs")
    if re.search(r"^\s*vendor:\s*true", vts["body"], re.M):
        errors.append(f"{name}: a VTS module is not a vendor module")
    if strings(vts["body"], "test_suites") != ["general-tests", "vts"]:
        errors.append(f"{name}: test_suites must be general-tests and vts")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--root", required=True)
    parser.add_argument("--impl-sources", required=True)
    parser.add_argument("--service-sources", required=True)
    parser.add_argument("--service-binary", required=True)
    parser.add_argument("--impl-library", required=True)
    parser.add_argument("--vts-sources", required=True)
    args = parser.parse_args()

    default = os.path.join(args.root, "capture/1.0/default")
    bp = os.path.join(default, "Android.bp")
    modules = bp_modules(bp)
    library = os.path.splitext(args.impl_library)[0].removeprefix("lib")
    compare(library, cmake_sources(args.impl_sources, default),
            module(modules, library, "cc_library_shared", bp)["srcs"])
    binary = args.service_binary
    service = module(modules, binary, "cc_binary", bp)
    compare(binary, cmake_sources(args.service_sources, default), service["srcs"])

    check_vts(os.path.join(args.root, "capture/1.0/vts/functional"), args.vts_sources)

    for package in ("capture", "pq"):
        folder = os.path.join(args.root, package, "1.0")
        name = f"{PACKAGE_ROOT}.{package}@1.0"
        hidl = module(bp_modules(os.path.join(folder, "Android.bp")), name, "hidl_interface",
                      folder)
        compare(name, [os.path.basename(p) for p in glob.glob(os.path.join(folder, "*.hal"))],
                hidl["srcs"], "in the package folder")
        if f'root: "{PACKAGE_ROOT}"' not in hidl["body"]:
            errors.append(f"{name}: root is not {PACKAGE_ROOT}")
    if PACKAGE_ROOT not in bp_modules(os.path.join(args.root, "Android.bp")):
        errors.append(f"Android.bp: no package root {PACKAGE_ROOT}")

    for path in sorted(glob.glob(os.path.join(args.root, "**", "Android.bp"), recursive=True)):
        if "/build/" not in path.replace(args.root, "", 1):
            check_layout(path)

    # Init script and VINTF fragment, as the cc_binary names them.
    rc_name = re.search(r'init_rc:\s*\["([^"]+)"\]', service["body"])
    xml_name = re.search(r'vintf_fragments:\s*\["([^"]+)"\]', service["body"])
    if not rc_name or not xml_name:
        errors.append(f"{binary}: init_rc or vintf_fragments missing")
        return report()
    rc = open(os.path.join(default, rc_name.group(1))).read()
    svc = re.search(r"^service\s+(\S+)\s+(\S+)", rc, re.M)
    iface = re.search(r"^\s+interface\s+(\S+)@(\S+)::(\S+)\s+(\S+)", rc, re.M)
    if not svc or not iface:
        errors.append(f"{rc_name.group(1)}: no service line or no interface line")
        return report()
    if not svc.group(1).startswith("vendor."):
        errors.append(f"{rc_name.group(1)}: service {svc.group(1)} of the vendor partition "
                      "lacks the vendor. prefix")
    if svc.group(2) != f"/vendor/bin/hw/{binary}":
        errors.append(f"{rc_name.group(1)}: service {svc.group(1)} starts {svc.group(2)}, "
                      f"not /vendor/bin/hw/{binary}")
    hal = ET.parse(os.path.join(default, xml_name.group(1))).getroot().find("hal")
    declared = (hal.findtext("name"), hal.findtext("version"),
                hal.findtext("interface/name"), hal.findtext("interface/instance"))
    if hal.get("format") != "hidl" or hal.findtext("transport") != "hwbinder":
        errors.append(f"{xml_name.group(1)}: not a hwbinder HIDL HAL")
    if iface.groups() != declared:
        errors.append(f"{rc_name.group(1)} serves {iface.groups()}, "
                      f"{xml_name.group(1)} declares {declared}")
    if declared[0] != f"{PACKAGE_ROOT}.capture" or not binary.startswith(
            f"{declared[0]}@{declared[1]}-"):
        errors.append(f"{binary}: does not belong to {declared[0]}@{declared[1]}")
    return report()


def report():
    for error in errors:
        print(error)
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
