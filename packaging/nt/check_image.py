#!/usr/bin/env python3
"""Checks a kernel image before it may be shipped, and prints a short report.

    check_image.py IMAGE [--allow FILE]

Unwind data is checked over the code itself, not over symbols: each byte of an executable section belongs to a function
with an entry in .pdata, or to code that provably leaves the stack alone and may therefore be unwound as a leaf. So are the reads of
imported data: each is as deep as the list of allowed imports says. So are the registers: a driver keeps off those that the
platform does not save for it.
"""
import argparse
import pathlib
import re
import subprocess
import sys

import data_imports
import pe

# x87, MMX, AVX and mask registers: a driver that uses them must save the interrupted thread's first.
UNSAVED_REGISTER = re.compile(r"%(st\b|mm[0-7]\b|[yz]mm\d|k[0-7]\b)|^(f(ld|st|ist|ild|in|n|add|sub|mul|div|com|xch|wait)|emms|v[a-z]+ )")
# What a leaf must not do: move the stack pointer, or call.
NOT_A_LEAF = re.compile(r"^(push|pop|call|enter|leave)|,\s*%(rsp|esp)$")
INSTRUCTION = re.compile(r"^\s*([0-9a-f]+):\s+(\S.*?)\s*(#.*)?$")
REFERENCE = re.compile(r"# 0x([0-9a-f]+)|\bj\w+\s+0x([0-9a-f]+)")


def allowed_imports(path):
    """Names, each with the loads that reach what is wanted of a variable; 1 for a routine."""
    lines = (line.split("#")[0].split() for line in path.read_text().splitlines())
    return {line[0]: int(line[2]) if line[1:2] == ["data"] else 1 for line in lines if line}


def check_header(image):
    if image.machine != pe.MACHINE_AMD64:
        yield f"machine is {image.machine:#x}, not x86-64"
    if image.subsystem != pe.SUBSYSTEM_NATIVE:
        yield f"subsystem is {image.subsystem}, not native"
    if image.section_at(image.entry) is None:
        yield "no entry point"
    if not image.dll_characteristics & pe.NX_COMPAT:
        yield "not marked for no-execute data"
    if image.checksum != image.computed_checksum():
        yield f"checksum is {image.checksum:#x}, should be {image.computed_checksum():#x}"
    for section in image.sections:
        if section.flags & pe.SECTION_EXECUTE and section.flags & pe.SECTION_WRITE:
            yield f"section {section.name} is writable and executable"
        if section.name.startswith("PAGE") or section.flags & pe.SECTION_DISCARDABLE and section.flags & pe.SECTION_EXECUTE:
            yield f"section {section.name} may be paged out, and nothing says which of its code runs above APC_LEVEL"


def check_relocations(image):
    if not image.dll_characteristics & pe.DYNAMIC_BASE or image.characteristics & pe.RELOCS_STRIPPED:
        yield "cannot be loaded at another address"
    if not image.directories[pe.RELOCATIONS][1]:
        yield "no relocations"


def check_imports(image, allowed):
    for module, name in image.imports():
        if module.lower() != "ntoskrnl.exe":
            yield f"imports {name} from {module}"
        elif name not in allowed:
            yield f"imports {name}, which is not on the list of allowed imports"


def check_pdb(image, path):
    name = image.pdb_path()
    if name is None:
        yield "names no PDB"
    elif name != pathlib.Path(path).with_suffix(".pdb").name:
        yield f"names its PDB {name!r}, not by the bare name beside the image"


def check_unwind_entries(image, functions):
    if not functions:
        yield "no unwind data"
    last = 0
    for function in functions:
        section = image.section_at(function.begin)
        if function.begin < last or function.end <= function.begin:
            yield f"unwind entries out of order at {function.begin:#x}"
        if section is None or not section.flags & pe.SECTION_EXECUTE:
            yield f"unwind entry for {function.begin:#x}, which is no code"
        if image.unwind_version_and_flags(function)[0] not in (1, 2):
            yield f"unwind data of {function.begin:#x} is damaged"
        last = function.end


