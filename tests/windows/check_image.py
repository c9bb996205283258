#!/usr/bin/env python3
"""Checks on the Windows driver image (ndisfilter.sys) and its import library.

Each check is one CTest test of the windows_image group:

  subsystem       the image is a native-subsystem (kernel) image
  imports         it imports only from ntoskrnl.exe, HAL.dll and NDIS.SYS
  client-imports  a client driver's image: it imports the framework's functions
                  from the framework's image by name (each one the public
                  header declares), and otherwise only from the kernel, HAL
                  and NDIS
  exports         its export table, the module-definition file and the
                  NDISFILTER_API declarations of the public header name the
                  same functions
  import-library  lib<driver>.a binds client drivers to <driver>.sys and
                  covers every export
  checksum        the optional-header checksum matches the file
  layout          relocatable, no-execute data, no TLS, unwind data present,
                  no section both writable and executable

The image is read with mingw-w64 objdump (-p, -h, -t, -s); only the checksum
is computed from the file's bytes. Standard library only.
"""

import argparse
import itertools
import os
import re
import subprocess
import sys

REQUIRED_IMPORTS = ("ntoskrnl.exe", "NDIS.SYS")
ALLOWED_IMPORTS = REQUIRED_IMPORTS + ("HAL.dll",)
EXPORT_MACRO = "NDISFILTER_API"
NATIVE_SUBSYSTEM = 1


class CheckFailed(Exception):
    """A check found a defect; the message says what differs."""


# ---------------------------------------------------------------------------
# Parsing objdump output
# ---------------------------------------------------------------------------

def parse_subsystem(dump):
    """Subsystem number from `objdump -p` output."""
    m = re.search(r"^Subsystem\s+([0-9a-fA-F]+)", dump, re.M)
    if not m:
        raise CheckFailed("objdump -p shows no Subsystem field")
    return int(m.group(1), 16)


def parse_imports(dump):
    """{dll name: [function names]} from `objdump -p` output, in file order."""
    imports = {}
    current = None
    for line in dump.splitlines():
        m = re.match(r"^\s*DLL Name:\s*(\S+)", line)
        if m:
            current = imports.setdefault(m.group(1), [])
            continue
        if current is None:
            continue
        # "\t7156\t   66  DbgPrint" (hint/ordinal, then the member name)
        m = re.match(r"^\s+[0-9a-fA-F]+\s+\d+\s+(\S+)\s*$", line)
        if m:
            current.append(m.group(1))
        elif not line.strip() or not line.startswith((" ", "\t")):
            current = None
    return imports


def parse_exports(dump):
    """(module name, [exported names]) from `objdump -p` output."""
    m = re.search(r"^The Export Tables", dump, re.M)
    if not m:
        return None, []
    section = dump[m.end():]
    name = re.search(r"^Name\s+[0-9a-fA-F]+\s+(\S+)", section, re.M)
    table = re.search(r"^\[Ordinal/Name Pointer\] Table[^\n]*\n", section, re.M)
    names = []
    if table:
        for line in section[table.end():].splitlines():
            # "\t[   0] Name", newer binutils: "\t[   0] +base[   1]  1060 Name"
            e = re.match(r"^\s*\[\s*\d+\]\s+(?:\+base\[\s*\d+\]\s+[0-9a-fA-F]+\s+)?(\S+)\s*$", line)
            if not e:
                break
            names.append(e.group(1))
    return (name.group(1) if name else None), names


def parse_data_directory(dump):
    """{entry index: (rva, size)} of the optional header's data directory."""
    entries = {}
    for m in re.finditer(r"^Entry ([0-9a-fA-F])\s+([0-9a-fA-F]+)\s+([0-9a-fA-F]+)", dump, re.M):
        entries[int(m.group(1), 16)] = (int(m.group(2), 16), int(m.group(3), 16))
    return entries


def parse_sections(headers):
    """[(name, set of flags)] from `objdump -h` output."""
    sections = []
    lines = headers.splitlines()
    for i, line in enumerate(lines):
        m = re.match(r"^\s*\d+\s+(\S+)\s+[0-9a-fA-F]+\s+[0-9a-fA-F]+", line)
        if m and i + 1 < len(lines):
            flags = {f.strip() for f in lines[i + 1].split(",") if f.strip()}
            sections.append((m.group(1), flags))
    return sections


def parse_implib_symbols(symbols):
    """Names F for which `objdump -t lib.a` shows an __imp_F symbol."""
    return {m.group(1) for m in re.finditer(r"\s__imp_(\S+)\s*$", symbols, re.M)}


