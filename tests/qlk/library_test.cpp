#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "owners.h"
#include "quillon_grid.h"
#include "quillon_lib.h"
#include "quillon_log_capture.h"
#include "quillon_sasl_mech_external.h"

namespace {

using test_support::QuillonLogCapture;

class LibraryTest : public testing::Test {
 protected:
  void SetUp() override { quillon_shutdown(); }
  void TearDown() override { quillon_shutdown(); }
};

TEST_F(LibraryTest, InitBuildsOneObjectAndShutdownTakesItApart) {
  const QuillonLogCapture log(WB_LOG_TRACE);
  ASSERT_EQ(QUILLON_STATUS_OK, quillon_init());
  EXPECT_EQ(1u, log.count_exact("quillon library has been initialized successfully"));
  const _quillon_lib_obj *lib = qlk::g_Qln_Lib;
  ASSERT_NE(nullptr, lib);
  EXPECT_TRUE(qlk::bLibInitialize);
  EXPECT_EQ(5u, wb_htable_get_count(lib->wb_base_config));
  EXPECT_EQ(lib->eventBase, wb_htable_get(lib->wb_base_config, "SELECTOR"));
  EXPECT_STREQ(GRID_DOMAIN, static_cast<const char *>(wb_htable_get(lib->wb_base_config, "domain")));
  EXPECT_STREQ("0", static_cast<const char *>(wb_htable_get(lib->wb_base_config, "client_reconnect_countdown")));

  EXPECT_EQ(QUILLON_STATUS_OK, quillon_init());
  EXPECT_EQ(1u, log.count_exact("quillon library is already initialized"));
  EXPECT_EQ(lib, qlk::g_Qln_Lib);

  quillon_shutdown();
  EXPECT_EQ(nullptr, qlk::g_Qln_Lib);
  EXPECT_FALSE(qlk::bLibInitialize);
  EXPECT_EQ(1u, log.count_exact("quillon library has been uninitialized"));
  quillon_shutdown();
  EXPECT_EQ(1u, log.count_exact("quillon library is already uninitialized"));
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_init());
  EXPECT_EQ(2u, log.count_exact("quillon library has been initialized successfully"));
}

TEST_F(LibraryTest, ManyThreadsBuildOneObject) {
  const QuillonLogCapture log(WB_LOG_TRACE);
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) threads.emplace_back([] { EXPECT_EQ(QUILLON_STATUS_OK, quillon_init()); });
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(1u, log.count_exact("quillon library has been initialized successfully"));
  EXPECT_EQ(7u, log.count_exact("quillon library is already initialized"));
}

// Logs, and shuts the library down in the midst of the creation of a connection.
int log_and_shut_down(FILE *, const char *format, va_list args) __attribute__((format(printf, 2, 0)));

int log_and_shut_down(FILE *, const char *format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  const bool is_time =
      format == std::string_view("->: %s") && va_arg(copy, const char *) == std::string_view("quillon_query_create");
  va_end(copy);
  if (is_time) quillon_shutdown();
  return test_support::LogCapture::receive(format, args);
}

TEST_F(LibraryTest, AShutdownLeavesWhatAConnectionIsMadeOf) {
  const QuillonLogCapture log(WB_LOG_TRACE);
  wb_log_set_function(log_and_shut_down);
  quillon_connection *connection = nullptr;
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_create(&connection));
  EXPECT_EQ(1u, log.count_exact("quillon library has been uninitialized"));
  EXPECT_EQ(nullptr, qlk::g_Qln_Lib);
  EXPECT_EQ(QUILLON_STATUS_OK, quillon_connection_destroy(connection));
}

// ---- SASL EXTERNAL, through the table of functions that a client would call

struct Completion {
  int calls = 0;
  bool has_output = false;
  std::string output;
  bool needs_base64 = false, done = true;
  wb_sasl_error error = WB_SASL_ERR_USER;
} completion;

void complete(wb_sasl_mech_instance *, uint8_t *out, size_t length, bool needs_base64, bool done, wb_sasl_error error) {
  ++completion.calls;
  completion.has_output = out != nullptr;
  if (out != nullptr) completion.output.assign(reinterpret_cast<char *>(out), length);
  wb_data_free(out);
  completion.needs_base64 = needs_base64;
  completion.done = done;
  completion.error = error;
}

TEST(SaslExternal, RefusesToBeginWithoutATable) {
  const QuillonLogCapture log;
  wb_err err = {};
  EXPECT_FALSE(qlk::_quillon_sasl_external_init(nullptr, nullptr, &err));
  EXPECT_EQ(WB_ERR_INVALID_ARG, err.code);
  EXPECT_STREQ(wb_err_message(WB_ERR_INVALID_ARG), err.message);
  EXPECT_STREQ("_quillon_sasl_external_init", err.function);
  EXPECT_STREQ("quillon_sasl_mech_external", err.file);
  EXPECT_EQ(27u, err.line);
  EXPECT_EQ(1u, log.count_exact("config cannot be NULL"));
}

TEST(SaslExternal, GivesUpWithoutAUserName) {
  const QuillonLogCapture log;
  completion = {};
  EXPECT_TRUE(qlk::_quillon_sasl_external_evaluate_start(nullptr, nullptr, 0, complete, nullptr));
  EXPECT_EQ(1, completion.calls);
  EXPECT_FALSE(completion.has_output);
  EXPECT_EQ(WB_SASL_ERR_ABORTED, completion.error);
  EXPECT_TRUE(log.contains("no user name is set"));
}

// ---- At the end of the process, in a process of its own

// Runs the function in a child, which finds the library down, and returns the status that the child ends with; 0 is a clean end.
template <typename Function>
int run_in_child(Function &&function) {
  quillon_shutdown();
  const pid_t child = fork();
  if (child == 0) {
    function();
    std::exit(0);  // runs what is registered with atexit
  }
  int status = -1;
  waitpid(child, &status, 0);
  return status;
}

TEST(LibraryExit, ShutsDownByItself) {
  EXPECT_EQ(0, run_in_child([] { std::_Exit(quillon_init() == QUILLON_STATUS_OK ? 0 : 1); }));
  EXPECT_EQ(0, run_in_child([] { quillon_init(); }));
}

// OpenSSL must not clean up while the loop may still be using it.
TEST(LibraryExit, ShutsDownBeforeOpenSsl) {
  constexpr int kInOrder = 3;
  const int status = run_in_child([] {
    if (quillon_init() != QUILLON_STATUS_OK) std::_Exit(1);
    OPENSSL_init_ssl(0, nullptr);  // as the first session does, which then lets us know
    qlk::shut_down_before_openssl();
    OPENSSL_atexit([] { std::_Exit(qlk::bLibInitialize ? 2 : kInOrder); });
  });
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(kInOrder, WEXITSTATUS(status));
}

TEST(LibraryExit, LetsAConnectionOutliveIt) {
  EXPECT_EQ(0, run_in_child([] {
              quillon_connection *connection = nullptr;
              if (quillon_connection_create(&connection) != QUILLON_STATUS_OK) std::_Exit(1);
              quillon_shutdown();
              if (quillon_connection_connect(connection) != QUILLON_STATUS_CONNECTION_ERROR) std::_Exit(2);
              quillon_connection_destroy(connection);
            }));
}

}  // namespace
