// What outlives the controller: an SQLite database. Every value goes in and comes out as text.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

struct sqlite3;

namespace controller {

struct StoreError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class Store {
 public:
  using Row = std::vector<std::string>;

  // Opens the database, which is made when it is not there. Throws StoreError, as every operation here does.
  explicit Store(const std::string &path);
  ~Store();
  Store(const Store &) = delete;
  Store &operator=(const Store &) = delete;

  // Runs one statement; values take the places of its question marks. NULL comes back as an empty text.
  std::vector<Row> rows(const char *sql, const std::vector<std::string> &values = {});
  void run(const char *sql, const std::vector<std::string> &values = {}) { rows(sql, values); }
  // The first column of the first row.
  std::optional<std::string> value(const char *sql, const std::vector<std::string> &values = {});
  // The number of rows that the last statement changed.
  int changes() const;

  // All of what is run while it lives, or none of it when commit was not reached.
  class Transaction {
   public:
    explicit Transaction(Store &store) : store_(store) { store_.run("BEGIN"); }
    ~Transaction();
    Transaction(const Transaction &) = delete;
    Transaction &operator=(const Transaction &) = delete;
    void commit();

   private:
    Store &store_;
    bool is_open_ = true;
  };

 private:
  sqlite3 *database_ = nullptr;
};

}  // namespace controller
