#!/usr/bin/env python3
"""Compiles the public suffix list into the domain registry's three tables.

Usage: generate_registry_tables.py LIST_FILE OUTPUT_CPP

The output is a C++ source file that defines the string table of labels, the node table of packed
6-byte nodes and the leaf-node table declared in src/pinning/registry/registry_tables.h. The build
runs this script; the output lives in the build directory and is never edited or committed.

Layout (the searching code in src/pinning/registry/ depends on every detail):
- String table: NUL-terminated lower-case ASCII labels, each stored once. It begins with the labels
  of the generic top-level domains in alphabetical order, then the labels that leaf nodes use, then
  the rest, each group sorted, so leaf labels stay within the 16-bit range their offsets allow.
- Node table: the top-level nodes first, sorted by label; then, breadth first, the children of each
  node that has grandchildren, stored contiguously and sorted by label (byte-wise order, the order
  the search bisects in). A node: string_table_offset (21 bits), first_child_offset (14 bits),
  num_children (12 bits), is_terminal (1 bit).
- Leaf-node table: the children of every node whose children are all childless, as 16-bit string
  table offsets. Such a node's first_child_offset is the number of nodes plus the index of its
  first leaf.

Non-ASCII rules are stored in their ASCII-compatible form ("xn--" + punycode of each lower-cased
label), which is what hosts that reach us carry. Both sections of the list (ICANN and private) are
used. The output depends only on the list's contents, so the same list gives the same bytes.
"""

import hashlib
import os
import sys

STRING_OFFSET_BITS = 21
CHILD_OFFSET_BITS = 14
NUM_CHILDREN_BITS = 12
LEAF_OFFSET_LIMIT = 1 << 16


class TableError(Exception):
    pass


class TrieNode:
    __slots__ = ("label", "terminal", "children", "line")

    def __init__(self, label):
        self.label = label
        self.terminal = False
        self.children = {}
        self.line = 0


def ascii_label(label, line_number):
    label = label.lower()
    if label.isascii():
        return label
    try:
        return "xn--" + label.encode("punycode").decode("ascii")
    except UnicodeError as error:
        raise TableError(f"line {line_number}: cannot encode label '{label}' as punycode: {error}")


def parse_rules(text):
    """Yields (line number, labels from right to left) for every rule of the list."""
    for number, raw in enumerate(text.splitlines(), start=1):
        line = raw.strip()
        if not line or line.startswith("//"):
            continue
        # A rule is read only up to the first white space.
        rule = line.split()[0]
        labels = rule.split(".")
        if any(not label for label in labels):
            raise TableError(f"line {number}: rule '{rule}' has an empty label")
        labels = [ascii_label(label, number) for label in labels]
        for index, label in enumerate(labels):
            if label.startswith("!") and index != 0:
                raise TableError(f"line {number}: rule '{rule}' has an exception label that is not leftmost")
            if label.startswith("!") and len(label) == 1:
                raise TableError(f"line {number}: rule '{rule}' has an empty exception label")
            if "*" in label and label != "*":
                raise TableError(f"line {number}: rule '{rule}' has a partial wildcard label")
            if "\0" in label or not all(0x21 <= ord(c) < 0x7F for c in label):
                raise TableError(f"line {number}: rule '{rule}' has a label with unusable characters")
        if len(labels) == 1 and labels[0].startswith("!"):
            raise TableError(f"line {number}: exception rule '{rule}' has no parent")
        yield number, list(reversed(labels))


def build_trie(text):
    roots = {}
    for number, labels in parse_rules(text):
        level = roots
        node = None
        for label in labels:
            node = level.get(label)
            if node is None:
                node = level[label] = TrieNode(label)
            level = node.children
        node.terminal = True
        node.line = node.line or number
    check_exceptions(roots, [])
    return roots


def check_exceptions(level, path):
    # The search only looks for an exception after a wildcard matched, so an exception without a
    # wildcard beside it would be silently dead.
    for label, node in level.items():
        if label.startswith("!") and "*" not in level:
            rule = ".".join([label] + list(reversed(path)))
            raise TableError(f"line {node.line}: exception rule '{rule}' has no wildcard rule beside it")
        check_exceptions(node.children, path + [label])


def sort_key(label):
    return label.encode("ascii")


def sorted_children(level):
    return [level[label] for label in sorted(level, key=sort_key)]


def has_leaf_children(node):
    return bool(node.children) and all(not child.children for child in node.children.values())


def layout(roots):
    """Assigns node and leaf indices. Returns (nodes, leaves, first child index per node)."""
    nodes = sorted_children(roots)
    num_roots = len(nodes)
    with_leaves = []
    index = 0
    while index < len(nodes):
        node = nodes[index]
        index += 1
        if has_leaf_children(node):
            with_leaves.append(node)
        elif node.children:
            nodes.extend(sorted_children(node.children))
    first_child = {}
    position = num_roots
    for node in nodes:
        if node.children and not has_leaf_children(node):
            first_child[id(node)] = position
            position += len(node.children)
    leaves = []
    for node in nodes:
        if has_leaf_children(node):
            first_child[id(node)] = len(nodes) + len(leaves)
            leaves.extend(sorted_children(node.children))
    return nodes, num_roots, leaves, first_child


