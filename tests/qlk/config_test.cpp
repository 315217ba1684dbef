#include "quillon_config.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "oom.h"
#include "owners.h"
#include "quillon_grid.h"
#include "quillon_log_capture.h"

namespace {

using qlk::text_of;
using test_support::QuillonLogCapture;

struct ConfigDelete {
  void operator()(quillon_config *config) const { quillon_config_destroy(config); }
};
using ConfigPtr = std::unique_ptr<quillon_config, ConfigDelete>;

ConfigPtr make_config() {
  quillon_config *config = nullptr;
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_create(&config));
  return ConfigPtr(config);
}

std::vector<std::string> texts_of(const quillon_list *list) {
  std::vector<std::string> texts;
  for (size_t i = 0; i < quillon_list_size(list); ++i) {
    texts.emplace_back(text_of(static_cast<quillon_string *>(quillon_list_get_at(list, i))));
  }
  return texts;
}

using Texts = std::vector<std::string>;

TEST(ConfigCreate, StartsEmptyWithTheDefaultTimeout) {
  const ConfigPtr config = make_config();
  EXPECT_EQ(-1, config->hosts_index);
  EXPECT_EQ(0, config->hosts_count);
  EXPECT_EQ(0, config->groups_count);
  EXPECT_EQ(15, config->send_timeout_seconds);
  EXPECT_EQ(0u, quillon_list_size(config->hosts));
  EXPECT_NE(nullptr, config->groups);

  quillon_config *bare = nullptr;
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_default_create(&bare));
  const ConfigPtr owned(bare);
  EXPECT_EQ(-1, bare->hosts_index);
  EXPECT_EQ(0, bare->send_timeout_seconds);
  EXPECT_EQ(nullptr, bare->hosts);
  EXPECT_EQ(nullptr, bare->groups);
}

TEST(ConfigCreate, WiresLoggingBeforeAnythingElse) {
  const QuillonLogCapture log;
  wb_log_set_function(nullptr);
  wb_log_set_level(WB_LOG_NONE);
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_config_create(nullptr));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_config_default_create(nullptr));
  quillon_config_destroy(nullptr);
  EXPECT_EQ(3u, log.count_exact("Invalid config object")) << log.all();
}

#if QLK_HAS_OOM
TEST(ConfigCreate, SurvivesEveryAllocationFailure) {
  quillon_log_set_level(QUILLON_LOG_NONE);
  quillon_config *config = nullptr;
  const long total = oom::count([&] { quillon_config_create(&config); });
  quillon_config_destroy(config);
  ASSERT_GT(total, 2);  // a sweep over nothing proves nothing
  const long live = oom::live();
  for (long nth = 1; nth <= total; ++nth) {
    const oom::FailNth failing(nth);
    EXPECT_EQ(QUILLON_STATUS_MALLOC_ERROR, quillon_config_create(&config)) << nth;
    EXPECT_EQ(nullptr, config) << nth;
    EXPECT_EQ(live, oom::live()) << nth;
  }
  quillon_log_set_level(QUILLON_LOG_INFO);
}

TEST(ConfigSet, EveryAllocationFailureLeavesTheOldValues) {
  const ConfigPtr config = make_config();
  const char *hosts[] = {"old1", "old2"};
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_user_name(config.get(), "old"));
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_hosts(config.get(), hosts, 2));
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_groups(config.get(), hosts, 2));
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_client_cert_key_password(config.get(), "old"));
  quillon_log_set_level(QUILLON_LOG_NONE);
  struct Sweep {
    const char *name;
    QUILLON_STATUS (*set)(quillon_config *config);
  };
  const Sweep sweeps[] = {
      {"user name", [](quillon_config *c) { return quillon_config_set_user_name(c, "Other"); }},
      {"host", [](quillon_config *c) { return quillon_config_set_host(c, "other"); }},
      {"hosts",
       [](quillon_config *c) {
         const char *others[] = {"o1", "o2"};
         return quillon_config_set_hosts(c, others, 2);
       }},
      {"groups",
       [](quillon_config *c) {
         const char *others[] = {"o1", "o2"};
         return quillon_config_set_groups(c, others, 2);
       }},
      {"password", [](quillon_config *c) { return quillon_config_set_client_cert_key_password(c, "other"); }},
  };
  for (const Sweep &sweep : sweeps) {
    quillon_config *scratch = nullptr;
    quillon_config_clone(config.get(), &scratch);
    const long total = oom::count([&] { sweep.set(scratch); });
    quillon_config_destroy(scratch);
    ASSERT_GT(total, 1) << sweep.name;
    for (long nth = 1; nth <= total; ++nth) {
      const long live = oom::live();
      const oom::FailNth failing(nth);
      EXPECT_EQ(QUILLON_STATUS_MALLOC_ERROR, sweep.set(config.get())) << sweep.name << nth;
      EXPECT_EQ(live, oom::live()) << sweep.name << nth;
    }
  }
  EXPECT_EQ("old", text_of(config->user_name));
  EXPECT_EQ("old1", text_of(config->user_group));
  EXPECT_EQ("old@" GRID_DOMAIN "/qlk", text_of(config->jid));
  EXPECT_EQ((Texts{"old1", "old2"}), texts_of(config->hosts));
  EXPECT_EQ("old", text_of(config->client_cert_key_password));
  quillon_log_set_level(QUILLON_LOG_INFO);
}
#endif

