#include "live_credentials.h"

#include <openssl/err.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <ctime>

#include "guard.h"
#include "owners.h"
#include "quillon_config.h"
#include "quillon_string.h"

namespace {

constexpr int64_t kDay = 24 * 60 * 60;

bool is_same(const timespec &one, const timespec &other) { return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec; }

bool is_same(const qlk::CredentialVersion::File &one, const qlk::CredentialVersion::File &other) {
  return one.name == other.name && one.device == other.device && one.number == other.number && one.size == other.size &&
         is_same(one.modified, other.modified) && is_same(one.changed, other.changed);
}

bool is_same(const qlk::CredentialVersion &one, const qlk::CredentialVersion &other) {
  const auto same = [](const auto &a, const auto &b) { return is_same(a, b); };
  return one.passphrase == other.passphrase && std::equal(one.files.begin(), one.files.end(), other.files.begin(), same);
}

// A file that is not there has a version too.
qlk::CredentialVersion::File file_version(const std::string &name) {
  struct stat found = {};
  if (name.empty() || stat(name.c_str(), &found) != 0) return {.name = name};
  return {.name = name,
          .device = found.st_dev,
          .number = found.st_ino,
          .size = found.st_size,
          .modified = found.st_mtim,
          .changed = found.st_ctim};
}

bool is_about_to_expire(int64_t expires, int warning_days) {
  return warning_days > 0 && expires - static_cast<int64_t>(time(nullptr)) < warning_days * kDay;
}

void warn_of_expiry(const qlk::CredentialSet &set) {
  const time_t expires = static_cast<time_t>(set.expires());
  tm parts = {};
  char day[16] = "";
  if (gmtime_r(&expires, &parts) != nullptr) strftime(day, sizeof day, "%Y-%m-%d", &parts);
  wb_log(WB_LOG_WARN, "the client's certificate expires on %s: %s", day, set.subject().c_str());
}

template <size_t size>
void copy_text(char (&to)[size], const std::string &from) {
  const size_t length = std::min(from.size(), size - 1);
  std::memcpy(to, from.data(), length);
  to[length] = '\0';
}

void copy_within_settings(const quillon_config &config, qlk::CredentialFiles &files) {
  files.certificate = qlk::text_of(config.client_cert_chain_filename);
  files.key = qlk::text_of(config.client_cert_key_filename);
  files.passphrase = qlk::text_of(config.client_cert_key_password);
  files.ca = qlk::text_of(config.server_cert_chain_filename);
  files.bulk_ca = qlk::text_of(config.bulk_server_cert_chain_filename);
  files.crl = qlk::text_of(config.crl_filename);
}

constexpr char kInvalidConfig[] = "Invalid config object";

}  // namespace

