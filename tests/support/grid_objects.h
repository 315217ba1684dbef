// Objects of libqlk for tests: owners, stanzas from text, texts from stanzas.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "quillon.h"

namespace test_support {

struct NodeRelease {
  void operator()(wb_dom_node *node) const { wb_dom_context_destroy(wb_dom_get_context(node)); }
};
using Node = std::unique_ptr<wb_dom_node, NodeRelease>;

struct CapabilityDestroy {
  void operator()(quillon_capability *capability) const { quillon_capability_destroy(capability); }
};
using Capability = std::unique_ptr<quillon_capability, CapabilityDestroy>;

struct ConnectionDestroy {
  void operator()(quillon_connection *connection) const { quillon_connection_destroy(connection); }
};
using Connection = std::unique_ptr<quillon_connection, ConnectionDestroy>;

inline Node parse(std::string_view xml) {
  wb_dom_node *root = nullptr;
  EXPECT_TRUE(wb_dom_parse(xml.data(), xml.size(), &root, nullptr)) << xml;
  return Node(root);
}

inline std::string serialize(const wb_dom_node *node) {
  char *xml = nullptr;
  if (node == nullptr || !wb_serialize_xml(node, &xml, nullptr, nullptr)) return {};
  const std::string text(xml);
  std::free(xml);
  return text;
}

inline Connection make_connection() {
  quillon_connection *connection = nullptr;
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_create(&connection));
  return Connection(connection);
}

// A plain capability, or with dynamic_ a dynamic one.
inline Capability make_capability(const char *ns, const char *name, bool dynamic_ = false) {
  quillon_capability *capability = nullptr;
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_capability_create(&capability));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_capability_set_namespace(capability, ns));
  EXPECT_EQ(QUILLON_STATUS_OK,
            dynamic_ ? quillon_dynamic_capability_set_name(capability, name) : quillon_capability_set_name(capability, name));
  return Capability(capability);
}

// The publishers that the capability knows.
inline std::vector<std::string> jids_of(quillon_capability *capability) {
  std::vector<std::string> jids;
  quillon_array *copies = quillon_capability_copy_jids(capability);
  for (int32_t i = 0; i < quillon_array_size(copies); ++i)
    jids.emplace_back(quillon_string_cstr(static_cast<quillon_string *>(quillon_array_get(copies, i))));
  quillon_array_destroy(copies);
  return jids;
}

}  // namespace test_support
