#!/usr/bin/env python3
"""Proves from the compiled engine what the device's thread can come to.

    scripts/check-realtime.py --sources SRC [--objdump objdump] [--list] ARCHIVE...

Takes the call graph out of the archives, relocation by relocation, from
VorrelManager::AudioDevice_IOProc on. Fails when something outside of the engine can be reached that
scripts/realtime-allowed.txt does not give a reason for, when a function of the engine can be
reached that is not marked VORREL_REALTIME, and when a call goes through a pointer from a function
that the same list does not name. An address that is taken counts as a call, and so do all that a
table points to whose address is taken.
"""
import argparse
import bisect
import collections
import pathlib
import re
import subprocess
import sys

ROOT = re.compile(r"^vorrel::VorrelManager::AudioDevice_IOProc\(")
DATA_SECTIONS = (".data", ".rodata", ".bss", ".tbss", ".tdata", ".lrodata")
# Bookkeeping of the unwinder that no code comes by.
IGNORED = re.compile(r"^(DW\.ref\.__gxx_personality_v0|__gxx_personality_v0|_GLOBAL_OFFSET_TABLE_|\.L.*)$")


class Object:
    """One object file: where its symbols lie and what every symbol refers to."""

    def __init__(self, name):
        self.name = name
        self.symbols = collections.defaultdict(list)  # section -> [(offset, size, name, is global, is function)]
        self.relocations = []                         # (section, offset, target, addend, field bytes)
        self.jumps = []                               # (section, offset, section offset)
        self.indirect = []                            # (section, offset)
        self.instructions = {}                        # section -> [offset]


