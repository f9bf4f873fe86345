#!/usr/bin/env python3
"""Proves by the #include lines that dependencies run one way only:

    ber <- stack <- server <- app, platform beside stack, tools on the wire protocol alone.

Also: codecs know neither Asio nor libpcap, Qt stays in app/desktop, and Boost.Beast reaches two
translation units of what ships. Prints file:line and the rule for each violation and then exits
with 1.
"""

import functools
import pathlib
import re
import sys

# What the files of a folder may include of ours. For codecs, the protocol library and tools the
# rules below are stricter.
ALLOWED = {
    "ber": {"ber"},
    "stack": {"stack", "ber"},
    "platform": {"platform"},
    "server": {"server", "stack", "platform"},
    "app": {"app", "server", "platform", "stack", "ber"},
    "tools": {"tools", "server", "platform", "stack", "ber"},
}
OTHER_FOLDERS = {"tests", "bench", "fuzz"}
BEAST_UNITS = {
    "platform/websocket_beast.cpp",
    "platform/websocket_client.cpp",
    "bench/plain_beast_server.cpp",  # Benches are never built with sanitizers.
}
NETWORK = re.compile(r"boost/asio|boost/beast|pcap")
BEAST = re.compile(r"boost/beast(\.hpp|/websocket(?!/error)|/http)")  # The rest of it is cheap.
QT = re.compile(r"Qt|Q[A-Z]")
QT_FOLDERS = ("app/desktop/", "tests/desktop/")
INCLUDE = re.compile(r'\s*#\s*include\s*([<"])([^>"]+)[>"]')


class Tree:
    def __init__(self, root):
        self.root = root
        self.files = sorted(
            str(path.relative_to(root))
            for folder in [*ALLOWED, *OTHER_FOLDERS]
            for path in (root / folder).rglob("*")
            if path.suffix in {".h", ".cpp"}
        )
        self.known = set(self.files)

    @functools.lru_cache(maxsize=None)
    def includes(self, file):
        """(line number, is quoted, name) of each #include."""
        lines = (self.root / file).read_text(encoding="utf-8").splitlines()
        found = ((number, INCLUDE.match(line)) for number, line in enumerate(lines, 1))
        return [(number, m[1] == '"', m[2]) for number, m in found if m]

    @functools.lru_cache(maxsize=None)
    def reach(self, file):
        """All names that the file includes, through our headers too, each with its place."""
        places, waiting, seen = {}, [file], {file}
        while waiting:
            current = waiting.pop()
            for number, _, name in self.includes(current):
                places.setdefault(name, f"{current}:{number}")
                if name in self.known and name not in seen:
                    seen.add(name)
                    waiting.append(name)
        return places

    def sources_of(self, target, folder):
        """The sources and lone headers that CMake lists for a library, and their headers."""
        text = (self.root / folder / "CMakeLists.txt").read_text(encoding="utf-8")
        match = re.search(r"add_library\(\s*" + target + r"\b([^)]*)\)", text)
        if not match:
            sys.exit(f"{folder}/CMakeLists.txt: no add_library({target} ...)")
        names = (pathlib.Path(folder, name) for name in match[1].split())
        stems = [str(name.with_suffix("")) for name in names if name.suffix in {".cpp", ".h"}]
        return {file for stem in stems for file in (stem + ".cpp", stem + ".h")} & self.known


def folder_of(file):
    return file.split("/", 1)[0]


def check_folders(tree):
    for file in tree.files:
        allowed = ALLOWED.get(folder_of(file))
        for number, is_quoted, name in tree.includes(file):
            if is_quoted and name not in tree.known:
                yield f"{file}:{number}: \"{name}\" is no header of this tree, from its root"
            elif is_quoted and allowed and folder_of(name) not in allowed:
                yield f"{file}:{number}: {folder_of(file)}/ must not include {folder_of(name)}/"
            elif QT.match(name) and not is_quoted and not file.startswith(QT_FOLDERS):
                yield f"{file}:{number}: Qt belongs to app/desktop/"


def check_codecs(tree, codec):
    for file in sorted(codec):
        for name, place in tree.reach(file).items():
            if NETWORK.match(name):
                yield f"{place}: the codec {file} must not reach <{name}>"
            elif name in tree.known and name not in codec and has_source(tree, name):
                yield f"{place}: the codec {file} must not reach {name}, which is no codec"


def check_protocol(tree, codec, protocol):
    for file in sorted(protocol):
        for name, place in tree.reach(file).items():
            if NETWORK.match(name):
                yield f"{place}: the protocol's {file} must not reach <{name}>"
            elif name in tree.known and has_source(tree, name) and name not in codec | protocol:
                yield f"{place}: the protocol's {file} must not reach {name}"
            elif folder_of(name) == "platform" and name in tree.known:
                yield f"{place}: the protocol's {file} must not reach platform/"


def check_tools(tree, protocol):
    wire = protocol | {name for file in protocol for name in tree.reach(file)}
    for file in tree.files:
        if folder_of(file) != "tools":
            continue
        for number, is_quoted, name in tree.includes(file):
            if is_quoted and folder_of(name) == "server" and name not in wire:
                yield f"{file}:{number}: of server/, tools may include the protocol only"


def check_beast(tree):
    for file in tree.files:
        if not file.endswith(".cpp") or file in BEAST_UNITS:
            continue
        for name, place in tree.reach(file).items():
            if BEAST.match(name):
                yield f"{place}: {file} must not reach Boost.Beast, which takes minutes to compile"
                break


def check_packages(root):
    """The packages that the scripts install against the first column of the document's tables."""
    page = "docs/dependencies.md"
    scripts = (root / "scripts/packages.sh").read_text(encoding="utf-8")
    lists = re.findall(r"_packages=\(([^)]*)\)", scripts)
    installed = {name for names in lists for name in names.split()}
    documented = set()
    for number, line in enumerate((root / page).read_text(encoding="utf-8").splitlines(), 1):
        cell = re.match(r"\| ([a-z][^|]*) \|", line)
        names = re.sub(r"\([^)]*\)", "", cell[1]).split(",") if cell else []
        found = {name.strip() for name in names}
        documented |= found
        if cell and "installed by" not in cell[1]:
            for name in sorted(found - installed):
                yield f"{page}:{number}: {name} is not in scripts/packages.sh"
    for name in sorted(installed - documented):
        yield f"{page}: {name} of scripts/packages.sh is missing"


def has_source(tree, header):
    """False for headers without a source of their own: what they reach decides about them. Ports
    have one source per system."""
    stem = header[: -len(".h")]
    return folder_of(header) != "ber" and any(
        file.startswith(stem) and re.fullmatch(r"(_[a-z]+)?\.cpp", file[len(stem):])
        for file in tree.files
    )


def main():
    root = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else __file__).resolve()
    tree = Tree(root if root.is_dir() else root.parent.parent)
    codec = tree.sources_of("GooseStackCodec", "stack")
    protocol = tree.sources_of("tarnlink_protocol", "server")
    violations = sorted({
        *check_folders(tree),
        *check_codecs(tree, codec),
        *check_protocol(tree, codec, protocol),
        *check_tools(tree, protocol),
        *check_beast(tree),
        *check_packages(tree.root),
    })
    for violation in violations:
        print(violation)
    if violations:
        sys.exit(1)
    print(f"{len(tree.files)} files keep the direction of dependencies")


if __name__ == "__main__":
    main()