namespace qlk {

// The versions are noted before the files are read: one that is replaced meanwhile counts as changed the next time.
void LiveCredentials::copy_settings(const quillon_config &config, CredentialFiles &files, CredentialVersion &version) {
  {
    const Settings settings(this);
    copy_within_settings(config, files);
    version.passphrase = passphrases_;
  }
  const std::string *const names[] = {&files.certificate, &files.key, &files.ca, &files.bulk_ca, &files.crl};
  std::transform(std::begin(names), std::end(names), version.files.begin(),
                 [](const std::string *name) { return file_version(*name); });
}

QUILLON_STATUS LiveCredentials::load(const quillon_config &config) {
  CredentialFiles files;
  CredentialVersion version;
  copy_settings(config, files, version);
  has_version_ = false;
  CredentialFault fault;
  std::shared_ptr<const CredentialSet> set = CredentialSet::load(files, fault);
  version_ = std::move(version);
  has_version_ = !fault.is_of_time;
  if (set == nullptr) {
    wb_log(WB_LOG_ERROR, "the new credentials are refused, and the ones before stay in force: %s", fault.text.c_str());
  } else {
    wb_log(WB_LOG_INFO, "new credentials are in force: %s", set->subject().c_str());
  }
  const std::lock_guard lock(mutex_);
  if (set != nullptr) {
    in_force_.swap(set);
    ++sets_;
    warned_ = 0;
  }
  last_ = std::move(fault);
  return last_.status;
}

// Once a set, and then once a day.
std::shared_ptr<const CredentialSet> LiveCredentials::take(int warning_days) {
  std::shared_ptr<const CredentialSet> set;
  {
    const std::lock_guard lock(mutex_);
    set = in_force_;
    const time_t now = time(nullptr);
    if (set == nullptr || now - warned_ < kDay || !is_about_to_expire(set->expires(), warning_days)) return set;
    warned_ = now;
  }
  warn_of_expiry(*set);
  return set;
}

QUILLON_STATUS LiveCredentials::reload(const quillon_config &config) {
  const std::lock_guard one_at_a_time(loading_);
  const QUILLON_STATUS status = load(config);
  take(config.expiry_warning_days);
  return status;
}

bool LiveCredentials::has_changed(const quillon_config &config) {
  CredentialFiles files;
  CredentialVersion version;
  copy_settings(config, files, version);
  return !has_version_ || !is_same(version, version_);
}

// Who is not live waits for nobody: a reload on another thread may hang in a file.
std::shared_ptr<const CredentialSet> LiveCredentials::current(const quillon_config &config) {
  guarded(__func__, [&] {
    if (!is_live()) return QUILLON_STATUS_OK;
    const std::lock_guard one_at_a_time(loading_);
    return has_changed(config) ? load(config) : QUILLON_STATUS_OK;
  });
  return take(config.expiry_warning_days);
}

void LiveCredentials::set_live(bool is_live) {
  const Settings settings(this);
  is_live_ = is_live;
}

bool LiveCredentials::is_live() {
  const Settings settings(this);
  return is_live_;
}

void LiveCredentials::begin_as(LiveCredentials &other) {
  is_live_ = other.is_live();
  const std::lock_guard lock(other.mutex_);
  in_force_ = other.in_force_;
  sets_ = other.sets_;
  warned_ = other.warned_;
  guarded(__func__, [&] {
    last_ = other.last_;
    return QUILLON_STATUS_OK;
  });
}

void LiveCredentials::tell(quillon_credentials_info &info, int warning_days) {
  const std::lock_guard lock(mutex_);
  info.sets = sets_;
  info.last_status = last_.status;
  copy_text(info.failure, last_.text);
  if (in_force_ == nullptr) return;
  info.expires = in_force_->expires();
  info.is_about_to_expire = is_about_to_expire(info.expires, warning_days);
  copy_text(info.subject, in_force_->subject());
}

void copy_files(const quillon_config &config, CredentialFiles &files) {
  const LiveCredentials::Settings settings(config.live);
  copy_within_settings(config, files);
}

}  // namespace qlk

QUILLON_STATUS quillon_config_reload_credentials(quillon_config *config) {
  qlk::trace(__func__);
  if (config == nullptr || config->live == nullptr) return qlk::refuse(kInvalidConfig);
  return qlk::guarded(__func__, [&] { return config->live->reload(*config); });
}

QUILLON_STATUS quillon_config_set_live_credentials(quillon_config *config, bool is_live) {
  qlk::trace(__func__);
  if (config == nullptr || config->live == nullptr) return qlk::refuse(kInvalidConfig);
  config->live->set_live(is_live);
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS quillon_config_set_expiry_warning_days(quillon_config *config, int days) {
  qlk::trace(__func__);
  if (config == nullptr || days < 0) return QUILLON_STATUS_INVALID_ARGS;
  config->expiry_warning_days = days;
  return QUILLON_STATUS_OK;
}

QUILLON_STATUS quillon_config_get_credentials_info(const quillon_config *config, quillon_credentials_info *info) {
  qlk::trace(__func__);
  if (config == nullptr || config->live == nullptr) return qlk::refuse(kInvalidConfig);
  if (info == nullptr) return qlk::refuse("info is null");
  constexpr size_t kFirstVersion = offsetof(quillon_credentials_info, failure) + sizeof(quillon_credentials_info::failure);
  if (info->size < kFirstVersion) return qlk::refuse("the size of the info is not set");
  quillon_credentials_info told = {};
  told.size = std::min(info->size, sizeof told);
  config->live->tell(told, config->expiry_warning_days);
  std::memset(info, 0, info->size);
  std::memcpy(info, &told, told.size);
  return QUILLON_STATUS_OK;
}
