#include <filesystem>

#include "flows.h"
#include "quillon_config.h"
#include "servers.h"
#include "stream_parser.h"

namespace exhaustion {

namespace {

QUILLON_STATUS status_of(bool done, const wb_err &err) {
  if (done) return kOk;
  return err.code == WB_ERR_NO_MEMORY ? QUILLON_STATUS_MALLOC_ERROR : QUILLON_STATUS_XML_ERROR;
}

constexpr std::string_view kDocument =
    "<?xml version='1.0'?><a xmlns='urn:a' xmlns:p='urn:p' b='1' p:c='two &amp; three'><d>text<![CDATA[<more>]]></d>"
    "<p:e><f/><f>a long enough text that a place of its own is needed for it, wherever texts are kept</f></p:e></a>";

}  // namespace

Flow configure_flow(Member &) {
  static quillon_config *made, *copy;
  return {.name = "configure",
          .statuses = {},
          .prepare = [] { made = copy = nullptr; },
          .act =
              [] {
                const char *hosts[] = {"one", "two:1"}, *groups[] = {"a", "b"};
                QUILLON_STATUS status = quillon_config_create(&made);
                if (status == kOk) status = quillon_config_set_hosts(made, hosts, 2);
                if (status == kOk) status = quillon_config_set_user_name(made, "Alice");
                if (status == kOk) status = quillon_config_set_groups(made, groups, 2);
                if (status == kOk) status = quillon_config_set_description(made, "text");
                if (status == kOk) status = quillon_config_set_client_cert_key_password(made, "secret");
                if (status == kOk) status = quillon_config_set_crl(made, "revoked.pem");
                if (status == kOk) quillon_config_clone(made, &copy);
                return status;
              },
          .verify =
              [](QUILLON_STATUS status) {
                EXPECT_TRUE(status != kOk || made != nullptr);
                // Whoever looks for revocations does so with every copy.
                EXPECT_TRUE(copy == nullptr || copy->crl_filename != nullptr);
                quillon_config_destroy(copy);
                quillon_config_destroy(made);
              }};
}

// Reads certificate, key, authorities and revocations, and puts them into force.
Flow reload_flow(Member &member) {
  static uint32_t sets;
  const auto count = [&member] {
    quillon_credentials_info info = {};
    info.size = sizeof info;
    EXPECT_EQ(kOk, quillon_config_get_credentials_info(member.config(), &info));
    return info.sets;
  };
  EXPECT_EQ(kOk, quillon_config_set_crl(member.config(), servers().revocations.c_str()));
  EXPECT_EQ(kOk, quillon_config_set_live_credentials(member.config(), true));
  return {.name = "reload",
          .statuses = {QUILLON_STATUS_CONNECTION_ERROR_CLIENT, QUILLON_STATUS_CONNECTION_ERROR_SERVER},
          .prepare =
              [count] {
                // Another version of the same file, however soon the next round comes.
                const std::filesystem::path file = servers().certificate;
                std::filesystem::last_write_time(file, std::filesystem::last_write_time(file) + std::chrono::seconds(1));
                sets = count();
              },
          .act = [&member] { return quillon_config_reload_credentials(member.config()); },
          .verify =
              [&member, count](QUILLON_STATUS status) {
                EXPECT_EQ(sets + (status == kOk ? 1 : 0), count());
                // What could not be read for want of something is read again.
                member.disconnect();
                member.expect_up();
                EXPECT_EQ(sets + 1, count());
              }};
}

Flow bulk_flow(Member &member) {
  static quillon_bulkdownload *bulk;
  static wb_dom_node *request;
  static int items;
  const auto fetch = [&member](bool begins) {
    QUILLON_STATUS status = begins ? quillon_bulkdownload_create(&bulk, member.config()) : kOk;
    if (status == kOk) status = quillon_bulkdownload_set_url(bulk, servers().bulk_url.c_str());
    if (status == kOk) status = quillon_bulkdownload_set_request(bulk, request);
    if (status == kOk) status = quillon_bulkdownload_open(bulk);
    if (status != kOk) return status;
    for (;;) {
      wb_dom_node *item = nullptr;
      const QUILLON_STATUS step = quillon_bulkdownload_next(bulk, &item);
      if (step != kOk && status == kOk) status = step;
      if (item != nullptr) {
        ++items;
        wb_dom_context_destroy(wb_dom_get_context(item));
      } else if (step != QUILLON_STATUS_XML_ERROR) {
        break;
      }
    }
    quillon_bulkdownload_close(bulk);
    return status;
  };
  return {
      .name = "bulk",
      .statuses = {QUILLON_STATUS_WB_ERROR, QUILLON_STATUS_XML_ERROR, QUILLON_STATUS_REST_ERROR, QUILLON_STATUS_REST_INIT_ERROR},
      .prepare =
          [] {
            bulk = nullptr;
            request = test_support::parse("<give/>").release();
            items = 0;
          },
      .act = [fetch] { return fetch(true); },
      .verify =
          [fetch](QUILLON_STATUS status) {
            if (status == kOk) {
              EXPECT_EQ(kItems, items);
            }
            items = 0;
            EXPECT_EQ(kOk, fetch(bulk == nullptr));
            EXPECT_EQ(kItems, items);
            quillon_bulkdownload_destroy(&bulk);
            test_support::NodeRelease()(std::exchange(request, nullptr));
          }};
}

// ---- XML

Flow parse_flow(Member &) {
  static wb_dom_node *root;
  const auto parse = [] {
    wb_err err = {};
    return status_of(wb_dom_parse(kDocument.data(), kDocument.size(), &root, &err), err);
  };
  return {.name = "parse",
          .statuses = {},
          .prepare = [] { root = nullptr; },
          .act = parse,
          .verify =
              [](QUILLON_STATUS status) {
                ASSERT_EQ(status == kOk, root != nullptr);
                if (root != nullptr) test_support::NodeRelease()(root);
              }};
}

Flow serialise_flow(Member &) {
  static test_support::Node root;
  static char *xml;
  return {.name = "serialise",
          .statuses = {},
          .prepare =
              [] {
                if (root == nullptr) root = test_support::parse(kDocument);
                xml = nullptr;
              },
          .act =
              [] {
                wb_err err = {};
                return status_of(wb_serialize_xml(root.get(), &xml, nullptr, &err), err);
              },
          .verify =
              [](QUILLON_STATUS status) {
                ASSERT_EQ(status == kOk, xml != nullptr);
                std::free(xml);
              }};
}

Flow stream_flow(Member &) {
  struct Counter : wb::StreamParser::Handler {
    void on_stream_open(wb_dom_node *) override { ++opened; }
    void on_stanza(wb_dom_node *) override { ++stanzas; }
    void on_stream_close() override { ++closed; }
    int opened = 0, stanzas = 0, closed = 0;
  };
  static Counter counter;
  return {.name = "stream",
          .statuses = {},
          .prepare = [] { counter = {}; },
          .act =
              [] {
                wb::StreamParser parser(counter, {});
                const std::string_view head = "<stream:stream xmlns='jabber:client' xmlns:stream='urn:s' id='1'>";
                wb::StreamError error = parser.feed(head.data(), head.size());
                const std::string_view stanza = kDocument.substr(kDocument.find("<a"));
                for (int i = 0; i < 3 && error == wb::StreamError::none; ++i) error = parser.feed(stanza.data(), stanza.size());
                const std::string_view end = "</stream:stream>";
                if (error == wb::StreamError::none) error = parser.feed(end.data(), end.size());
                if (error == wb::StreamError::none) return kOk;
                return error == wb::StreamError::no_memory ? QUILLON_STATUS_MALLOC_ERROR : QUILLON_STATUS_XML_ERROR;
              },
          .verify =
              [](QUILLON_STATUS status) {
                EXPECT_LE(counter.stanzas, 3);
                EXPECT_EQ(status == kOk ? 1 : 0, counter.closed);
              }};
}

}  // namespace exhaustion
