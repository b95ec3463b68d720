#!/usr/bin/env python3
"""Prints, as a registry file, what the services section of an INF would put into the registry: for a system that is not
running, whose hive is at hand, and to see what an INF amounts to.

    inf_to_reg.py [--control-set N] INF

The images have to be copied to System32\\drivers besides. hivexregedit merges the output into the SYSTEM hive:

    inf_to_reg.py --control-set 1 gvnd.inf >gvnd.reg
    hivexregedit --merge --prefix 'HKEY_LOCAL_MACHINE\\SYSTEM' HIVE gvnd.reg
"""
import argparse
import re
import sys

SERVICES = r"HKEY_LOCAL_MACHINE\SYSTEM\{}\Services\{}"
DRIVERS_DIRECTORY = "12"
NUMBERS = {"ServiceType": "Type", "StartType": "Start", "ErrorControl": "ErrorControl"}
REG_DWORD, REG_TYPE_MASK = 0x00010001, 0xFFFF0001
FIELD = re.compile(r'\s*("(?:[^"]|"")*"|[^,]*?)\s*(?:,|$)')


class InfError(Exception):
    pass


def without_remark(line):
    """A semicolon begins a remark unless it is in quotes."""
    return re.match(r'(?:"[^"]*"|[^;"])*', line)[0]


class Inf:
    """The sections with their lines: some hold keys with values, some lists, where an equals sign may stand in a text."""

    def __init__(self, text):
        self.sections = {}
        for line in filter(None, (without_remark(line).strip() for line in text.splitlines())):
            if line[0] == "[":
                lines = self.sections.setdefault(line.strip("[]").lower(), [])
            else:
                lines.append(line)
        self.strings = {key: self.unquote(value) for key, value in self.keys("Strings")}
        self.strings[DRIVERS_DIRECTORY] = r"\SystemRoot\System32\drivers"

    def lines(self, name):
        if name.lower() not in self.sections:
            raise InfError(f"no section [{name}]")
        return self.sections[name.lower()]

    def keys(self, name):
        """Pairs of a lower-case key and its value; a key may stand more than once."""
        for line in self.lines(name):
            key, _, value = line.partition("=")
            yield key.strip().lower(), value.strip()

    @staticmethod
    def unquote(text):
        text = text.strip()
        return text[1:-1].replace('""', '"') if text[:1] == '"' else text

    def text(self, value):
        """The value with its strings put in: %name%, and %% for a percent sign."""
        def string(match):
            if not match[1]:
                return "%"
            if match[1].lower() not in self.strings:
                raise InfError(f"%{match[1]}% is not among the strings")
            return self.strings[match[1].lower()]
        return re.sub(r"%([^%]*)%", string, self.unquote(value))

    def fields(self, line):
        return [self.text(field) for field in FIELD.findall(line)]


def quoted(text):
    return '"' + text.replace("\\", "\\\\").replace('"', '\\"') + '"'


def number(text):
    return f"dword:{int(text, 0):08x}"


def wide(kind, text):
    """A text that is not of the plain type, by its bytes."""
    return f"hex({kind}):" + ",".join(f"{byte:02x}" for byte in text.encode("utf-16-le"))


def service_values(inf, section):
    values = {}
    given = dict(inf.keys(section))
    for key, name in NUMBERS.items():
        values[name] = number(inf.text(given[key.lower()]))
    values["ImagePath"] = wide(2, inf.text(given["servicebinary"]) + "\0")
    for key, name in (("displayname", "DisplayName"), ("description", "Description"), ("loadordergroup", "Group")):
        if key in given:
            values[name] = quoted(inf.text(given[key]))
    if "dependencies" in given:
        values["DependOnService"] = wide(7, "".join(name + "\0" for name in inf.fields(given["dependencies"])) + "\0")
    if "addreg" in given:
        values.update(added_values(inf, inf.text(given["addreg"])))
    return values


def added_values(inf, name):
    for line in inf.lines(name):
        root, key, value, flags, data = (inf.fields(line) + [""] * 5)[:5]
        if root.upper() != "HKR" or key:
            raise InfError(f"[{name}]: {line}: only values of the service's own key")
        if int(flags or "0", 0) & REG_TYPE_MASK == REG_DWORD:
            yield value, number(data)
        else:
            yield value, quoted(data)


def services(inf):
    """Pairs of a service's name and its values, as a registry file has them."""
    for key, value in inf.keys("DefaultInstall.NTamd64.Services"):
        if key == "addservice":
            name, _, section = inf.fields(value)[:3]
            yield name, service_values(inf, section)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("inf")
    parser.add_argument("--control-set", type=int, metavar="N", help="of a hive, which has no CurrentControlSet")
    arguments = parser.parse_args()
    control_set = f"ControlSet{arguments.control_set:03}" if arguments.control_set else "CurrentControlSet"
    with open(arguments.inf, encoding="utf-8") as file:
        inf = Inf(file.read())
    print("Windows Registry Editor Version 5.00")
    for name, values in services(inf):
        print(f"\n[{SERVICES.format(control_set, name)}]")
        for value, data in values.items():
            print(f"{quoted(value)}={data}")


if __name__ == "__main__":
    try:
        main()
    except (InfError, KeyError, ValueError, OSError) as error:
        sys.exit(f"inf_to_reg.py: {error}")
