#!/usr/bin/env python3
"""Looks at the built shared library from outside: what it exports, what it needs, how it is linked.

Each check is a function whose name is its name on the command line; it returns a list of
complaints, and an empty one means that all is well.
"""

import argparse
import ctypes
import pathlib
import re
import subprocess
import sys

SONAME = "libzorvex.so.1"
# The C library, its mathematics, the loader and the way to OpenCL. Above all no C++ library: a host
# in any language brings along what these few need.
ALLOWED_LIBRARIES = re.compile(r"(libOpenCL|libm|libc|ld-linux[\w-]*)\.so\.\d+")
# Exported for companion code, and not declared in the public header.
NOT_IN_THE_HEADER = {"zx_set_error_internal"}


def output_of(*command):
    result = subprocess.run(command, check=True, capture_output=True, text=True,
                            env={"LC_ALL": "C", "PATH": "/usr/local/bin:/usr/bin:/bin"})
    return result.stdout


def listed_symbols(args):
    return args.symbols.read_text(encoding="utf-8").splitlines()


def differences(found, expected, what, where):
    found, expected = set(found), set(expected)
    return ([f"{name} is {what} but not {where}" for name in sorted(found - expected)] +
            [f"{name} is {where} but not {what}" for name in sorted(expected - found)])


def sorted_list(args):
    """The checked-in list is sorted and names nothing twice."""
    names = listed_symbols(args)
    return [] if names == sorted(set(names)) else [f"{args.symbols} is not sorted or repeats itself"]


def without_comments(path):
    return re.sub(r"/\*.*?\*/", " ", path.read_text(encoding="utf-8"), flags=re.DOTALL)


def exports(args):
    """The library exports exactly the functions of the checked-in list, and nothing else."""
    complaints = []
    names = []
    for line in output_of("nm", "-D", "--defined-only", str(args.library)).splitlines():
        kind, name = line.split()[-2:]
        names.append(name.split("@")[0])
        if kind != "T":
            complaints.append(f"{name} is exported but is no function (type {kind})")
    return complaints + differences(names, listed_symbols(args), "exported", "listed")


def declarations(args):
    """The header declares exactly the functions of the checked-in list."""
    code = re.sub(r"^\s*#.*$", " ", without_comments(args.header), flags=re.MULTILINE)
    declared = re.findall(r"\bZX_API\b[^;(]*?\b(\w+)\s*\(", code)
    anything = re.findall(r"\b(zx_\w+)\s*\(", code)
    complaints = [f"{name} is declared without ZX_API" for name in sorted(set(anything) - set(declared))]
    complaints += [f"{name} does not begin with zx_" for name in declared if not name.startswith("zx_")]
    if len(declared) != len(set(declared)):
        complaints.append("a function is declared twice")
    expected = set(listed_symbols(args)) - NOT_IN_THE_HEADER
    return complaints + differences(declared, expected, "declared", "listed")


def layouts(args):
    """The list of layouts names every record of the header and every field of it, and no other."""
    records, fields = [], []
    for name, body in re.findall(r"\btypedef (?:struct|union) (\w+) \{(.*?)\} \1;",
                                 without_comments(args.header), flags=re.DOTALL):
        records.append(name)
        fields += [f"{name}.{field}" for field in re.findall(r"(\w+)\s*(?:\[[^\]]*\]\s*)?[;,]", body)]
    listed = without_comments(args.layouts)
    return (differences(records, re.findall(r"\bRECORD\((zx_\w+),", listed), "declared", "listed") +
            differences(fields, [f"{name}.{field}" for name, field in
                                 re.findall(r"\bFIELD\((zx_\w+), (\w+),", listed)],
                        "declared", "listed"))


