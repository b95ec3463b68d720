#!/usr/bin/env python3
"""The image check must refuse a read of imported data that is a level too deep, or too shallow, however it is compiled."""
import unittest

import check_image
import data_imports

SLOTS = {0x9000: "PsThreadType", 0x9008: "SeExports", 0x9010: "ZwClose"}
ALLOWED = {"PsThreadType": 2, "SeExports": 3, "ZwClose": 1}

# What the code does, the code from 0x1000 on, and what is said of it.
CASES = [
    ("reads the variable",
     ["movq 8(%rip), %rax # 0x9000", "movq (%rax), %r8", "callq *24(%rip) # 0x9010"], []),
    ("takes the variable for a pointer to it",
     ["movq 8(%rip), %rax # 0x9000", "movq (%rax), %rax", "movq (%rax), %r8", "callq *24(%rip) # 0x9010"],
     ["reads PsThreadType by 3 loads at 0x1000, not by 2"]),
    ("takes the variable's address for the variable",
     ["movq 8(%rip), %r8 # 0x9000", "callq *24(%rip) # 0x9010"],
     ["reads PsThreadType by 1 loads at 0x1000, not by 2"]),
    ("goes a level too deep on one of two ways that meet, through the stack",
     ["movq 8(%rip), %rbx # 0x9000", "testl %ecx, %ecx", "je 0x1006", "movq (%rbx), %rbx", "movq %rbx, 32(%rsp)",
      "jmp 0x1007", "movq %rbx, 32(%rsp)", "callq 0x2000", "movq 32(%rsp), %rdx", "leaq 8(%rdx), %rdx",
      "cmpl $0, (%rdx,%rcx,4)", "movq %rcx, (%rdx)"],
     ["reads PsThreadType by 3 loads at 0x1000, not by 2"]),
    ("reads the members of a table in a loop",
     ["movq 8(%rip), %rax # 0x9008", "movq (%rax), %rdi", "addq $8, %rdi", "movq -8(%rdi), %rcx", "jne 0x1002"],
     []),
    ("calls what it has not read, and reads elsewhere with the same registers",
     ["movq 8(%rip), %rax # 0x9000", "movq (%rax), %r8", "callq *%r13", "movq (%rax), %rax", "movq (%rax), %rax",
      "xorl %r8d, %r8d", "movq (%r8), %rax", "movq 8(%rip), %r13 # 0x9010", "callq *%r13"], []),
    ("reads a routine's code",
     ["movq 8(%rip), %rax # 0x9010", "movb (%rax), %al"], ["reads ZwClose by 2 loads at 0x1000, not by 1"]),
]


class DataImports(unittest.TestCase):
    def test_reads_are_as_deep_as_the_list_says(self):
        for what, code, complaints in CASES:
            with self.subTest(what):
                listing = "\n".join(f"{0x1000 + at:x}: {text}" for at, text in enumerate(code))
                instructions = list(check_image.parse(listing, 0))
                loads = data_imports.loads_of_slots([instructions], SLOTS)
                self.assertEqual(list(check_image.check_data(loads, list(loads), ALLOWED)), complaints)

    def test_a_variable_that_nobody_is_seen_to_read_is_refused(self):
        self.assertEqual(list(check_image.check_data({}, ["PsThreadType"], ALLOWED)),
                         ["imports PsThreadType, but nothing shows how it is read"])

    def test_registers_that_nobody_saves_are_refused(self):
        text = ["movaps %xmm0, 32(%rsp)", "movq %rax, %rcx", "verw %ax", "fxsave64 (%rax)",
                "vmovdqu (%rcx), %ymm0", "movq %rax, %mm1", "fldl (%rcx)", "fstp %st(1)", "vzeroupper ", "kmovw %eax, %k1"]
        listing = "\n".join(f"{0x1000 + at:x}: {line}" for at, line in enumerate(text))
        complaints = list(check_image.check_registers(check_image.parse(listing, 0)))
        self.assertEqual(len(complaints), 6, complaints)


if __name__ == "__main__":
    unittest.main()
