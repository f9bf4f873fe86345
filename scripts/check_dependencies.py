#!/usr/bin/env python3
"""Proves by the #include lines that dependencies run one way only, and that this is a rule about
folders: ALLOWED says what each may include.

Also: codecs, supervision and protocol know neither Asio nor libpcap, Qt stays in app/desktop, and
Boost.Beast reaches two translation units of what ships. Prints file:line and the rule for each
violation and then exits with 1.
"""

import functools
import pathlib
import re
import sys

# What a folder may include of ours, besides itself. "goosestack" is the stack's public headers.
ALLOWED = {
    "ber": set(),
    "goosestack": set(),
    "stack": {"goosestack", "ber"},
    "supervision": {"goosestack"},
    "examples": {"goosestack"},
    "protocol": {"goosestack"},
    "websocket": set(),
    "platform": set(),
    "client": {"protocol", "websocket", "platform", "goosestack"},
    "server": {"protocol", "websocket", "platform", "goosestack", "stack"},
    "app": {"server", "client", "protocol", "websocket", "platform", "goosestack", "stack"},
    "macos": {"app", "server", "platform", "goosestack", "stack"},
    "tools": {"client", "protocol", "websocket", "platform", "goosestack", "stack", "ber"},
}
PUBLIC_HEADERS = "stack/include/"
OTHER_FOLDERS = {"tests", "bench", "fuzz"}
BEAST_UNITS = {
    "websocket/beast_stream.cpp",
    "websocket/websocket_client.cpp",
    "bench/plain_beast_server.cpp",  # Benches are never built with sanitizers.
}
NETWORK = re.compile(r"boost/asio|boost/beast|pcap")
BEAST = re.compile(r"boost/beast(\.hpp|/websocket(?!/error)|/http(?!/error))")  # The rest of it is cheap.
QT = re.compile(r"Qt|Q[A-Z]")
QT_FOLDERS = ("app/desktop/", "tests/desktop/")
INCLUDE = re.compile(r'\s*#\s*include\s*([<"])([^>"]+)[>"]')


class Tree:
    def __init__(self, root):
        self.root = root
        # Each under the name by which it is included.
        self.paths = {
            str(path.relative_to(root)).removeprefix(PUBLIC_HEADERS): path
            for folder in [*ALLOWED, *OTHER_FOLDERS]
            for path in (root / folder).rglob("*")
            if path.suffix in {".h", ".cpp"}
        }
        self.files = sorted(self.paths)

    @functools.lru_cache(maxsize=None)
    def includes(self, file):
        """(line number, is quoted, name) of each #include."""
        lines = self.paths[file].read_text(encoding="utf-8").splitlines()
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
                if name in self.paths and name not in seen:
                    seen.add(name)
                    waiting.append(name)
        return places

    def codecs(self):
        """The sources that CMake lists for the codecs' library."""
        text = (self.root / "stack/CMakeLists.txt").read_text(encoding="utf-8")
        sources = re.search(r"add_library\(GooseStackCodec STATIC([^)]*)\)", text)[1].split()
        return {f"stack/{name}" for name in sources}


def folder_of(file):
    return file.split("/", 1)[0]


def check_folders(tree):
    for file in tree.files:
        folder = folder_of(file)
        allowed = ALLOWED.get(folder)
        for number, is_quoted, name in tree.includes(file):
            if is_quoted and name not in tree.paths:
                yield f"{file}:{number}: \"{name}\" is no header of this tree, from its root"
            elif is_quoted and allowed is not None and folder_of(name) not in {folder, *allowed}:
                yield f"{file}:{number}: {folder}/ must not include {folder_of(name)}/"
            elif QT.match(name) and not is_quoted and not file.startswith(QT_FOLDERS):
                yield f"{file}:{number}: Qt belongs to app/desktop/"


def check_networkless(tree):
    """Codecs, supervision and protocol, and whatever these reach through headers."""
    codecs = tree.codecs()
    for file in tree.files:
        if file not in codecs and folder_of(file) not in {"protocol", "supervision"}:
            continue
        for name, place in tree.reach(file).items():
            if NETWORK.match(name):
                yield f"{place}: {file} must not reach <{name}>"


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


def main():
    root = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else __file__).resolve()
    tree = Tree(root if root.is_dir() else root.parent.parent)
    violations = sorted({
        *check_folders(tree),
        *check_networkless(tree),
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
