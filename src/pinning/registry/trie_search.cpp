// Bisection over the sorted children of one trie node.
#include <cstdlib>
#include <cstring>

#include "pinning/registry/registry_tables.h"

namespace {

constexpr const char* kTrieSearch = "registry/trie_search";

// Byte-wise label order, the order the generator sorts children in. Most probes differ in the
// first byte; the rest are short labels, compared here rather than through a library call.
int HostnamePartCmp(const char* a, const char* b) {
  if (*a != *b) return static_cast<unsigned char>(*a) - static_cast<unsigned char>(*b);
  while (*a != '\0' && *a == *b) {
    ++a;
    ++b;
  }
  return static_cast<unsigned char>(*a) - static_cast<unsigned char>(*b);
}

using zrb_registry_detail::HasLeafChildren;
using zrb_registry_detail::LabelAt;

const char* LabelOf(const ZRB_TrieNode* node) { return LabelAt(node->string_table_offset); }
const char* LabelOf(const uint16_t* leaf) { return LabelAt(*leaf); }

// Bisects entries [start, end] of base, probing the upper middle of an even range. Indices rather
// than pointers: with 6-byte nodes every pointer difference would be a division.
template <typename Entry>
const Entry* Bisect(const char* value, const Entry* base, size_t start, size_t end) {
  for (;;) {
    if (!ZRB_REGISTRY_CHECK(kTrieSearch, start <= end)) return nullptr;
    size_t mid = start + (end - start + 1) / 2;
    int order = HostnamePartCmp(value, LabelOf(base + mid));
    if (order == 0) return base + mid;
    if (order > 0) {
      if (mid == end) return nullptr;
      start = mid + 1;
    } else {
      if (mid == start) return nullptr;
      end = mid - 1;
    }
  }
}

// The entry of the inclusive range [start, end] whose label is value, or null.
template <typename Entry>
const Entry* FindInRange(const char* value, const Entry* start, const Entry* end) {
  if (!ZRB_REGISTRY_CHECK(kTrieSearch, value != NULL) || !ZRB_REGISTRY_CHECK(kTrieSearch, start != NULL) ||
      !ZRB_REGISTRY_CHECK(kTrieSearch, end != NULL)) {
    return nullptr;
  }
  if (start > end) return nullptr;
  return Bisect(value, start, 0, static_cast<size_t>(end - start));
}

const ZRB_TrieNode* FindNodeInRange(const char* value, const ZRB_TrieNode* start, const ZRB_TrieNode* end) {
  return FindInRange(value, start, end);
}

const uint16_t* FindLeafNodeInRange(const char* value, const uint16_t* start, const uint16_t* end) {
  return FindInRange(value, start, end);
}

// The exact label, else "!component" when a "*" sits beside it, else the "*".
template <typename Entry>
const Entry* FindWithWildcards(const char* component, const Entry* start, const Entry* end,
                               const Entry* (*find)(const char*, const Entry*, const Entry*)) {
  if (const Entry* match = find(component, start, end)) return match;
  const Entry* wildcard = find("*", start, end);
  if (wildcard == nullptr) return nullptr;

  // Host components are at most 255 bytes; a longer one can come only through the public
  // primitive, and gets a heap copy.
  char local[258];
  size_t length = std::strlen(component);
  char* exception = length + 2 <= sizeof(local) ? local : static_cast<char*>(std::malloc(length + 2));
  if (exception == nullptr) return wildcard;
  exception[0] = '!';
  std::memcpy(exception + 1, component, length + 1);
  const Entry* match = find(exception, start, end);
  if (exception != local) std::free(exception);
  return match != nullptr ? match : wildcard;
}

// The expressions are the texts the handler reports; an atomic compared like this is read in full
// (sequentially consistent) order.
bool TablesAreSet(const char* component) {
  return ZRB_REGISTRY_CHECK(kTrieSearch, g_string_table != NULL) &&
         ZRB_REGISTRY_CHECK(kTrieSearch, g_node_table != NULL) &&
         ZRB_REGISTRY_CHECK(kTrieSearch, g_leaf_node_table != NULL) &&
         ZRB_REGISTRY_CHECK(kTrieSearch, component != NULL);
}

}  // namespace

extern "C" {

const ZRB_TrieNode* ZRB_FindRegistryNode(const char* component, const ZRB_TrieNode* parent) {
  if (!TablesAreSet(component)) return nullptr;
  if (!zrb_registry_detail::IsValidComponent(component)) return nullptr;

  const ZRB_TrieNode* nodes = g_node_table.load(std::memory_order_acquire);
  const ZRB_TrieNode* start = nodes;
  size_t count = g_num_root_children.load(std::memory_order_acquire);
  if (parent != nullptr) {
    // Leaf children are not nodes; the caller must use ZRB_FindRegistryLeafNode.
    if (HasLeafChildren(parent) && !ZRB_REGISTRY_CHECK(kTrieSearch, 0)) return nullptr;
    start = nodes + parent->first_child_offset;
    count = parent->num_children;
  }
  if (count == 0) return nullptr;
  return FindWithWildcards(component, start, start + count - 1, FindNodeInRange);
}

const char* ZRB_FindRegistryLeafNode(const char* component, const ZRB_TrieNode* parent) {
  if (!TablesAreSet(component) || !ZRB_REGISTRY_CHECK(kTrieSearch, parent != NULL) ||
      !ZRB_REGISTRY_CHECK(kTrieSearch, ZRB_HasLeafChildren(parent) != 0)) {
    return nullptr;
  }
  if (!zrb_registry_detail::IsValidComponent(component)) return nullptr;
  if (parent->num_children == 0) return nullptr;
  const uint16_t* start =
      g_leaf_node_table.load(std::memory_order_acquire) +
      (parent->first_child_offset - g_leaf_node_table_offset.load(std::memory_order_acquire));
  const uint16_t* leaf =
      FindWithWildcards(component, start, start + parent->num_children - 1, FindLeafNodeInRange);
  return leaf != nullptr ? LabelAt(*leaf) : nullptr;
}

int ZRB_HasLeafChildren(const ZRB_TrieNode* node) { return node != nullptr && HasLeafChildren(node); }

const char* ZRB_GetHostnamePart(size_t offset) { return LabelAt(offset); }

}  // extern "C"
