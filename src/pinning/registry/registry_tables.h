// The domain registry's table state and the tables compiled from the public suffix list.
//
// The k* tables are generated at build time by scripts/generate_registry_tables.py. The g_*
// globals are the tables every search reads; ZRB_SetRegistryTables stores them, and they are
// null until the first ZRB_InitializeDomainRegistry (or ZRB_SetRegistryTables) call.
//
// The globals and the assertion handler are atomics: configuration parses install the tables
// again (the first time included) while pin validation searches on other threads, and a host may
// replace the handler at any time. Stores publish with release, searches read with acquire. A
// search that overlaps a switch to different tables may mix them; switch only while nothing
// searches (tests do), the compiled tables never change once installed.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "pinning/registry/registry.h"

extern "C" {

// NUL-terminated lower-case labels, addressed by byte offset.
extern std::atomic<const char*> g_string_table;
// Top-level nodes first, then the inner nodes.
extern std::atomic<const ZRB_TrieNode*> g_node_table;
extern std::atomic<size_t> g_num_root_children;
// String-table offsets of the leaf labels; leaves have no children and are always terminal.
extern std::atomic<const uint16_t*> g_leaf_node_table;
// The number of node-table entries: first_child_offset values from here on are leaf indices.
extern std::atomic<size_t> g_leaf_node_table_offset;

// The current assertion handler.
extern std::atomic<ZRB_DomainRegistryAssertHandler> g_assert_hander;

// Generated from the public suffix list.
extern const char kZRBRegistryStringTable[];
extern const size_t kZRBRegistryStringTableSize;
extern const ZRB_TrieNode kZRBRegistryNodeTable[];
extern const size_t kZRBRegistryNodeTableSize;
extern const size_t kZRBRegistryNumRootChildren;
extern const size_t kZRBRegistryLeafNodeTableOffset;
extern const uint16_t kZRBRegistryLeafNodeTable[];
extern const size_t kZRBRegistryLeafNodeTableSize;

}  // extern "C"

namespace zrb_registry_detail {

// A host component can be searched for when it is not empty and is not itself a wildcard or an
// exception label.
inline bool IsValidComponent(const char* component) {
  return component != nullptr && component[0] != '\0' && component[0] != '!' && component[0] != '*';
}

// ZRB_GetHostnamePart and ZRB_HasLeafChildren for the search itself: exported functions of a
// shared library are called through the PLT and never inlined, and these sit in its inner loops.
inline const char* LabelAt(size_t offset) { return g_string_table.load(std::memory_order_acquire) + offset; }
inline bool HasLeafChildren(const ZRB_TrieNode* node) {
  return node->first_child_offset >= g_leaf_node_table_offset.load(std::memory_order_acquire);
}

}  // namespace zrb_registry_detail

// Reports a broken invariant through the assertion handler. The handler may return (tests, or a
// host that only logs), so callers leave the function right after a failed check.
#define ZRB_REGISTRY_CHECK(file, expression) \
  ((expression) ? true : (ZRB_DoAssert(file, __LINE__, #expression, 0), false))