def parse_implib_module_names(contents):
    """Module names an import library stores (its .idata$7 strings), from
    `objdump -s -j .idata$7 lib.a` output."""
    names = set()
    data = bytearray()

    def flush():
        for part in bytes(data).split(b"\0"):
            if part:
                names.add(part.decode("ascii", "replace"))
        data.clear()

    for line in contents.splitlines():
        m = re.match(r"^ [0-9a-fA-F]{4,} ((?:[0-9a-fA-F]{2,8} ){1,4})", line)
        if m:
            data.extend(bytes.fromhex("".join(m.group(1).split())))
        else:
            flush()
    flush()
    return names


# ---------------------------------------------------------------------------
# Parsing sources: the public header and the module-definition file
# ---------------------------------------------------------------------------

def strip_comments(text):
    """C text with comments replaced by a space (string literals kept)."""
    pattern = re.compile(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\])*"|\'(?:\\.|[^\'\\])*\'', re.S)
    return pattern.sub(lambda m: " " if m.group(0).startswith("/") else m.group(0), text)


def drop_preprocessor_lines(text):
    """Text without preprocessor directives (continuation lines included)."""
    out = []
    in_directive = False
    for line in text.splitlines():
        if in_directive or line.lstrip().startswith("#"):
            in_directive = line.rstrip().endswith("\\")
            continue
        out.append(line)
    return "\n".join(out)


def header_exports(text, macro=EXPORT_MACRO):
    """Names declared by `macro ... name(...);` declarations of a header.

    Declarations may span lines. Attribute-like words (starting with "__",
    e.g. __cdecl, __attribute__((...))) are skipped when looking for the
    name. A declaration without a parameter list (exported data) yields the
    last identifier before its ';'."""
    code = drop_preprocessor_lines(strip_comments(text))
    names = []
    for m in re.finditer(r"\b%s\b" % re.escape(macro), code):
        end = code.find(";", m.end())
        if end < 0:
            raise CheckFailed("unterminated %s declaration: %s" % (macro, code[m.start():m.start() + 80]))
        decl = code[m.end():end]
        name = None
        for call in re.finditer(r"([A-Za-z_]\w*)\s*\(", decl):
            if not call.group(1).startswith("__"):
                name = call.group(1)
                break
        if name is None:
            idents = re.findall(r"[A-Za-z_]\w*", decl)
            if not idents:
                raise CheckFailed("cannot find the name in: %s%s" % (macro, decl))
            name = idents[-1]
        names.append(name)
    return names


# Statements of a module-definition file (upper case, at the start of a line).
DEF_KEYWORDS = {"NAME", "LIBRARY", "DESCRIPTION", "STACKSIZE", "HEAPSIZE",
                "CODE", "DATA", "SECTIONS", "EXPORTS", "IMPORTS", "VERSION"}


def def_exports(text):
    """(LIBRARY name or None, [export names]) of a module-definition file.

    An alias line `ntohs=htons` exports `ntohs`; ordinals and the NONAME,
    PRIVATE, DATA, CONSTANT keywords are ignored."""
    library = None
    names = []
    in_exports = False
    for raw in text.splitlines():
        line = raw.split(";", 1)[0].strip()
        if not line:
            continue
        word = line.split()[0]
        if word in DEF_KEYWORDS:
            rest = line[len(word):].strip()
            if word in ("LIBRARY", "NAME") and rest:
                library = rest.split()[0].strip('"')
            in_exports = word == "EXPORTS"
            if not (in_exports and rest):
                continue
            line = rest
        if in_exports:
            m = re.match(r'"?([A-Za-z_?@$][\w?@$]*)', line)
            if not m:
                raise CheckFailed("unreadable export line in the .def file: %r" % raw)
            names.append(m.group(1))
    return library, names


def duplicates(names):
    seen, dups = set(), set()
    for n in names:
        (dups if n in seen else seen).add(n)
    return sorted(dups)


# ---------------------------------------------------------------------------
# PE checksum
# ---------------------------------------------------------------------------

def pe_checksum(data):
    """(stored, computed) optional-header checksum of a PE image's bytes."""
    if len(data) < 0x40 or data[:2] != b"MZ":
        raise CheckFailed("not a PE image (no MZ header)")
    pe = int.from_bytes(data[0x3C:0x40], "little")
    if data[pe:pe + 4] != b"PE\0\0":
        raise CheckFailed("not a PE image (no PE signature)")
    field = pe + 4 + 20 + 64  # signature, file header, optional header offset 64
    stored = int.from_bytes(data[field:field + 4], "little")
    padded = data + (b"\0" if len(data) % 2 else b"")
    total = 0
    for off in range(0, len(padded), 2):
        if field <= off < field + 4:
            continue
        total += padded[off] | (padded[off + 1] << 8)
        total = (total & 0xFFFF) + (total >> 16)
    total = (total & 0xFFFF) + (total >> 16)
    return stored, (total + len(data)) & 0xFFFFFFFF