def constants(args):
    """The list of layouts names every constant of the header, and no other."""
    declared = [name for body in re.findall(r"\benum(?: \w+)? \{(.*?)\}",
                                            without_comments(args.header), flags=re.DOTALL)
                for name in re.findall(r"\b(\w+)(?: = [^,]*)?(?:,|\s*$)", body)]
    listed = re.findall(r"\bCONSTANT\((ZX_\w+),", without_comments(args.layouts))
    complaints = [] if declared else ["the header declares no constants"]
    return complaints + differences(declared, listed, "declared", "listed")


def dynamic_entries(args):
    text = output_of("readelf", "--dynamic", "--wide", str(args.library))
    return re.findall(r"^\s*0x[0-9a-f]+\s+\((\w+)\)\s+(.*)$", text, flags=re.MULTILINE)


def needs(args):
    """The library needs no libraries beyond the few that every Linux has, and OpenCL's loader."""
    needed = [re.search(r"\[(.*)\]", value)[1] for tag, value in dynamic_entries(args) if tag == "NEEDED"]
    complaints = [f"{name} is needed" for name in needed if not ALLOWED_LIBRARIES.fullmatch(name)]
    if "libOpenCL.so.1" not in needed:
        complaints.append("libOpenCL.so.1 is not needed")
    return complaints


def soname(args):
    """The library's name for the loader carries the interface's number."""
    names = [re.search(r"\[(.*)\]", value)[1] for tag, value in dynamic_entries(args) if tag == "SONAME"]
    return [] if names == [SONAME] else [f"the name is {names}, not {SONAME}"]


def hardening(args):
    """Everything is bound at load time and read-only afterwards; no stack can be executed."""
    entries = dynamic_entries(args)
    flags = {word for tag, value in entries if tag in ("FLAGS", "FLAGS_1") for word in value.split()}
    complaints = [f"{tag} is present" for tag, _ in entries if tag in ("TEXTREL", "RPATH", "RUNPATH")]
    if "BIND_NOW" not in flags and "NOW" not in flags:
        complaints.append("symbols are bound lazily")
    segments = {}
    for line in output_of("readelf", "--segments", "--wide", str(args.library)).splitlines():
        match = re.match(r"\s+(\w+)(?:\s+0x[0-9a-f]+){5}\s+([RWE ]{3})\s", line)
        if match:
            segments.setdefault(match[1], []).append(match[2])
    if "GNU_RELRO" not in segments:
        complaints.append("there is no GNU_RELRO segment")
    if segments.get("GNU_STACK") != ["RW "]:
        complaints.append(f"the stack's flags are {segments.get('GNU_STACK')}")
    complaints += ["a segment is writable and executable" for flag in segments.get("LOAD", [])
                   if "W" in flag and "E" in flag]
    if not segments.get("LOAD"):
        complaints.append("there are no segments to load")
    return complaints


def loading(args):
    """A program that loads the library at run time can call it and computes without denormals."""
    smallest_normal = sys.float_info.min
    if smallest_normal * 0.5 == 0.0:
        return ["denormals are zero even before the library is loaded"]
    library = ctypes.CDLL(str(args.library))
    complaints = [] if smallest_normal * 0.5 == 0.0 else ["loading does not flush denormals to zero"]
    library.zx_status_string.restype = ctypes.c_char_p
    text = library.zx_status_string(100)
    return complaints + ([] if text == b"Out of memory" else [f"status 100 is called {text}"])


CHECKS = (sorted_list, exports, declarations, layouts, constants, needs, soname, hardening, loading)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("check", choices=[check.__name__ for check in CHECKS])
    parser.add_argument("--library", type=pathlib.Path, required=True)
    parser.add_argument("--header", type=pathlib.Path, required=True)
    parser.add_argument("--symbols", type=pathlib.Path, required=True)
    parser.add_argument("--layouts", type=pathlib.Path, required=True)
    args = parser.parse_args()
    check = next(check for check in CHECKS if check.__name__ == args.check)
    complaints = check(args)
    for complaint in complaints:
        print(f"{args.check}: {complaint}", file=sys.stderr)
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