def uncovered_ranges(image, functions):
    for section in image.sections:
        if not section.flags & pe.SECTION_EXECUTE:
            continue
        position = section.rva
        end = section.rva + section.size
        for function in functions:
            if section.rva <= function.begin < end:
                if function.begin > position:
                    yield position, function.begin
                position = max(position, function.end)
        if position < end:
            yield position, end


def parse(listing, base):
    """The instructions of a listing; addresses become relative to the base."""
    for line in listing.splitlines():
        if match := INSTRUCTION.match(line):
            reference = REFERENCE.search(line)
            refers = int(reference[1] or reference[2], 16) - base if reference else None
            yield data_imports.Instruction(int(match[1], 16) - base, re.sub(r"\s+", " ", match[2]), refers)


def disassembly(image, path):
    for tool in ("llvm-objdump", "llvm-objdump-14", "llvm-objdump-15", "llvm-objdump-16"):
        try:
            output = subprocess.run([tool, "-d", "--no-show-raw-insn", str(path)], check=True, text=True,
                                    capture_output=True).stdout
            break
        except FileNotFoundError:
            continue
    else:
        raise SystemExit("llvm-objdump is not installed")
    return parse(output, image.base)


def by_function(instructions, functions):
    starts = {function.begin for function in functions}
    group = []
    for instruction in instructions:
        if instruction.address in starts and group:
            yield group
            group = []
        group.append(instruction)
    yield group


def check_data(loads, imported, allowed):
    for name in sorted(imported):
        wanted = allowed.get(name, 1)
        if wanted > 1 and not loads.get(name):
            yield f"imports {name}, but nothing shows how it is read"
        for address, count in sorted(loads.get(name, {}).items()):
            if count != wanted:
                yield f"reads {name} by {count} loads at {address:#x}, not by {wanted}"


def check_leaves(image, instructions, functions):
    ranges = list(uncovered_ranges(image, functions))
    position = 0
    for address, text, _ in instructions:
        while position < len(ranges) and ranges[position][1] <= address:
            position += 1
        if position == len(ranges):
            return
        if address >= ranges[position][0] and NOT_A_LEAF.search(text):
            yield f"code at {address:#x} has no unwind data but uses the stack: {text}"


def check_registers(instructions):
    for address, text, _ in instructions:
        if UNSAVED_REGISTER.search(text):
            yield f"code at {address:#x} uses a register that the platform does not save for a driver: {text}"


def report(image, path, functions, loads, allowed):
    imports = sorted({name for _, name in image.imports()})
    handlers = sum(1 for f in functions if image.unwind_version_and_flags(f)[1] & pe.UNWIND_HANDLERS)
    print(f"{path.name}: {len(image.data)} bytes, {len(functions)} functions with unwind data, {handlers} with a handler,"
          f" {len(imports)} imports, PDB {image.pdb_path()}")
    for name in imports:
        sites = loads.get(name, {})
        deep = allowed.get(name, 1) > 1 or max(sites.values(), default=0) > 1
        print(f"    {name}" + (f" (data, read {len(sites)} times, loads: {sorted(set(sites.values()))})" if deep else ""))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("image", type=pathlib.Path)
    parser.add_argument("--allow", type=pathlib.Path, default=pathlib.Path(__file__).with_name("imports.allow"),
                        help="what may be imported, one a line (default: %(default)s)")
    arguments = parser.parse_args()

    image = pe.Image(arguments.image)
    functions = image.runtime_functions()
    allowed = allowed_imports(arguments.allow)
    slots = dict(image.import_slots())
    instructions = list(disassembly(image, arguments.image))
    loads = data_imports.loads_of_slots(by_function(instructions, functions), slots)
    report(image, arguments.image, functions, loads, allowed)
    complaints = [
        *check_header(image),
        *check_relocations(image),
        *check_imports(image, allowed),
        *check_data(loads, slots.values(), allowed),
        *check_pdb(image, arguments.image),
        *check_unwind_entries(image, functions),
        *check_leaves(image, instructions, functions),
        *check_registers(instructions),
    ]
    for complaint in complaints:
        print(f"{arguments.image.name}: {complaint}", file=sys.stderr)
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