# ---------------------------------------------------------------------------
# The checks
# ---------------------------------------------------------------------------

def same_names(a, b):
    return a.lower() == b.lower()


def check_subsystem(dump):
    sub = parse_subsystem(dump)
    if sub != NATIVE_SUBSYSTEM:
        raise CheckFailed("subsystem is %d, a kernel driver image needs %d (native): "
                          "link with --subsystem,native" % (sub, NATIVE_SUBSYSTEM))


def check_imports(dump):
    imports = parse_imports(dump)
    problems = []
    for dll, funcs in imports.items():
        if not any(same_names(dll, ok) for ok in ALLOWED_IMPORTS):
            problems.append("imports from %s, which a driver cannot use: %s"
                            % (dll, ", ".join(funcs) or "(no names)"))
    for dll in REQUIRED_IMPORTS:
        if not any(same_names(dll, have) for have in imports):
            problems.append("does not import from %s" % dll)
    if problems:
        raise CheckFailed("; ".join(problems) + " (allowed: %s)" % ", ".join(ALLOWED_IMPORTS))


def check_client_imports(dump, header_text, framework):
    imports = parse_imports(dump)
    declared = set(header_exports(header_text))
    allowed = ALLOWED_IMPORTS + (framework,)
    problems = []
    for dll, funcs in imports.items():
        if not any(same_names(dll, ok) for ok in allowed):
            problems.append("imports from %s: %s" % (dll, ", ".join(funcs) or "(no names)"))
    from_framework = [funcs for dll, funcs in imports.items() if same_names(dll, framework)]
    if not from_framework or not from_framework[0]:
        problems.append("imports no function from %s by name" % framework)
    else:
        unknown = sorted(set(from_framework[0]) - declared)
        if unknown:
            problems.append("imports from %s what it does not export: %s" % (framework, ", ".join(unknown)))
    if problems:
        raise CheckFailed("; ".join(problems) + " (allowed: %s)" % ", ".join(allowed))


def check_exports(dump, image_name, header_text, header_name, def_text, def_name):
    header = header_exports(header_text)
    library, listed = def_exports(def_text)
    module, exported = parse_exports(dump)
    problems = []
    for what, names in ((header_name, header), (def_name, listed)):
        if duplicates(names):
            problems.append("%s names twice: %s" % (what, ", ".join(duplicates(names))))
    if library is not None and not same_names(library, image_name):
        problems.append("%s says LIBRARY %s, the image is %s" % (def_name, library, image_name))
    if module is None:
        problems.append("%s has no export table" % image_name)
    elif not same_names(module, image_name):
        problems.append("%s's export table calls the module %s" % (image_name, module))

    sources = (("%s (%s declarations)" % (header_name, EXPORT_MACRO), set(header)),
               (def_name, set(listed)),
               ("%s's export table" % image_name, set(exported)))
    for (a_name, a), (b_name, b) in itertools.combinations(sources, 2):
        for only, in_name, not_name in ((a - b, a_name, b_name), (b - a, b_name, a_name)):
            if only:
                problems.append("in %s, not in %s: %s" % (in_name, not_name, ", ".join(sorted(only))))
    if problems:
        raise CheckFailed("the export lists differ:\n  " + "\n  ".join(problems))
    if not exported:
        raise CheckFailed("%s exports nothing" % image_name)


def check_import_library(implib_symbols, implib_contents, image_name, implib_name, def_text, def_name):
    _, listed = def_exports(def_text)
    have = parse_implib_symbols(implib_symbols)
    problems = []
    missing = sorted(set(listed) - have)
    if missing:
        problems.append("%s lacks import entries for: %s" % (implib_name, ", ".join(missing)))
    extra = sorted(have - set(listed))
    if extra:
        problems.append("%s has import entries %s does not list: %s" % (implib_name, def_name, ", ".join(extra)))
    modules = parse_implib_module_names(implib_contents)
    wrong = sorted(m for m in modules if not same_names(m, image_name))
    if not modules:
        problems.append("%s names no module" % implib_name)
    elif wrong:
        problems.append("%s binds clients to %s instead of %s" % (implib_name, ", ".join(wrong), image_name))
    if problems:
        raise CheckFailed("; ".join(problems))


