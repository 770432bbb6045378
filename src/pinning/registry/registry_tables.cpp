// Installation of the registry tables.
#include "pinning/registry/registry_tables.h"

namespace {

template <typename T>
void storeIfChanged(std::atomic<T>& global, T value) {
  if (global.load(std::memory_order_acquire) != value) global.store(value, std::memory_order_release);
}

}  // namespace

extern "C" {

std::atomic<const char*> g_string_table{nullptr};
std::atomic<const ZRB_TrieNode*> g_node_table{nullptr};
std::atomic<size_t> g_num_root_children{0};
std::atomic<const uint16_t*> g_leaf_node_table{nullptr};
std::atomic<size_t> g_leaf_node_table_offset{0};

void ZRB_SetRegistryTables(const char* string_table, const ZRB_TrieNode* node_table, size_t num_root_children,
                           const uint16_t* leaf_node_table, size_t leaf_node_table_offset) {
  // Every configuration parse installs the same tables again while other threads may be
  // searching; storing only what changes keeps those repeats free of writes.
  // The counts first and the string table last: a search that sees the string table set (the first
  // thing it checks) sees the rest too.
  storeIfChanged(g_num_root_children, num_root_children);
  storeIfChanged(g_leaf_node_table_offset, leaf_node_table_offset);
  storeIfChanged(g_leaf_node_table, leaf_node_table);
  storeIfChanged(g_node_table, node_table);
  storeIfChanged(g_string_table, string_table);
}

void ZRB_InitializeDomainRegistry(void) {
  ZRB_SetRegistryTables(kZRBRegistryStringTable, kZRBRegistryNodeTable, kZRBRegistryNumRootChildren,
                        kZRBRegistryLeafNodeTable, kZRBRegistryLeafNodeTableOffset);
}

}  // extern "C"
