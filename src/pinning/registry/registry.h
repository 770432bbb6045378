// Domain registry: the length of the public suffix at the right end of a host name.
//
// The answers come from three constant tables compiled from the public suffix list at build time
// (both its ICANN and private sections; internationalised rules in their "xn--" form). Searching
// allocates nothing and takes no lock: the tables are read-only once installed.
//
// ZRB_InitializeDomainRegistry() must run before the first search; the pinning configuration parse
// calls it every time, and repeating it is harmless. Searching before it reports the missing
// tables through the assertion handler (by default: a message on standard error, then abort).
//
// Host rules: a host is at most 255 bytes of ASCII (anything else gives 0 without a message);
// upper-case letters match lower-case rules; one trailing dot is ignored; an empty label, a host
// of dots alone, or a label beginning with "*" or "!" ends the search. A host that is itself a
// public suffix gives its own length. The rules of the list hold with two refinements: a host
// whose rightmost label is no known top-level domain gives 0 (there is no implicit "*" rule), and
// a label whose path from the top is no rule of its own (say "amazonaws" in "x.amazonaws.com",
// which only has rules below it) clears what the search had found so far.
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" {

// One trie node: a 48-bit little-endian value read as bit fields from the low end.
// first_child_offset indexes the node table when below g_leaf_node_table_offset, else (minus that
// offset) the leaf-node table; children are contiguous and sorted by label.
struct ZRB_TrieNode {
  unsigned int string_table_offset : 21;
  unsigned int first_child_offset : 14;
  unsigned int num_children : 12;
  unsigned int is_terminal : 1;  // the path from the root to this node is itself a registry
} __attribute__((packed));

// Receives the source name ("registry/registry_search" or "registry/trie_search"), the line and
// the text of the expression that did not hold.
typedef void (*ZRB_DomainRegistryAssertHandler)(const char* file, int line, const char* expression);

// Installs the compiled-in tables.
void ZRB_InitializeDomainRegistry(void);

// Installs other tables (a test's, or a newer list's). leaf_node_table_offset is the number of
// entries of node_table; its first num_root_children entries are the top-level nodes.
void ZRB_SetRegistryTables(const char* string_table, const ZRB_TrieNode* node_table, size_t num_root_children,
                           const uint16_t* leaf_node_table, size_t leaf_node_table_offset);

// The byte length of the public suffix of a NUL-terminated host name ("example.co.uk" -> 5), or 0
// when the host is invalid or has no known public suffix. A trailing dot is not counted.
size_t ZRB_GetRegistryLength(const char* hostname);

// The same, except that an unknown rightmost label counts as a public suffix of its own
// ("printer.lan" -> 3).
size_t ZRB_GetRegistryLengthAllowUnknownRegistries(const char* hostname);

// Trie primitives. A component is one NUL-terminated lower-case label of a host.
// The child of parent (a top-level node when parent is null) that matches component: the exact
// label, else a "!component" exception beside a "*" wildcard, else the wildcard; null when none.
const ZRB_TrieNode* ZRB_FindRegistryNode(const char* component, const ZRB_TrieNode* parent);
// The same among the leaf children of parent; returns the matched label, null when none.
const char* ZRB_FindRegistryLeafNode(const char* component, const ZRB_TrieNode* parent);
// Whether node's children live in the leaf-node table.
int ZRB_HasLeafChildren(const ZRB_TrieNode* node);
// The label at a string-table offset.
const char* ZRB_GetHostnamePart(size_t offset);

// Replaces the assertion handler; null restores the default, which prints
// "<file>:<line>. CHECK failed: <expression>" to standard error and aborts.
void ZRB_SetDomainRegistryAssertHandler(ZRB_DomainRegistryAssertHandler handler);
// Calls the handler when condition is zero.
void ZRB_DoAssert(const char* file, int line, const char* expression, int condition);

}  // extern "C"

static_assert(sizeof(ZRB_TrieNode) == 6, "trie nodes are packed into 48 bits");
