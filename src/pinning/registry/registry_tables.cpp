// Installation of the registry tables.
#include "pinning/registry/registry_tables.h"

extern "C" {

const char* g_string_table = nullptr;
const ZRB_TrieNode* g_node_table = nullptr;
size_t g_num_root_children = 0;
const uint16_t* g_leaf_node_table = nullptr;
size_t g_leaf_node_table_offset = 0;

void ZRB_SetRegistryTables(const char* string_table, const ZRB_TrieNode* node_table, size_t num_root_children,
                           const uint16_t* leaf_node_table, size_t leaf_node_table_offset) {
  // Every configuration parse installs the same tables again while other threads may be
  // searching; storing only what changes keeps those repeats free of writes.
  if (g_string_table != string_table) g_string_table = string_table;
  if (g_node_table != node_table) g_node_table = node_table;
  if (g_num_root_children != num_root_children) g_num_root_children = num_root_children;
  if (g_leaf_node_table != leaf_node_table) g_leaf_node_table = leaf_node_table;
  if (g_leaf_node_table_offset != leaf_node_table_offset) g_leaf_node_table_offset = leaf_node_table_offset;
}

void ZRB_InitializeDomainRegistry(void) {
  ZRB_SetRegistryTables(kZRBRegistryStringTable, kZRBRegistryNodeTable, kZRBRegistryNumRootChildren,
                        kZRBRegistryLeafNodeTable, kZRBRegistryLeafNodeTableOffset);
}

}  // extern "C"
