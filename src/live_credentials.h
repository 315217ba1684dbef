// The credentials that a configuration has in force, and when they are read again.
#pragma once

#include <sys/stat.h>

#include <array>
#include <memory>
#include <mutex>

#include "credential_set.h"

namespace qlk {

// What tells one version of the files and the pass phrase from another.
struct CredentialVersion {
  struct File {
    std::string name;
    dev_t device = 0;
    ino_t number = 0;
    off_t size = 0;
    timespec modified = {}, changed = {};
  };
  std::array<File, 5> files;
  unsigned passphrase = 0;
};

// Any thread.
class LiveCredentials {
 public:
  // While it lives, the file names and the pass phrase of the configuration do not change.
  class Settings {
   public:
    explicit Settings(LiveCredentials *live)
        : lock_(live != nullptr ? std::unique_lock(live->settings_) : std::unique_lock<std::mutex>()) {}

   private:
    const std::unique_lock<std::mutex> lock_;
  };

  // Reads the set whatever version it is.
  QUILLON_STATUS reload(const quillon_config &config);
  // The set to use now, read again if the files have changed and that is wanted; null when none is in force. Throws nothing.
  std::shared_ptr<const CredentialSet> current(const quillon_config &config);
  void tell(quillon_credentials_info &info, int warning_days);
  // Begins as the other one is now; for one that is not shared yet.
  void begin_as(LiveCredentials &other);

  void set_live(bool is_live);
  bool is_live();
  // Within Settings.
  void note_new_passphrase() { ++passphrases_; }

 private:
  bool has_changed(const quillon_config &config);
  QUILLON_STATUS load(const quillon_config &config);
  std::shared_ptr<const CredentialSet> take(int warning_days);
  void copy_settings(const quillon_config &config, CredentialFiles &files, CredentialVersion &version);

  std::mutex settings_;  // of the configuration, and what follows
  unsigned passphrases_ = 0;
  bool is_live_ = false;
  std::mutex loading_;         // one thread at a time reads files; taken before the other two
  CredentialVersion version_;  // under loading_: that was read last
  bool has_version_ = false;   // under loading_; false too where the same files may be found good later
  std::mutex mutex_;           // guards what follows
  std::shared_ptr<const CredentialSet> in_force_;
  uint32_t sets_ = 0;
  time_t warned_ = 0;  // when its end was last announced
  CredentialFault last_;
};

// The names of the files as they are set now, and the pass phrase.
void copy_files(const quillon_config &config, CredentialFiles &files);

}  // namespace qlk
