#!/usr/bin/env python3
"""Compiles the platform build's C++ as the device would, and checks what must not compile.

1. Every source that a cc_* module of an Android.bp under capture/ lists is compiled into an
   object as Soong compiles a vendor module for the device: clang for 32-bit ARM, -D__ANDROID__,
   the module's cflags (with -Wall -Wextra -Werror) and local_include_dirs. The platform's headers
   are those of the host port (host/include and the interface headers written from the .hal
   files) and the armhf sysroot; nothing host-only is on the include path (not the allocator's
   private handle, the graphics layer's controls or the emulator), and an object whose
   dependencies reach into any other part of the tree fails too.
2. Snippets that the platform's headers refuse must be refused here as well: == on a record that
   holds a handle, a hidl_array field passed as a pointer, the Return alias of an interface. Each
   comes with its correct form, which must compile, so that a broken harness cannot pass.

usage: device_compile.py --out DIR [--deps DIR] [--cxx clang++] [--target arm-linux-gnueabihf]
Prints one line per failure and "device compile: N errors in M files"; exit status 1 on errors.
"""
import argparse
import concurrent.futures
import glob
import os
import re
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from check_platform_build import bp_modules  # noqa: E402

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

# (what the platform refuses, the snippet, its correct form)
MUST_NOT_COMPILE = [
    ("== on a record that holds a handle",
     "bool same(const CaptureInfo& a, const CaptureInfo& b) { return a == b; }",
     "bool same(const CaptureCallbackParams& a, const CaptureCallbackParams& b) "
     "{ return a == b; }"),
    ("a hidl_array field passed as a pointer",
     "void copy(uint32_t* out, const CaptureInfo& i) { memcpy(out, i.param, sizeof(i.param)); }",
     "void copy(uint32_t* out, const CaptureInfo& i) "
     "{ memcpy(out, i.param.data(), sizeof(i.param)); }"),
    ("the Return alias of an interface",
     "CaptureReturn call(const sp<ICapture>& c) { ICapture::Return<CaptureReturn> r = "
     "c->close(0x73000000); return r.withDefault(CaptureReturn::FAIL); }",
     "CaptureReturn call(const sp<ICapture>& c) { ::android::hardware::Return<CaptureReturn> r = "
     "c->close(0x73000000); return r.withDefault(CaptureReturn::FAIL); }"),
]
SNIPPET_HEAD = """#include <string.h>
#include <vendor/quenlark/hardware/capture/1.0/ICapture.h>
using ::android::sp;
using namespace ::vendor::quenlark::hardware::capture::V1_0;
"""


def modules():
    """(module dir, module name, srcs, cflags, local_include_dirs) of every cc_* module."""
    found = []
    for bp in sorted(glob.glob(os.path.join(ROOT, 'capture', '**', 'Android.bp'), recursive=True)):
        for name, m in bp_modules(bp).items():
            if not m['type'].startswith('cc_'):
                continue

            def strings(prop):
                hit = re.search(r'^\s*%s:\s*\[(.*?)\]' % prop, m['body'], re.S | re.M)
                return re.findall(r'"([^"]+)"', hit.group(1)) if hit else []

            found.append((os.path.dirname(bp), name, m['srcs'], strings('cflags'),
                          strings('local_include_dirs')))
    return found


def main():
    ap = argparse.ArgumentParser(description=__doc__.split('\n')[0])
    ap.add_argument('--out', required=True)
    ap.add_argument('--deps', default=os.path.join(ROOT, 'build', 'armhf-deps', 'root'))
    ap.add_argument('--cxx', default='clang++')
    ap.add_argument('--target', default='arm-linux-gnueabihf')
    ap.add_argument('--jobs', type=int, default=os.cpu_count() or 2)
    args = ap.parse_args()
    args.out = os.path.abspath(args.out)
    args.deps = os.path.abspath(args.deps)

    generated = os.path.join(args.out, 'generated')
    subprocess.run([sys.executable, os.path.join(ROOT, 'host', 'hidl', 'hidl_host_gen.py'),
                    '--out', generated, os.path.join(ROOT, 'capture', '1.0'),
                    os.path.join(ROOT, 'pq', '1.0')], check=True)
    platform = ['-isystem', os.path.join(ROOT, 'host', 'include'), '-isystem', generated,
                '-isystem', os.path.join(args.deps, 'usr', 'include', 'android'),
                '-isystem', os.path.join(args.deps, 'usr', 'include')]
    base = [args.cxx, '--target=' + args.target, '-std=c++17', '-D__ANDROID__', '-DANDROID',
            '-Wall', '-Wextra', '-Werror']
    # What an object may include from this tree: the platform stand-ins and its own module.
    allowed = [os.path.join(ROOT, 'host', 'include') + os.sep, generated + os.sep,
               os.path.abspath(args.deps) + os.sep]

    jobs, errors, failed = [], [], set()
    for directory, name, srcs, cflags, includes in modules():
        flags = base + cflags + ['-I' + directory]
        flags += ['-I' + os.path.join(directory, d) for d in includes] + platform
        for src in srcs:
            obj = os.path.join(args.out, 'obj', name, src + '.o')
            os.makedirs(os.path.dirname(obj), exist_ok=True)
            jobs.append((os.path.relpath(os.path.join(directory, src), ROOT),
                         flags + ['-MD', '-MF', obj + '.d', '-c', os.path.join(directory, src),
                                  '-o', obj], obj + '.d', directory))

    def compile_one(job):
        rel, command, depfile, directory = job
        run = subprocess.run(command, capture_output=True, text=True)
        if run.returncode != 0:
            lines = [l for l in run.stderr.splitlines() if ' error: ' in l] or [run.stderr.strip()]
            return rel, [l.replace(ROOT + os.sep, '') for l in lines]
        deps = open(depfile).read().replace('\\\n', ' ').split()[1:]
        strays = [d for d in deps if os.path.abspath(d).startswith(ROOT + os.sep)
                  and not os.path.abspath(d).startswith(directory + os.sep)
                  and not any(os.path.abspath(d).startswith(a) for a in allowed)]
        return rel, ['%s: includes %s, which the platform build does not have'
                     % (rel, os.path.relpath(d, ROOT)) for d in strays]

    with concurrent.futures.ThreadPoolExecutor(args.jobs) as pool:
        for rel, problems in pool.map(compile_one, jobs):
            if problems:
                failed.add(rel)
                errors += problems

    for what, wrong, right in MUST_NOT_COMPILE:
        for snippet, must_compile in ((wrong, False), (right, True)):
            path = os.path.join(args.out, 'snippet.cpp')
            with open(path, 'w') as f:
                f.write(SNIPPET_HEAD + snippet + '\n')
            run = subprocess.run(base + platform + ['-fsyntax-only', path], capture_output=True,
                                 text=True)
            if (run.returncode == 0) != must_compile:
                failed.add('compile-fail check')
                if must_compile:
                    errors.append('compile-fail check: the correct form of "%s" does not compile: '
                                  '%s' % (what, run.stderr.strip().splitlines()[:3]))
                else:
                    errors.append('compile-fail check: %s compiles, and the platform refuses it'
                                  % what)

    for line in errors:
        print(line)
    print('device compile: %d errors in %d files (%d sources, %d compile-fail checks)'
          % (len(errors), len(failed), len(jobs), len(MUST_NOT_COMPILE)))
    return 1 if errors else 0


if __name__ == '__main__':
    sys.exit(main())
