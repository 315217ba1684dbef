#include "accounts.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <stdexcept>
#include <string_view>

namespace controller {

namespace {

constexpr size_t kTokenBytes = 32;

std::string hexadecimal(const unsigned char *bytes, size_t count) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (size_t i = 0; i < count; ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 15];
  }
  return text;
}

std::string hash_of(std::string_view text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  if (EVP_Digest(text.data(), text.size(), digest, &length, EVP_sha256(), nullptr) != 1) throw std::runtime_error("no hash");
  return hexadecimal(digest, length);
}

}  // namespace

std::optional<std::string> Accounts::state(const std::string &user) const {
  return store_.value("SELECT state FROM accounts WHERE user = ?", {user});
}

std::string Accounts::admit(const std::string &user, const std::string &groups, const std::string &description) {
  store_.run("INSERT OR IGNORE INTO accounts VALUES (?, ?, '', '')", {user, approves_new_ ? "approved" : "pending"});
  store_.run("UPDATE accounts SET groups = ?, description = ? WHERE user = ?", {groups, description, user});
  const std::string known = state(user).value_or("");
  return known == "approved" || known == "pending" ? known : "denied";
}

void Accounts::set_state(const std::string &user, const std::string &state) {
  store_.run("INSERT INTO accounts VALUES (?1, ?2, '', '') ON CONFLICT (user) DO UPDATE SET state = ?2", {user, state});
}

void Accounts::remove(const std::string &user) {
  Store::Transaction transaction(store_);
  for (const char *sql :
       {"DELETE FROM accounts WHERE user = ?", "DELETE FROM rights WHERE user = ?", "DELETE FROM tokens WHERE user = ?"}) {
    store_.run(sql, {user});
  }
  transaction.commit();
}

std::optional<std::string> Accounts::right(const std::string &user, const std::string &capability,
                                           const std::string &operation) const {
  return store_.value("SELECT allowed FROM rights WHERE user = ? AND capability = ? AND operation = ?",
                      {user, capability, operation});
}

bool Accounts::is_authorized(const std::string &user, const std::string &capability, const std::string &operation) const {
  return is_approved(user) && right(user, capability, operation) == "1";
}

bool Accounts::is_forbidden(const std::string &user, const std::string &capability, const std::string &operation) const {
  return right(user, capability, operation) == "0";
}

void Accounts::set_right(const std::string &user, const std::string &capability, const std::string &operation, bool allowed) {
  store_.run("INSERT OR REPLACE INTO rights VALUES (?, ?, ?, ?)", {user, capability, operation, allowed ? "1" : "0"});
}

std::string Accounts::make_token(const std::string &user) {
  unsigned char bytes[kTokenBytes];
  if (RAND_bytes(bytes, sizeof bytes) != 1) throw std::runtime_error("no random bytes");
  std::string token = hexadecimal(bytes, sizeof bytes);
  store_.run("INSERT INTO tokens VALUES (?, ?)", {hash_of(token), user});
  return token;
}

std::optional<std::string> Accounts::token_owner(const std::string &token) const {
  return store_.value("SELECT user FROM tokens WHERE hash = ?", {hash_of(token)});
}

}  // namespace controller