def check_checksum(data, image_name):
    stored, computed = pe_checksum(data)
    if stored != computed:
        raise CheckFailed("%s's checksum is %08x, its contents sum to %08x; the kernel "
                          "refuses boot drivers with a wrong checksum" % (image_name, stored, computed))


IMAGE_DIRECTORY_EXCEPTION = 3
IMAGE_DIRECTORY_BASERELOC = 5
IMAGE_DIRECTORY_TLS = 9


def check_layout(dump, headers):
    problems = []
    if "DYNAMIC_BASE" not in dump:
        problems.append("not marked DYNAMIC_BASE (link with --dynamicbase)")
    if "NX_COMPAT" not in dump:
        problems.append("not marked NX_COMPAT (link with --nxcompat)")
    if re.search(r"^\s*relocations stripped", dump, re.M):
        problems.append("base relocations are stripped; the kernel loads drivers at any address")
    directory = parse_data_directory(dump)
    if not directory:
        problems.append("objdump -p shows no data directory")
    else:
        if directory.get(IMAGE_DIRECTORY_TLS, (0, 0))[1]:
            problems.append("has a TLS directory (thread-local variables); the kernel does not load those")
        if not directory.get(IMAGE_DIRECTORY_EXCEPTION, (0, 0))[1]:
            problems.append("has no exception directory (.pdata); the fault guard needs unwind data")
    for name, flags in parse_sections(headers):
        if "CODE" in flags and "READONLY" not in flags:
            problems.append("section %s is both writable and executable" % name)
    if problems:
        raise CheckFailed("; ".join(problems))


# ---------------------------------------------------------------------------
# Command line
# ---------------------------------------------------------------------------

CHECKS = ("subsystem", "imports", "client-imports", "exports", "import-library", "checksum", "layout")


def objdump(tool, *args):
    result = subprocess.run([tool] + list(args), stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                            universal_newlines=True)
    if result.returncode != 0:
        raise CheckFailed("%s %s failed: %s" % (tool, " ".join(args), result.stderr.strip()))
    return result.stdout


def read_text(path):
    with open(path, encoding="utf-8") as f:
        return f.read()


def run(args, check):
    image_name = os.path.basename(args.image)
    if not os.path.isfile(args.image):
        raise CheckFailed("%s does not exist; build the Windows image first" % args.image)
    dump = objdump(args.objdump, "-p", args.image)
    if check == "subsystem":
        check_subsystem(dump)
    elif check == "imports":
        check_imports(dump)
    elif check == "client-imports":
        check_client_imports(dump, "\n".join(read_text(h) for h in args.header), args.framework)
    elif check == "exports":
        # The image's exports may be declared over several public headers.
        check_exports(dump, image_name, "\n".join(read_text(h) for h in args.header),
                      " + ".join(os.path.basename(h) for h in args.header),
                      read_text(args.def_file), os.path.basename(args.def_file))
    elif check == "import-library":
        if not os.path.isfile(args.implib):
            raise CheckFailed("%s does not exist" % args.implib)
        check_import_library(objdump(args.objdump, "-t", args.implib),
                             objdump(args.objdump, "-s", "-j", ".idata$7", args.implib),
                             image_name, os.path.basename(args.implib),
                             read_text(args.def_file), os.path.basename(args.def_file))
    elif check == "checksum":
        with open(args.image, "rb") as f:
            check_checksum(f.read(), image_name)
    elif check == "layout":
        check_layout(dump, objdump(args.objdump, "-h", args.image))


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--objdump", default="x86_64-w64-mingw32-objdump")
    parser.add_argument("--image", required=True, help="the driver image (.sys)")
    parser.add_argument("--header", action="append",
                        help="public header with exported declarations (repeatable)")
    parser.add_argument("--def", dest="def_file", help="module-definition file")
    parser.add_argument("--implib", help="import library for client drivers")
    parser.add_argument("--framework", default="ndisfilter.sys", help="the framework's image name (client-imports)")
    parser.add_argument("checks", nargs="+", choices=CHECKS)
    args = parser.parse_args(argv)
    needs = {"exports": ("header", "def_file"), "client-imports": ("header",), "import-library": ("implib", "def_file")}
    for check in args.checks:
        for option in needs.get(check, ()):
            if not getattr(args, option):
                parser.error("%s needs --%s" % (check, option.replace("_file", "")))

    failed = False
    for check in args.checks:
        try:
            run(args, check)
            print("%s: ok" % check)
        except CheckFailed as e:
            print("%s: FAILED: %s" % (check, e))
            failed = True
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
