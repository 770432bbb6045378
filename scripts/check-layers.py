#!/usr/bin/env python3
"""Checks that every #include under src/ points down the layer order, never up or sideways.

Usage: check-layers.py SOURCE_DIR. Prints each offending include and exits 1 if there is any.

Inside src/platform/ the folders stack up as listed in PLATFORM; a file may include its own folder
and those before it. Above the platform, each layer names what it may include (besides itself).
"""
import pathlib
import re
import sys

PLATFORM = ["foundation", "runtime", "security", "system", "graphics", "net"]
LAYERS = {
    "platform": set(),
    "settings": {"platform"},
    "http": {"platform", "settings"},
    "pinning": {"platform", "settings"},
    "request": {"platform", "settings", "http", "pinning"},
    "model": {"platform"},
}
INCLUDE = re.compile(r'^\s*#\s*include\s+"([a-z_]+)/([a-z_]+)?')


def allowed(source: pathlib.PurePath, target_layer: str, target_sub: str) -> bool:
    layer = source.parts[0]
    if target_layer not in LAYERS:
        return True  # not one of ours (a generated file, a test helper)
    if layer != target_layer:
        return target_layer in LAYERS.get(layer, set())
    if layer != "platform":
        return True
    here = source.parts[1] if len(source.parts) > 2 else None
    if here not in PLATFORM or target_sub not in PLATFORM:
        return False
    return PLATFORM.index(target_sub) <= PLATFORM.index(here)


def main() -> int:
    src = pathlib.Path(sys.argv[1])
    bad = []
    for path in sorted(src.rglob("*")):
        if path.suffix not in (".h", ".cpp"):
            continue
        rel = path.relative_to(src)
        for number, line in enumerate(path.read_text(encoding="utf-8", errors="replace").splitlines(), 1):
            match = INCLUDE.match(line)
            if match and not allowed(rel, match.group(1), match.group(2) or ""):
                bad.append(f"{rel}:{number}: {line.strip()}")
    for line in bad:
        print(line)
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