// One row a plain setter: what it says about a missing configuration and a missing argument (null: nothing), and whether null
// clears.
struct SetterCase {
  const char *name;
  QUILLON_STATUS (*set)(quillon_config *, const char *);
  quillon_string *_quillon_config::*field;
  const char *no_config, *no_text;
  bool null_clears;
};
const SetterCase kSetterCases[] = {
    {"Description", quillon_config_set_description, &_quillon_config::description, "Invalid config object",
     "Invalid description object", false},
    {"UserGroup", quillon_config_set_user_group, &_quillon_config::user_group, "Invalid config object",
     "Invalid user_group object", false},
    {"ClientChain", quillon_config_set_client_cert_chain_filename, &_quillon_config::client_cert_chain_filename, nullptr, nullptr,
     false},
    {"ClientKey", quillon_config_set_client_cert_key_filename, &_quillon_config::client_cert_key_filename, nullptr, nullptr,
     false},
    {"KeyPassword", quillon_config_set_client_cert_key_password, &_quillon_config::client_cert_key_password, nullptr, nullptr,
     false},
    {"ServerCa", quillon_config_set_server_cert_chain_filename, &_quillon_config::server_cert_chain_filename, nullptr, nullptr,
     true},
    {"BulkCa", quillon_config_set_bulk_server_cert_chain_filename, &_quillon_config::bulk_server_cert_chain_filename, nullptr,
     nullptr, true},
};
class ConfigSetter : public testing::TestWithParam<SetterCase> {
 protected:
  static void expect_said(const QuillonLogCapture &log, const char *text) {
    EXPECT_EQ(text != nullptr ? Texts{text} : Texts{}, log.records());
  }
};

TEST_P(ConfigSetter, ReplacesOrRefuses) {
  const SetterCase &c = GetParam();
  const ConfigPtr config = make_config();
  QuillonLogCapture log;
  EXPECT_EQ(QUILLON_STATUS_OK, c.set(config.get(), "first"));
  EXPECT_EQ(QUILLON_STATUS_OK, c.set(config.get(), std::string(65536, 'x').c_str()));
  EXPECT_EQ(65536u, text_of(config.get()->*c.field).size());
  EXPECT_EQ(QUILLON_STATUS_OK, c.set(config.get(), "Last"));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, c.set(config.get(), ""));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, c.set(config.get(), std::string(65537, 'x').c_str()));
  expect_said(log, nullptr);
  EXPECT_EQ("Last", text_of(config.get()->*c.field));

  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, c.set(nullptr, "text"));
  expect_said(log, c.no_config);
  log.clear();
  EXPECT_EQ(c.null_clears ? QUILLON_STATUS_OK : QUILLON_STATUS_INVALID_ARGS, c.set(config.get(), nullptr));
  expect_said(log, c.no_text);
  EXPECT_EQ(c.null_clears ? "" : "Last", text_of(config.get()->*c.field));
}
INSTANTIATE_TEST_SUITE_P(Fields, ConfigSetter, testing::ValuesIn(kSetterCases),
                         [](const auto &c) { return std::string(c.param.name); });

TEST(ConfigHost, ReplacesTheWholeList) {
  const ConfigPtr config = make_config();
  const char *hosts[] = {"a:5223", "b"};
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_set_hosts(config.get(), hosts, 2));
  EXPECT_EQ((Texts{"a:5223", "b"}), texts_of(config->hosts));
  EXPECT_EQ(2, config->hosts_count);
  config->hosts_index = 1;
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_set_host(config.get(), "only"));
  EXPECT_EQ((Texts{"only"}), texts_of(config->hosts));
  EXPECT_EQ(0, config->hosts_index);
  EXPECT_EQ(1, config->hosts_count);
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_set_host(config.get(), std::string(65536, 'h').c_str()));
}

