#include "store.h"

#include <sqlite3.h>
#include <warbler/log.h>

#include <memory>

namespace controller {

namespace {

// active tells that the client announced it in its present session; dynamic, that it did so in the dynamic form at least once.
// sessions holds whom to ask whether they are still there when the controller was away. allowed is 0 where an administrator
// forbade what is otherwise open. A token is kept as its hash only.
constexpr char kSchema[] = R"(
PRAGMA journal_mode = WAL;
PRAGMA synchronous = NORMAL;
CREATE TABLE IF NOT EXISTS accounts (user TEXT PRIMARY KEY, state TEXT NOT NULL, groups TEXT NOT NULL, description TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS capabilities (name TEXT PRIMARY KEY, version TEXT NOT NULL, description TEXT NOT NULL,
  vendor_platform TEXT NOT NULL, is_defined INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS methods (capability TEXT NOT NULL, position INTEGER NOT NULL, name TEXT NOT NULL, permissions TEXT NOT NULL,
  PRIMARY KEY (capability, position));
CREATE TABLE IF NOT EXISTS publications (jid TEXT NOT NULL, user TEXT NOT NULL, capability TEXT NOT NULL, dynamic INTEGER NOT NULL,
  active INTEGER NOT NULL, PRIMARY KEY (jid, capability));
CREATE TABLE IF NOT EXISTS subscriptions (jid TEXT NOT NULL, user TEXT NOT NULL, capability TEXT NOT NULL, dynamic INTEGER NOT NULL,
  active INTEGER NOT NULL, PRIMARY KEY (jid, capability));
CREATE TABLE IF NOT EXISTS rights (user TEXT NOT NULL, capability TEXT NOT NULL, operation TEXT NOT NULL, allowed INTEGER NOT NULL,
  PRIMARY KEY (user, capability, operation));
CREATE TABLE IF NOT EXISTS sessions (jid TEXT PRIMARY KEY);
CREATE TABLE IF NOT EXISTS tokens (hash TEXT PRIMARY KEY, user TEXT NOT NULL);
INSERT OR IGNORE INTO capabilities VALUES ('CoreCapability', '1.0', 'Tells of changes to the registered capabilities', '', 1);
)";

struct FinishStatement {
  void operator()(sqlite3_stmt *statement) const { sqlite3_finalize(statement); }
};

[[noreturn]] void fail(sqlite3 *database, const char *what) {
  throw StoreError(std::string(what) + ": " + sqlite3_errmsg(database));
}

}  // namespace

Store::Store(const std::string &path) {
  const bool opened = sqlite3_open(path.c_str(), &database_) == SQLITE_OK;
  if (opened) sqlite3_busy_timeout(database_, 5000);
  if (opened && sqlite3_exec(database_, kSchema, nullptr, nullptr, nullptr) == SQLITE_OK) return;
  const std::string reason = path + ": " + sqlite3_errmsg(database_);
  sqlite3_close(database_);
  throw StoreError(reason);
}

Store::~Store() { sqlite3_close(database_); }

std::vector<Store::Row> Store::rows(const char *sql, const std::vector<std::string> &values) {
  sqlite3_stmt *prepared = nullptr;
  if (sqlite3_prepare_v2(database_, sql, -1, &prepared, nullptr) != SQLITE_OK) fail(database_, sql);
  const std::unique_ptr<sqlite3_stmt, FinishStatement> statement(prepared);
  for (size_t i = 0; i < values.size(); ++i) {
    const auto length = static_cast<int>(values[i].size());
    if (sqlite3_bind_text(prepared, static_cast<int>(i + 1), values[i].data(), length, SQLITE_STATIC) != SQLITE_OK)
      fail(database_, sql);
  }
  std::vector<Row> result;
  int step;
  while ((step = sqlite3_step(prepared)) == SQLITE_ROW) {
    Row &row = result.emplace_back();
    for (int column = 0; column < sqlite3_column_count(prepared); ++column) {
      const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(prepared, column));
      row.emplace_back(text != nullptr ? text : "");
    }
  }
  if (step != SQLITE_DONE) fail(database_, sql);
  return result;
}

std::optional<std::string> Store::value(const char *sql, const std::vector<std::string> &values) {
  const auto found = rows(sql, values);
  if (found.empty() || found[0].empty()) return std::nullopt;
  return found[0][0];
}

int Store::changes() const { return sqlite3_changes(database_); }

void Store::Transaction::commit() {
  store_.run("COMMIT");
  is_open_ = false;
}

Store::Transaction::~Transaction() {
  if (!is_open_) return;
  try {
    store_.run("ROLLBACK");
  } catch (const StoreError &error) {
    wb_log(WB_LOG_ERROR, "%s", error.what());
  }
}

}  // namespace controller
