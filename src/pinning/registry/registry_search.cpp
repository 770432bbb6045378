// The walk from a host's rightmost label down the registry trie.
#include <cstring>

#include "pinning/registry/registry_tables.h"

namespace {

constexpr const char* kRegistrySearch = "registry/registry_search";
constexpr size_t kMaxHostnameLength = 255;

using zrb_registry_detail::HasLeafChildren;
using zrb_registry_detail::IsValidComponent;
using zrb_registry_detail::LabelAt;

// Copies a valid host (at most 255 bytes, all ASCII) into buffer as NUL-separated lower-case
// components and returns its length; -1 for a host that cannot be searched.
long CopyHostname(const char* hostname, char (&buffer)[kMaxHostnameLength + 1]) {
  if (hostname == nullptr) return -1;
  unsigned char high = 0;
  size_t length = 0;
  for (;; ++length) {
    auto c = static_cast<unsigned char>(hostname[length]);
    if (c == 0) break;
    // Scans at most 256 bytes: a 256th byte that is not the end makes the host too long.
    if (length == kMaxHostnameLength) return -1;
    high |= c;
    c = static_cast<unsigned char>(c + ((static_cast<unsigned char>(c - 'A') < 26) << 5));  // A-Z to a-z
    buffer[length] = c == '.' ? '\0' : static_cast<char>(c);
  }
  if (high & 0x80) return -1;  // not ASCII
  buffer[length] = '\0';
  return static_cast<long>(length);
}

// The next component from the right, or null. The cursor starts null; one trailing separator is
// skipped on the first call.
const char* GetNextHostnamePartImpl(const char* start, const char* end, char sep, const char** cursor) {
  if (*cursor == nullptr) {
    *cursor = end;
    if (end > start && end[-1] == sep) --*cursor;
  }
  if (*cursor < start) return nullptr;
  for (const char* p = *cursor; p > start;) {
    if (*--p == sep) {
      *cursor = p;
      return p + 1;
    }
  }
  if (*cursor == start || *start == '\0') return nullptr;
  *cursor = start;
  return start;
}

// As above, but an empty, wildcard or exception component ends the walk: a host cannot carry the
// list's own syntax.
const char* GetNextHostnamePart(const char* start, const char* end, char sep, const char** cursor) {
  const char* component = GetNextHostnamePartImpl(start, end, sep, cursor);
  return IsValidComponent(component) ? component : nullptr;
}

// Where the registry begins when label matched component: an exception ("!city") leaves the
// component out, so the registry starts at the component to its right.
const char* GetDomainRegistryStr(const char* label, const char* component) {
  if (label[0] == '!') return component + std::strlen(component) + 1;
  return component;
}

// The start of the longest registry the trie holds for the components in [start, end), or null.
const char* GetRegistryForHostname(const char* start, const char* end, char sep) {
  const char* registry = nullptr;
  const ZRB_TrieNode* node = nullptr;
  const char* cursor = nullptr;
  for (;;) {
    const char* component = GetNextHostnamePart(start, end, sep, &cursor);
    if (component == nullptr) return registry;
    node = ZRB_FindRegistryNode(component, node);
    if (node == nullptr) return registry;
    // A node that is only a step towards longer rules is no registry by itself.
    registry =
        node->is_terminal ? GetDomainRegistryStr(LabelAt(node->string_table_offset), component) : nullptr;
    if (HasLeafChildren(node)) break;
  }
  const char* component = GetNextHostnamePart(start, end, sep, &cursor);
  if (component == nullptr) return registry;
  const char* leaf = ZRB_FindRegistryLeafNode(component, node);
  if (leaf == nullptr) return registry;
  return GetDomainRegistryStr(leaf, component);
}

size_t GetRegistryLengthImpl(const char* value, const char* value_end, char sep,
                             bool allow_unknown_registries) {
  while (value < value_end && *value == sep) ++value;  // a host that began with dots
  const char* registry = GetRegistryForHostname(value, value_end, sep);
  if (registry == nullptr && allow_unknown_registries) {
    const char* cursor = nullptr;
    const char* component = GetNextHostnamePart(value, value_end, sep, &cursor);
    if (component != nullptr && ZRB_FindRegistryNode(component, nullptr) == nullptr) registry = component;
  }
  if (registry == nullptr) return 0;
  if (!ZRB_REGISTRY_CHECK(kRegistrySearch, registry >= value) ||
      !ZRB_REGISTRY_CHECK(kRegistrySearch, registry < value_end)) {
    return 0;
  }
  // The suffix's components and the dots between them; a trailing dot does not count.
  const char* suffix_end = value_end[-1] == sep ? value_end - 1 : value_end;
  return static_cast<size_t>(suffix_end - registry);
}

}  // namespace

extern "C" {

size_t ZRB_GetRegistryLength(const char* hostname) {
  char buffer[kMaxHostnameLength + 1];
  long length = CopyHostname(hostname, buffer);
  if (length < 0) return 0;
  const char* buf_end = buffer + length;
  if (!ZRB_REGISTRY_CHECK(kRegistrySearch, *buf_end == 0)) return 0;
  return GetRegistryLengthImpl(buffer, buf_end, '\0', false);
}

size_t ZRB_GetRegistryLengthAllowUnknownRegistries(const char* hostname) {
  char buffer[kMaxHostnameLength + 1];
  long length = CopyHostname(hostname, buffer);
  if (length < 0) return 0;
  const char* buf_end = buffer + length;
  if (!ZRB_REGISTRY_CHECK(kRegistrySearch, *buf_end == 0)) return 0;
  return GetRegistryLengthImpl(buffer, buf_end, '\0', true);
}

}  // extern "C"
