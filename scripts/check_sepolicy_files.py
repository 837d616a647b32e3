#!/usr/bin/env python3
"""Checks that the service's SELinux policy agrees with itself and with the service's files.

Fails (exit 1, one line per problem) when
  - a type named in a *_contexts file of sepolicy/vendor is not declared in a .te file there;
  - hwservice_contexts, the init script's `interface` lines and the VINTF fragment do not name
    the same interfaces and instances;
  - the init script's binary is not labelled with an exec type by file_contexts.
Needs no platform policy, so it runs anywhere; sepolicy-check does the full compile.
"""
import argparse
import glob
import os
import re
import sys
import xml.etree.ElementTree as ET

POLICY_DIR = 'sepolicy/vendor'
SERVICE_DIR = 'capture/1.0/default'
CONTEXT_FILES = ('file_contexts', 'hwservice_contexts', 'property_contexts', 'genfs_contexts')
# Macros of the platform's te_macros that declare the type they are given.
DECLARING_MACRO = re.compile(r'\b(?:vendor|system|product)_(?:internal|restricted|public)_prop'
                             r'\(\s*(\w+)\s*\)')
TYPE_STATEMENT = re.compile(r'^\s*type\s+(\w+)\s*(?:,([^;]*))?;', re.M)
CONTEXT = re.compile(r'\bu:object_r:(\w+):s0\b')

problems = []


def problem(where, message):
    problems.append(f'{where}: {message}')


def lines_of(path):
    """(line number, text without comment) for each non-blank line; nothing if no file."""
    if not os.path.exists(path):
        return
    with open(path, encoding='utf-8') as f:
        for number, line in enumerate(f, 1):
            text = line.split('#', 1)[0].strip()
            if text:
                yield number, text


def declared_types(policy):
    """Type name -> set of its attributes, for every type the folder's .te files declare."""
    types = {}
    for path in sorted(glob.glob(os.path.join(policy, '*.te'))):
        text = '\n'.join(t for _, t in lines_of(path))
        for name, rest in TYPE_STATEMENT.findall(text):
            types[name] = {a.strip() for a in rest.split(',') if a.strip()}
        for name in DECLARING_MACRO.findall(text):
            types.setdefault(name, {'property_type'})
    return types


def check_declared(policy, types):
    for name in CONTEXT_FILES:
        for number, text in lines_of(os.path.join(policy, name)):
            for t in CONTEXT.findall(text):
                if t not in types:
                    problem(f'{POLICY_DIR}/{name}:{number}',
                            f"type '{t}' is not declared by a .te file of {POLICY_DIR}")


def rc_services(rc_path, rc_name):
    """[(binary, [(package, version, interface, instance), ...])] from `service` blocks."""
    services = []
    for number, text in lines_of(rc_path):
        words = text.split()
        if words[0] == 'service' and len(words) >= 3:
            services.append((words[2], []))
        elif words[0] == 'interface' and services and len(words) == 3:
            m = re.fullmatch(r'([\w.]+)@(\d+\.\d+)::(\w+)', words[1])
            if m:
                services[-1][1].append(m.groups() + (words[2],))
            else:
                problem(f'{rc_name}:{number}',
                        f"interface '{words[1]}' is not package@version::IName")
    return services


def vintf_instances(xml_path):
    found = set()
    for hal in ET.parse(xml_path).getroot().iter('hal'):
        package = hal.findtext('name', '').strip()
        for version in hal.findall('version'):
            for iface in hal.findall('interface'):
                for instance in iface.findall('instance'):
                    found.add((package, version.text.strip(),
                               iface.findtext('name', '').strip(), instance.text.strip()))
    return found


def check_instances(policy, rc_name, xml_name, from_rc, from_xml):
    if not from_rc:
        problem(rc_name, 'the init script has no interface line')
    for fq in sorted(from_rc - from_xml):
        problem(rc_name, '%s@%s::%s/%s is not declared by the VINTF fragment' % fq)
    for fq in sorted(from_xml - from_rc):
        problem(xml_name, '%s@%s::%s/%s is not served by the init script' % fq)
    served = {f'{p}::{i}' for p, _, i, _ in from_rc}
    labelled = {}
    for number, text in lines_of(os.path.join(policy, 'hwservice_contexts')):
        labelled[text.split()[0]] = number
    for name in sorted(served - labelled.keys()):
        problem(f'{POLICY_DIR}/hwservice_contexts', f'{name} of the init script is not labelled')
    for name in sorted(labelled.keys() - served):
        problem(f'{POLICY_DIR}/hwservice_contexts:{labelled[name]}',
                f'{name} is not an interface the init script serves')


def check_binary(policy, rc_name, binary, types):
    """The last file_contexts entry that matches the binary (as libselinux picks) must carry
    an exec type."""
    chosen = None
    for number, text in lines_of(os.path.join(policy, 'file_contexts')):
        try:
            if re.fullmatch(text.split()[0], binary):
                chosen = (number, CONTEXT.findall(text))
        except re.error as e:
            problem(f'{POLICY_DIR}/file_contexts:{number}', f'bad regex: {e}')
    if chosen is None:
        problem(rc_name, f'{binary} matches no line of {POLICY_DIR}/file_contexts')
    elif not any('exec_type' in types.get(t, ()) for t in chosen[1]):
        problem(f'{POLICY_DIR}/file_contexts:{chosen[0]}',
                f'{binary} is labelled {chosen[1]}, which is not an exec_type')


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument('--root', default=os.path.join(os.path.dirname(__file__), '..'))
    root = parser.parse_args().root
    policy = os.path.join(root, POLICY_DIR)
    types = declared_types(policy)
    check_declared(policy, types)

    rcs = sorted(glob.glob(os.path.join(root, SERVICE_DIR, '*.rc')))
    xmls = sorted(glob.glob(os.path.join(root, SERVICE_DIR, '*.xml')))
    if len(rcs) != 1 or len(xmls) != 1:
        problem(SERVICE_DIR, 'expected one init script (.rc) and one VINTF fragment (.xml)')
    else:
        rc_name, xml_name = (os.path.relpath(p, root) for p in (rcs[0], xmls[0]))
        services = rc_services(rcs[0], rc_name)
        from_rc = {fq for _, fqs in services for fq in fqs}
        check_instances(policy, rc_name, xml_name, from_rc, vintf_instances(xmls[0]))
        for binary, _ in services:
            check_binary(policy, rc_name, binary, types)

    for p in problems:
        print(p)
    print('sepolicy files: %s' % (f'{len(problems)} problems' if problems else 'agree'))
    return 1 if problems else 0


if __name__ == '__main__':
    sys.exit(main())