TEST(ConfigHost, RefusalsLeaveTheOldHosts) {
  const ConfigPtr config = make_config();
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_host(config.get(), "old"));
  config->hosts_index = 1;
  const std::string too_long(65537, 'h');
  const char *bad[] = {"good", ""};
  const char *missing[] = {"good", nullptr};
  const char *huge[] = {"good", too_long.c_str()};
  const QuillonLogCapture log;
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_config_set_host(nullptr, "a"));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_config_set_host(config.get(), nullptr));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_config_set_host(config.get(), ""));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_config_set_host(config.get(), too_long.c_str()));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_config_set_hosts(nullptr, bad, 1));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_config_set_hosts(config.get(), bad, 0));
  EXPECT_EQ((Texts{"Invalid config object", "Invalid host object", "host name too small or too large",
                   "host name too small or too large", "Invalid config object", "Invalid host count"}),
            log.records());
  for (const char **hosts : {bad, missing, huge}) {
    EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_config_set_hosts(config.get(), hosts, 2));
  }
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_config_set_hosts(config.get(), nullptr, 2));
  EXPECT_EQ((Texts{"old"}), texts_of(config->hosts));
  EXPECT_EQ(1, config->hosts_index);
}

TEST(ConfigHost, BareConfigurationKeepsNone) {
  quillon_config *config = nullptr;
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_default_create(&config));
  const ConfigPtr owned(config);
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_set_host(config, "host"));
  EXPECT_EQ(nullptr, config->hosts);
  EXPECT_EQ(0, config->hosts_index);
  EXPECT_EQ(0, config->hosts_count);
  const char *texts[] = {"one"};
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_set_hosts(config, texts, 1));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_set_groups(config, texts, 1));
  EXPECT_EQ((Texts{"one"}), texts_of(config->hosts));
  EXPECT_EQ((Texts{"one"}), texts_of(config->groups));
}

TEST(ConfigUserName, IsLoweredAndGivesTheJid) {
  const ConfigPtr config = make_config();
  const QuillonLogCapture log;
  for (const char *name : {"Bob", "Alice"}) EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_set_user_name(config.get(), name));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_config_set_user_name(nullptr, "a"));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_config_set_user_name(config.get(), nullptr));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_config_set_user_name(config.get(), ""));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_config_set_user_name(config.get(), std::string(65537, 'u').c_str()));
  EXPECT_EQ((Texts{"Invalid config object", "Invalid user name object", "Invalid user name length", "Invalid user name length"}),
            log.records());
  EXPECT_EQ("alice", text_of(config->user_name));
  EXPECT_EQ("alice@" GRID_DOMAIN "/qlk", text_of(config->jid));
}

TEST(ConfigGroups, FirstBecomesTheUserGroup) {
  const ConfigPtr config = make_config();
  const char *groups[] = {"ops", "dev"};
  const char *bad[] = {"new", ""};
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_set_groups(config.get(), groups, 2));
  const QuillonLogCapture log;
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_config_set_groups(config.get(), groups, 0));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_config_set_groups(config.get(), bad, 2));
  EXPECT_EQ(Texts{}, log.records());
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_config_set_groups(nullptr, groups, 2));
  EXPECT_EQ(Texts{"Invalid config object"}, log.records());
  EXPECT_EQ((Texts{"ops", "dev"}), texts_of(config->groups));
  EXPECT_EQ(2, config->groups_count);
  EXPECT_EQ("ops", text_of(config->user_group));
}

TEST(ConfigTimeout, TakesAnyValue) {
  const ConfigPtr config = make_config();
  const QuillonLogCapture log;
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_config_set_send_timeout_seconds(config.get(), -3));
  EXPECT_EQ(-3, config->send_timeout_seconds);
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_config_set_send_timeout_seconds(nullptr, 1));
  EXPECT_EQ(Texts{}, log.records());
}