def string_table(roots, nodes, leaves):
    generic = sorted((label for label in roots if len(label) > 2 and not label.startswith("xn--")), key=sort_key)
    leaf_labels = sorted({leaf.label for leaf in leaves}, key=sort_key)
    node_labels = sorted({node.label for node in nodes}, key=sort_key)
    offsets = {}
    labels = []
    size = 0
    for label in generic + leaf_labels + node_labels:
        if label in offsets:
            continue
        offsets[label] = size
        labels.append(label)
        size += len(label) + 1
    return labels, offsets, size


def check_limits(nodes, leaves, first_child, offsets):
    node_count = len(nodes)
    for node in nodes:
        if offsets[node.label] >= 1 << STRING_OFFSET_BITS:
            raise TableError(
                f"label '{node.label}' lies at string-table offset {offsets[node.label]}, beyond the "
                f"{STRING_OFFSET_BITS}-bit range of a node's string_table_offset")
        if len(node.children) >= 1 << NUM_CHILDREN_BITS:
            raise TableError(
                f"label '{node.label}' has {len(node.children)} children; a node holds at most "
                f"{(1 << NUM_CHILDREN_BITS) - 1}")
        if node.children and first_child[id(node)] + len(node.children) - 1 >= 1 << CHILD_OFFSET_BITS:
            raise TableError(
                f"the children of '{node.label}' end at index {first_child[id(node)] + len(node.children) - 1}, "
                f"beyond the {CHILD_OFFSET_BITS}-bit range of first_child_offset "
                f"({node_count} nodes, {len(leaves)} leaves)")
    for leaf in leaves:
        if offsets[leaf.label] >= LEAF_OFFSET_LIMIT:
            raise TableError(
                f"leaf label '{leaf.label}' lies at string-table offset {offsets[leaf.label]}, beyond the "
                f"first {LEAF_OFFSET_LIMIT} bytes that 16-bit leaf offsets reach")
        if not leaf.terminal:
            raise TableError(f"leaf label '{leaf.label}' is not a rule of its own")


def c_string_literal(label):
    out = []
    for c in label:
        if c in '"\\?':
            out.append("\\" + c)
        else:
            out.append(c)
    return '"' + "".join(out) + '\\0"'


def render(source_digest, nodes, num_roots, leaves, first_child, labels, offsets, size):
    out = []
    emit = out.append
    emit("// Generated by scripts/generate_registry_tables.py from the public suffix list. Do not edit.")
    emit(f"// Input SHA-256: {source_digest}")
    emit(f"// {len(labels)} labels in {size} bytes; {len(nodes)} nodes, {num_roots} of them top-level;"
         f" {len(leaves)} leaves.")
    emit('#include "pinning/registry/registry_tables.h"')
    emit("")
    emit("#if defined(__GNUC__)")
    emit('#pragma GCC diagnostic ignored "-Woverlength-strings"')
    emit("#endif")
    emit("")
    emit('extern "C" {')
    emit("")
    emit("const char kZRBRegistryStringTable[] =")
    for label in labels:
        emit(f"    {c_string_literal(label)}  // {offsets[label]}")
    emit("    ;")
    emit(f"const size_t kZRBRegistryStringTableSize = {size};")
    emit("")
    emit("// {string_table_offset, first_child_offset, num_children, is_terminal}")
    emit("const ZRB_TrieNode kZRBRegistryNodeTable[] = {")
    for index, node in enumerate(nodes):
        child = first_child.get(id(node), 0)
        emit(f"    {{{offsets[node.label]}, {child}, {len(node.children)}, {1 if node.terminal else 0}}},"
             f"  // {index} {node.label}")
    emit("};")
    emit(f"const size_t kZRBRegistryNodeTableSize = {len(nodes)};")
    emit(f"const size_t kZRBRegistryNumRootChildren = {num_roots};")
    emit(f"const size_t kZRBRegistryLeafNodeTableOffset = {len(nodes)};")
    emit("")
    emit("const uint16_t kZRBRegistryLeafNodeTable[] = {")
    for index, leaf in enumerate(leaves):
        emit(f"    {offsets[leaf.label]},  // {len(nodes) + index} {leaf.label}")
    emit("};")
    emit(f"const size_t kZRBRegistryLeafNodeTableSize = {len(leaves)};")
    emit("")
    emit('}  // extern "C"')
    return "\n".join(out) + "\n"


def generate(list_path):
    with open(list_path, "rb") as handle:
        data = handle.read()
    try:
        text = data.decode("utf-8")
    except UnicodeDecodeError as error:
        raise TableError(f"the list is not UTF-8: {error}")
    roots = build_trie(text)
    if not roots:
        raise TableError("the list holds no rules")
    nodes, num_roots, leaves, first_child = layout(roots)
    labels, offsets, size = string_table(roots, nodes, leaves)
    check_limits(nodes, leaves, first_child, offsets)
    return render(hashlib.sha256(data).hexdigest(), nodes, num_roots, leaves, first_child, labels,
                  offsets, size)


def main(argv):
    if len(argv) != 3:
        print("usage: generate_registry_tables.py LIST_FILE OUTPUT_CPP", file=sys.stderr)
        return 2
    list_path, output_path = argv[1], argv[2]
    try:
        output = generate(list_path)
    except (OSError, TableError) as error:
        print(f"generate_registry_tables: {list_path}: {error}", file=sys.stderr)
        return 1
    # Written whole or not at all: a list that breaks a limit leaves no stale output behind.
    temporary = output_path + ".tmp"
    with open(temporary, "w", encoding="utf-8", newline="\n") as handle:
        handle.write(output)
    os.replace(temporary, output_path)
    return 0

if __name__ == "__main__":
    sys.exit(main(sys.argv))