def read(archive, objdump):
    """The objects of an archive."""
    lines = []
    for options in (["-t", "-r"], ["-d"]):  # in one go, the relocations would stand amid the code
        lines += subprocess.run([objdump, *options, "-w", "--no-show-raw-insn", archive], check=True,
                                capture_output=True, text=True).stdout.splitlines()
    files = [line for line in lines if re.match(r"\S.*:\s+file format", line)]
    objects = [Object(f"{pathlib.Path(archive).name}({number})") for number in range(len(files) // 2)]
    number, mode, before = -1, None, collections.deque(maxlen=4)
    for line in lines:
        if re.match(r"\S.*:\s+file format", line):
            number += 1  # each comes twice; several may be of one name
            current, mode = objects[number % len(objects)], None
        elif line.startswith("SYMBOL TABLE"):
            mode = "symbols"
        elif match := re.match(r"RELOCATION RECORDS FOR \[(.*)\]", line):
            mode, section = "relocations", match.group(1)
        elif match := re.match(r"Disassembly of section (.*):", line):
            mode, section = "code", match.group(1)
        elif mode == "symbols":
            if match := re.match(r"([0-9a-f]+) (.{7}) (\S+)\t([0-9a-f]+)\s+(?:\.hidden |\.internal |\.protected )?(.*)$", line):
                value, flags, where, size, name = match.groups()
                if where not in ("*UND*", "*ABS*") and flags[5] != "d" and flags[6] != "f":
                    current.symbols[where].append((int(value, 16), int(size, 16), name, flags[0] in "gu!" or flags[1] == "w",
                                                   flags[6] == "F"))
        elif mode == "relocations":
            if match := re.match(r"([0-9a-f]+)\s+(R_\S+)\s+(.+?)(?:([+-])0x([0-9a-f]+))?$", line):
                offset, kind, target, sign, addend = match.groups()
                distance = int(addend or "0", 16)
                # Relative to the end of a 4-byte field, where it is to be followed as an address.
                current.relocations.append((section, int(offset, 16), target, -distance if sign == "-" else distance,
                                            4 if "PC32" in kind or "PLT32" in kind else 0))
        elif mode == "code":
            before.append(line)
            if match := re.match(r"\s*([0-9a-f]+):\s", line):
                current.instructions.setdefault(section, []).append(int(match.group(1), 16))
            if match := re.match(r"\s*([0-9a-f]+):\s+(?:[a-z0-9.]+ )*?(call|jmp|j[a-z]+)\s+(.*)$", line):
                offset, mnemonic, operand = int(match.group(1), 16), match.group(2), match.group(3)
                if operand.startswith("*"):
                    # A switch jumps by a table of its own; a call through the table of addresses
                    # has a relocation that names its target.
                    by_table = mnemonic == "jmp" and any("movslq" in earlier or "notrack" in earlier for earlier in before)
                    if not by_table and "(%rip)" not in operand:
                        current.indirect.append((section, offset))
                elif destination := re.match(r"([0-9a-f]+) ", operand):
                    current.jumps.append((section, offset, int(destination.group(1), 16)))
    for symbols in sum((list(o.symbols.values()) for o in objects), []):
        symbols.sort()
    return objects


def covering(item, section, offset):
    """The symbol that an offset of a section belongs to."""
    best = None
    for value, size, name, is_global, is_function in item.symbols.get(section, ()):
        if value <= offset < value + max(size, 1):
            if best is None or is_function >= best[2]:
                best = (name, is_global, is_function)
    return best


def node_of(item, name, is_global):
    return ("", name) if is_global else (item.name, name)


def graph(objects):
    """edges: node -> nodes it refers to; a node is (object or "", symbol). Also the nodes that are defined."""
    edges, defined, indirect = collections.defaultdict(set), {}, collections.defaultdict(int)
    for item in objects:
        local = {}
        for section, symbols in item.symbols.items():
            for value, size, name, is_global, is_function in symbols:
                node = node_of(item, name, is_global)
                defined.setdefault(node, is_function)
                local[name] = node

        def source(section, offset):
            symbol = covering(item, section, offset)
            return node_of(item, symbol[0], symbol[1]) if symbol else (item.name, f"section {section}")

        def target(name, addend, field):
            if name in local:
                return local[name]
            if name.startswith("."):  # a section: the address says which symbol
                symbol = covering(item, name, addend + field) or covering(item, name, addend)
                if symbol:
                    return node_of(item, symbol[0], symbol[1])
                node = (item.name, f"section {name}")
                defined[node] = False
                return node
            return ("", name)

        for section, offset, name, addend, field in item.relocations:
            if section.startswith((".debug", ".eh_frame", ".gcc_except", ".rela")):
                continue
            edges[source(section, offset)].add(target(name, addend, field))
        relocated = {}
        for section, offset, *_ in item.relocations:
            relocated.setdefault(section, set()).add(offset)
        for section, offset, destination in item.jumps:
            instructions = item.instructions[section]
            index = bisect.bisect_right(instructions, offset)
            end = instructions[index] if index < len(instructions) else offset + 16
            if relocated.get(section, set()).intersection(range(offset, end)):
                continue  # not yet linked: the relocation names the target
            symbol = covering(item, section, destination)
            if symbol:
                edges[source(section, offset)].add(node_of(item, symbol[0], symbol[1]))
        for section, offset in item.indirect:
            indirect[source(section, offset)] += 1
    return edges, defined, indirect


def demangle(names):
    names = list(names)
    out = subprocess.run(["c++filt"], input="\n".join(names), capture_output=True, text=True, check=True).stdout
    return dict(zip(names, out.splitlines()))


def marked(sources):
    """The names of the functions that carry VORREL_REALTIME."""
    names = set()
    for path in list(pathlib.Path(sources).rglob("*.h")) + list(pathlib.Path(sources).rglob("*.cpp")):
        for match in re.finditer(r"\bVORREL_REALTIME\b(?! *\n? *#)([^;{]*?)(\w+)\s*\(", path.read_text()):
            names.add(match.group(2))
    return names


def allowed_list(path):
    entries = []
    for line in path.read_text().splitlines():
        if line.strip() and not line.startswith("#"):
            kind, callee, caller, reason = (part.strip() for part in line.split(" | "))
            entries.append((kind, re.compile(callee), re.compile(caller), reason))
    return entries


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--sources", required=True)
    parser.add_argument("--objdump", default="objdump")
    parser.add_argument("--list", action="store_true", help="print all that can be reached")
    parser.add_argument("archives", nargs="+")
    arguments = parser.parse_args()

    objects = [item for archive in arguments.archives for item in read(archive, arguments.objdump)]
    edges, defined, indirect = graph(objects)
    names = demangle({name for _, name in set(defined) | {n for targets in edges.values() for n in targets}})
    roots = [node for node in defined if ROOT.match(names[node[1]])]
    if not roots:
        print("AudioDevice_IOProc is not in the archives")
        return 1

    real_time = marked(arguments.sources)
    allowed = allowed_list(pathlib.Path(__file__).with_name("realtime-allowed.txt"))
    failures, reached, from_, used = [], list(roots), dict.fromkeys(roots), set()

    def allow(kind, callee, caller):
        for number, (entry_kind, callee_pattern, caller_pattern, _) in enumerate(allowed):
            if entry_kind == kind and callee_pattern.search(callee) and caller_pattern.search(caller):
                used.add(number)
                return True
        return False

    for node in reached:
        caller = names[node[1]]
        if defined.get(node) and indirect.get(node) and not allow("pointer", "*", caller):
            failures.append(f"{caller} calls through a pointer")
        for target in sorted(edges.get(node, ())):
            callee = names[target[1]]
            if target in from_ or IGNORED.match(target[1]):
                continue
            if target not in defined:
                if not allow("outside", callee, caller):
                    failures.append(f"{caller}\n        reaches {callee}")
                continue
            if allow("stop", callee, caller):
                continue
            from_[target] = node
            reached.append(target)
            if defined[target] and callee.startswith("vorrel::") and not re.search(r"\{lambda|\[clone", callee):
                plain = re.sub(r"<.*>", "", callee.replace("(anonymous namespace)", ""))
                bare = re.sub(r"\(.*", "", plain).split("::")[-1]
                if bare not in real_time and not allow("unmarked", callee, caller):
                    failures.append(f"{callee}, which {caller} reaches, is not marked VORREL_REALTIME")
    if arguments.list:
        for node in reached:
            if defined.get(node):
                print(names[node[1]], "through a pointer" if indirect.get(node) else "")
                for target in sorted(edges.get(node, ())):
                    if target not in defined and not IGNORED.match(target[1]):
                        print("       ", names[target[1]])
    functions = sum(bool(defined.get(node)) for node in reached)
    print(f"{functions} functions can be reached, {len(used)} of {len(allowed)} reasons are used, {len(failures)} failures")
    for failure in failures:
        print("    " + failure)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