TEST(ConfigClone, CopiesDeeply) {
  ConfigPtr config = make_config();
  const char *texts[] = {"one", "two"};
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_hosts(config.get(), texts, 2));
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_groups(config.get(), texts, 2));
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_user_name(config.get(), "u"));
  for (const SetterCase &c : kSetterCases) {
    if (c.field == &_quillon_config::description) continue;  // stays unset
    ASSERT_EQ(QUILLON_STATUS_OK, c.set(config.get(), c.name));
  }
  config->password = qlk::make_string("account").release();
  config->hosts_index = 1;
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_send_timeout_seconds(config.get(), 3));
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_handler_queue_warning(config.get(), 4));
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_handler_queue_bound(config.get(), 5, QUILLON_HANDLER_QUEUE_OVERFLOW_CLOSE));
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_handler_queue_bytes(config.get(), 6, 7));
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_sasl_response(config.get(), QUILLON_SASL_RESPONSE_NONE));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_config_set_sasl_response(config.get(), QUILLON_SASL_RESPONSE_MAX));
  EXPECT_EQ(QUILLON_STATUS_INVALID_ARGS, quillon_config_set_sasl_response(nullptr, QUILLON_SASL_RESPONSE_NONE));
  quillon_config *copy = nullptr;
  quillon_config_clone(config.get(), &copy);
  ASSERT_NE(nullptr, copy);
  const ConfigPtr owned(copy);
  config.reset();
  EXPECT_EQ((Texts{"one", "two"}), texts_of(copy->hosts));
  EXPECT_EQ((Texts{"one", "two"}), texts_of(copy->groups));
  EXPECT_EQ("u", text_of(copy->user_name));
  EXPECT_EQ("u@" GRID_DOMAIN "/qlk", text_of(copy->jid));
  EXPECT_EQ("account", text_of(copy->password));
  EXPECT_EQ(nullptr, copy->description);
  for (const SetterCase &c : kSetterCases) {
    EXPECT_EQ(c.field == &_quillon_config::description ? "" : c.name, text_of(copy->*c.field));
  }
  EXPECT_EQ(1, copy->hosts_index);
  EXPECT_EQ(2, copy->hosts_count);
  EXPECT_EQ(2, copy->groups_count);
  EXPECT_EQ(3, copy->send_timeout_seconds);
  EXPECT_EQ(4, copy->handler_queue_warning);
  EXPECT_EQ(5, copy->handler_queue_bound);
  EXPECT_EQ(6U, copy->handler_queue_warning_bytes);
  EXPECT_EQ(7U, copy->handler_queue_bound_bytes);
  EXPECT_EQ(QUILLON_HANDLER_QUEUE_OVERFLOW_CLOSE, copy->handler_queue_overflow);
  EXPECT_EQ(QUILLON_SASL_RESPONSE_NONE, copy->sasl_response);
}

TEST(ConfigClone, WarnsOfAMissingSource) {
  const QuillonLogCapture log(WB_LOG_WARN);
  quillon_config *copy = nullptr;
  quillon_config_clone(nullptr, &copy);
  EXPECT_EQ(nullptr, copy);
  EXPECT_EQ(Texts{"Could not create copy for quillon_config "}, log.records());
}

TEST(ConfigSecrets, ThePassPhraseIsNeverLogged) {
  const ConfigPtr config = make_config();
  const QuillonLogCapture log(WB_LOG_TRACE);
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_client_cert_key_password(config.get(), "s3cret-phrase"));
  quillon_config *copy = nullptr;
  quillon_config_clone(config.get(), &copy);
  quillon_config_destroy(copy);
  EXPECT_GT(log.count("->: "), 5u);
  EXPECT_FALSE(log.contains("s3cret-phrase")) << log.all();
}

#if QLK_HAS_OOM
TEST(ConfigClone, NeverForgetsRevocations) {
  const ConfigPtr config = make_config();
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_crl(config.get(), "revoked.pem"));
  const auto clone = [&] {
    quillon_config *copy = nullptr;
    quillon_config_clone(config.get(), &copy);
    const ConfigPtr owned(copy);
    return copy == nullptr || text_of(copy->crl_filename) == "revoked.pem";
  };
  const long total = oom::count(clone);
  for (long nth = 1; nth <= total; ++nth) {
    const oom::FailNth failing(nth);
    EXPECT_TRUE(clone()) << nth;
  }
}

TEST(ConfigSecrets, ThePassPhraseIsWipedBeforeItIsFreed) {
  const std::string pass_phrase(4000, 'p');
  for (const bool is_replaced : {true, false}) {
    ConfigPtr config = make_config();
    ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_client_cert_key_password(config.get(), pass_phrase.c_str()));
    bool wiped = false;
    oom::on_free(
        config->client_cert_key_password->buffer,
        [](const void *memory, void *result) {
          *static_cast<bool *>(result) = std::string(static_cast<const char *>(memory), 4000) == std::string(4000, '\0');
        },
        &wiped);
    if (is_replaced) {
      ASSERT_EQ(QUILLON_STATUS_OK, quillon_config_set_client_cert_key_password(config.get(), "another"));
    } else {
      config.reset();
    }
    EXPECT_TRUE(wiped) << is_replaced;
  }
}
#endif

}  // namespace
