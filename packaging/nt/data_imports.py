"""How deep an image's code reads into what it imports.

The slot of an imported variable holds the variable's address: the first load gives that, the second the variable, the
third what a pointer in it leads to. Headers that declare one pointer too many make code that compiles, and that reads a
level too deep on the real kernel; only the instructions show it.

Each function is followed along its branches. A location (a register or a stack slot) holds a set of (slot, loads): what
has been read from which slot, by how many loads. It is a set because branches meet.
"""
import collections
import re

MEMORY = re.compile(r"^\*?(?:%\w+:)?(-?\d*)\((%\w+)?(?:,(%\w+))?(?:,\d)?\)$")
VOLATILE = ("rax", "rcx", "rdx", "r8", "r9", "r10", "r11")
ENDS = re.compile(r"^(jmp|ret|int3|ud2|hlt)")
KEEPS_TARGET = re.compile(r"^(add|sub|cmov)")
ONLY_READS = re.compile(r"^(cmp|test|push|bt[qlw]?$|nop|j|prefetch)")
COPIES = re.compile(r"^(mov(abs|[sz][bwl][wlq]|s[lw]?q)?[bwlq]?|cmov\w+)$")

# What an instruction refers to is the address it jumps to or reads from by name, or None.
Instruction = collections.namedtuple("Instruction", "address text refers")


def register_names():
    for name in ("ax", "bx", "cx", "dx"):
        yield from ((alias, "r" + name) for alias in ("r" + name, "e" + name, name, name[0] + "l", name[0] + "h"))
    for name in ("si", "di", "bp", "sp"):
        yield from ((alias, "r" + name) for alias in ("r" + name, "e" + name, name, name + "l"))
    for number in range(8, 16):
        yield from ((f"r{number}{size}", f"r{number}") for size in ("", "d", "w", "b"))


REGISTERS = {"%" + alias: name for alias, name in register_names()}


def split(text):
    """Mnemonic and operands."""
    mnemonic, _, rest = text.partition(" ")
    return mnemonic, [part.strip() for part in re.split(r",(?![^(]*\))", rest)] if rest else []


class Function:
    """The loads of one function; slots maps an address of the import table to a name."""

    def __init__(self, instructions, slots):
        self.instructions = instructions
        self.slots = slots
        self.index = {instruction.address: i for i, instruction in enumerate(instructions)}
        self.depth = {}  # (address of the slot's load, name) -> loads

    def follow(self):
        states = [{} for _ in self.instructions]
        work = set(range(len(states)))
        while work:
            at = work.pop()
            state = self._step(self.instructions[at], states[at])
            for after in self._successors(at):
                merged = {place: states[after].get(place, frozenset()) | held for place, held in state.items()}
                if any(held != states[after].get(place) for place, held in merged.items()):
                    states[after].update(merged)
                    work.add(after)
        return self

    def _successors(self, at):
        mnemonic, _ = split(self.instructions[at].text)
        target = self.index.get(self.instructions[at].refers)
        if mnemonic.startswith("j") and target is not None:
            yield target
        if not ENDS.match(mnemonic) and at + 1 < len(self.instructions):
            yield at + 1

    def _slot(self, instruction, operand):
        return self.slots.get(instruction.refers) if "(%rip)" in operand else None

    def _read(self, instruction, operand, state):
        """What reading the operand gives; reading through something deepens it."""
        if operand in REGISTERS:
            return state.get(REGISTERS[operand], frozenset())
        memory = MEMORY.match(operand)
        if not memory:
            return frozenset()
        if name := self._slot(instruction, operand):
            self._note(instruction.address, name, 1)
            return frozenset({((instruction.address, name), 1)})
        if memory[2] == "%rsp" and not memory[3]:
            return state.get("stack" + memory[1], frozenset())
        found = self._address(operand, state)
        for (address, name), loads in found:
            self._note(address, name, loads + 1)
        return frozenset((origin, loads + 1) for origin, loads in found)

    def _address(self, operand, state):
        memory = MEMORY.match(operand)
        parts = [state.get(REGISTERS.get(part), frozenset()) for part in memory.groups()[1:] if part] if memory else []
        return frozenset().union(*parts)

    def _note(self, address, name, loads):
        # A loop that follows a list would never end; nobody cares beyond a handful.
        self.depth[address, name] = min(max(self.depth.get((address, name), 0), loads), 9)

    def _step(self, instruction, state):
        mnemonic, operands = split(instruction.text)
        if mnemonic.startswith("call") or mnemonic == "jmpq":
            self._read(instruction, operands[0].lstrip("*"), state)
            return {place: held for place, held in state.items() if place not in VOLATILE}
        if not operands:
            return state
        if mnemonic.startswith("lea"):
            value = self._address(operands[0], state)
        else:
            read = [self._read(instruction, operand, state) for operand in operands]
            value = read[0] if COPIES.match(mnemonic) else frozenset()
            if KEEPS_TARGET.match(mnemonic):
                value |= read[-1]
        if ONLY_READS.match(mnemonic):
            return state
        value = frozenset(item for item in value if item[1] < 9)
        target = operands[-1]
        memory = MEMORY.match(target)
        if target in REGISTERS:
            place = REGISTERS[target]
        elif memory and memory[2] == "%rsp" and not memory[3]:
            place = "stack" + memory[1]
        else:
            return state
        after = {other: held for other, held in state.items() if other != place}
        if value:
            after[place] = value
        return after


def loads_of_slots(functions, slots):
    """For each name that is read as data: addresses of its slot's loads, each with the number of loads in a row. The slot
    of a routine is loaded and called, or kept; that is one load and no data."""
    found = collections.defaultdict(dict)
    for instructions in functions:
        if not any(instruction.refers in slots for instruction in instructions):
            continue
        function = Function(instructions, slots).follow()
        for (address, name), loads in function.depth.items():
            found[name][address] = loads
    return found
