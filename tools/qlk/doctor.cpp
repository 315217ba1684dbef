#include "doctor.h"

#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

#include "certificates.h"
#include "probe.h"
#include "terminal.h"
#include "text.h"

namespace tool {

namespace {

constexpr int kSoonDays = 30;
constexpr size_t kTextColumn = 21;

enum class Mark { ok, warning, fault, skipped };

// Prints what was found, and counts the faults.
class Report {
 public:
  void ok(const std::string &title, const std::string &text) { print(Mark::ok, title, text, ""); }
  void warn(const std::string &title, const std::string &text, const std::string &mend) {
    print(Mark::warning, title, text, mend);
  }
  void fault(const std::string &title, const std::string &text, const std::string &mend) {
    ++faults_;
    print(Mark::fault, title, text, mend);
  }
  // What cannot be judged because of a fault that was found before, and is no fault of its own.
  void skip(const std::string &title, const std::string &text) { print(Mark::skipped, title, "not looked at: " + text, ""); }
  unsigned faults() const { return faults_; }

 private:
  static void print(Mark mark, std::string title, const std::string &text, const std::string &mend) {
    title.resize(kTextColumn - 7, ' ');
    struct Shown {
      const char *word;
      Style style;
    };
    static constexpr Shown kShown[] = {
        {"ok     ", Style::good}, {"note   ", Style::warning}, {"FAULT  ", Style::bad}, {"-      ", Style::faint}};
    const auto &[word, style] = kShown[static_cast<size_t>(mark)];
    print_line(paint(stdout, style, word) + paint(stdout, Style::strong, title) + folded(text));
    if (!mend.empty()) print_line(std::string(kTextColumn, ' ') + folded("Mend: " + mend));
    flush_output();
  }

  static std::string folded(const std::string &text) {
    const size_t width = std::max(terminal_width(stdout), kTextColumn + 20);
    return wrapped(printable(text), kTextColumn, kTextColumn, width);
  }

  unsigned faults_ = 0;
};

std::string names_or_nobody(const std::vector<std::string> &names) { return names.empty() ? "nobody" : joined(names); }

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

bool is_readable(const std::string &path, std::string &why) {
  std::ifstream file(path);
  why = file ? "" : std::strerror(errno);
  return !!file;
}

class Doctor {
 public:
  Doctor(const Context &context, Stop &stop) : context_(context), stop_(stop) {}

  ExitCode run() {
    settings_ = merge_settings(context_.connection);
    look_at_profile();
    const Profile &values = settings_.values;
    if (!values.certificate.empty()) look_at_certificate();
    if (!values.key.empty()) look_at_key();
    if (!values.crl.empty()) look_at_revocations();
    has_own_faults_ = report_.faults() > 0;
    if (!values.ca.empty()) look_at_authorities();
    for (const std::string &host : values.hosts) look_at_host(host);
    const unsigned faults = report_.faults();
    if (faults == 0) {
      print_line(paint(stdout, Style::good, "All is well.") + " 'qlk connect' tells whether the grid lets you in.");
      return ExitCode::done;
    }
    print_line(paint(stdout, Style::bad, faults == 1 ? "One fault to mend." : std::to_string(faults) + " faults to mend."));
    return ExitCode::faults_found;
  }

 private:
  std::string enroll() const { return "enroll again; on a local grid: quillon-grid enroll " + settings_.values.user; }

  void look_at_profile() {
    const std::string missing = missing_settings(settings_.values, Needs::user_and_hosts);
    const std::string from = settings_.profile_path.empty() ? "no profile, options only" : settings_.profile_path;
    if (missing.empty()) return report_.ok("profile", from);
    report_.fault("profile", from + "; missing: " + missing,
                  "add it there, or give it as an option; 'quillon-grid enroll USER' writes a whole profile");
  }

  void look_at_certificate() {
    const std::string &path = settings_.values.certificate;
    std::string why;
    if (!is_readable(path, why)) return report_.fault("certificate", path + " cannot be read: " + why, enroll());
    certificates_ = load_certificates(path);
    if (certificates_.empty()) {
      return report_.fault("certificate", "there is no certificate in " + path, "it must be a PEM file; " + enroll());
    }
    const X509 *own = certificates_.front().get();
    report_.ok("certificate", name_of(X509_get_subject_name(own)) + ", vouched for by " + name_of(X509_get_issuer_name(own)));
    look_at_validity("validity", own, enroll());
    look_at_user(own);
    look_at_chain();
  }

  void look_at_validity(const char *title, const X509 *certificate, const std::string &mend) {
    const int days = days_left(certificate);
    if (is_not_valid_yet(certificate)) {
      return report_.fault(title, "it is valid only from " + first_day(certificate) + " on", "is this machine's clock right?");
    }
    if (is_expired(certificate)) return report_.fault(title, "it expired on " + last_day(certificate), mend);
    const std::string text =
        "until " + last_day(certificate) + ", " + std::to_string(days) + (days == 1 ? " day" : " days") + " left";
    days < kSoonDays ? report_.warn(title, text, mend) : report_.ok(title, text);
  }

  void look_at_user(const X509 *own) {
    const std::string wanted = lower(settings_.values.user) + "@" QLK_GRID_DOMAIN;
    std::vector<std::string> addresses = user_addresses(own);
    for (std::string &address : addresses) address = lower(address);
    if (std::find(addresses.begin(), addresses.end(), wanted) != addresses.end()) return report_.ok("user", wanted);
    report_.fault("user", "the certificate is made out for " + names_or_nobody(addresses) + ", not for " + wanted,
                  "set the user that it is for, or take the certificate of this user");
  }

  void look_at_chain() {
    for (size_t i = 1; i < certificates_.size(); ++i) {
      if (X509_check_issued(certificates_[i].get(), certificates_[i - 1].get()) != X509_V_OK) {
        return report_.fault(
            "chain", "certificate " + std::to_string(i + 1) + " of the file did not issue certificate " + std::to_string(i),
            "the file holds the user's certificate first, then its issuer, then the issuer's");
      }
      if (is_expired(certificates_[i].get())) {
        return report_.fault("chain", "certificate " + std::to_string(i + 1) + " of the file has expired",
                             "get the issuer's new one");
      }
    }
    const size_t count = certificates_.size();
    report_.ok("chain", count == 1 ? "the certificate alone" : std::to_string(count) + " certificates, each issued by the next");
  }

  void look_at_key() {
    const std::string &path = settings_.values.key;
    std::string why;
    if (!is_readable(path, why)) return report_.fault("key", path + " cannot be read: " + why, enroll());
    struct stat status = {};
    if (stat(path.c_str(), &status) == 0 && (status.st_mode & 077) != 0) {
      report_.warn("key", "others may read " + path, "chmod 600 " + path);
    }
    const bool is_encrypted = is_encrypted_key(path);
    if (is_encrypted) {
      try {
        obtain_passphrase(context_.connection, stop_, settings_);
      } catch (const Failure &failure) {
        return report_.fault("key", failure.what(), "--passphrase-fd N, or passphrase_file in the profile");
      }
    }
    const Key key = load_key(path, settings_.passphrase);
    if (key == nullptr) {
      return is_encrypted ? report_.fault("key", "the pass phrase does not open " + path, "give the right one")
                          : report_.fault("key", "there is no private key in " + path, "it must be a PEM file; " + enroll());
    }
    if (!certificates_.empty() && X509_check_private_key(certificates_.front().get(), key.get()) != 1) {
      return report_.fault("key", "it does not belong to the certificate",
                           "take the key that the certificate was made for; " + enroll());
    }
    if (certificates_.empty()) return report_.skip("key", "there is no certificate that it could belong to");
    report_.ok("key",
               is_encrypted ? "opened by its pass phrase; it belongs to the certificate" : "it belongs to the certificate");
  }

  void look_at_authorities() {
    const std::string &path = settings_.values.ca;
    std::string why;
    if (!is_readable(path, why)) return report_.fault("authorities", path + " cannot be read: " + why, "name the right file: ca");
    const std::vector<Certificate> authorities = load_certificates(path);
    has_authorities_ = !authorities.empty();
    if (authorities.empty()) {
      return report_.fault("authorities", "there is no certificate in " + path, "it must be a PEM file of CA certificates");
    }
    const unsigned before = report_.faults();
    for (const Certificate &authority : authorities) {
      const std::string name = name_of(X509_get_subject_name(authority.get()));
      if (is_expired(authority.get()))
        report_.fault("authorities", name + " expired on " + last_day(authority.get()), "get its new certificate");
      if (X509_check_ca(authority.get()) == 0)
        report_.fault("authorities", name + " is no authority", "take the CA's own certificate");
    }
    if (report_.faults() > before) return;
    const size_t count = authorities.size();
    report_.ok("authorities",
               count == 1 ? name_of(X509_get_subject_name(authorities.front().get())) : std::to_string(count) + " certificates");
  }

  void look_at_revocations() {
    const std::string &path = settings_.values.crl;
    const std::string mend = "get the authorities' new lists";
    const std::vector<Revocations> lists = load_revocations(path);
    if (lists.empty()) return report_.fault("revocations", "there is no list of revoked certificates in " + path, mend);
    for (const Revocations &list : lists) {
      const ASN1_TIME *next = X509_CRL_get0_nextUpdate(list.get());
      if (next != nullptr && X509_cmp_current_time(next) < 0)
        return report_.fault("revocations", "the list of " + name_of(X509_CRL_get_issuer(list.get())) + " is too old", mend);
    }
    if (!certificates_.empty() && is_revoked(lists, certificates_.front().get()))
      return report_.fault("revocations", "the certificate is revoked", enroll());
    report_.ok("revocations", lists.size() == 1 ? "the list of " + name_of(X509_CRL_get_issuer(lists.front().get()))
                                                : std::to_string(lists.size()) + " lists");
  }

  void look_at_host(const std::string &host) {
    const Probe probe = probe_host(host, settings_, stop_, [&](const std::string &address) {
      report_.ok("host", host == address ? host : host + " is " + address);
    });
    if (probe.address.empty()) {
      return report_.fault("host", (probe.complaint.starts_with(host) ? "" : host + ": ") + probe.complaint,
                           "is the grid up, and is this its address? A local grid tells: quillon-grid status");
    }
    if (probe.tls.empty()) {
      return report_.fault(
          "  TLS", probe.complaint,
          probe.is_of_another_domain
              ? "a local grid is of this domain after, in a new folder: quillon-grid up --domain " QLK_GRID_DOMAIN
                "; for a grid of another one, libqlk and qlk are built with its name (QLK_GRID_DOMAIN)"
              : "the port must be the one for XMPP clients");
    }
    report_.ok("  TLS", probe.tls);
    if (probe.peer != nullptr) look_at_server(probe);
  }

  void look_at_server(const Probe &probe) {
    const X509 *peer = probe.peer.get();
    const std::string name = name_of(X509_get_subject_name(peer));
    if (!has_authorities_) return report_.skip("  server", "without authorities nobody vouches for it");
    const std::string mend = "the server's administrator renews it; on a local grid: quillon-grid server-certificate";
    if (is_expired(peer) || is_not_valid_yet(peer)) return look_at_validity("  server", peer, mend);
    if (probe.verification == X509_V_ERR_CERT_REVOKED)
      return report_.fault("  server", name + ": its certificate is revoked", mend);
    if (probe.verification == X509_V_ERR_UNABLE_TO_GET_CRL) {
      return report_.fault("  server", name + ": crl has no list of its authority", "crl must hold one of each authority in use");
    }
    if (probe.verification != X509_V_OK) {
      return report_.fault(
          "  server", name + ": no authority in ca vouches for it (" + X509_verify_cert_error_string(probe.verification) + ")",
          "ca must hold the certificate of " + name_of(X509_get_issuer_name(peer)));
    }
    if (!probe.bears_name) {
      return report_.fault(
          "  server", "its certificate is made out for " + names_or_nobody(server_names(peer)) + ", not for " QLK_GRID_DOMAIN,
          "is this a server of the grid? If it is, " + mend);
    }
    report_.ok("  server", name + ", until " + last_day(peer));
    if (probe.accepts_user) return report_.ok("  accepts you", "by your certificate (SASL EXTERNAL)");
    if (has_own_faults_) return report_.skip("  accepts you", "mend what is yours first");
    report_.fault("  accepts you", probe.complaint,
                  "the certificate must be the user's, and its authority one that the server trusts; " + enroll());
  }

  const Context &context_;
  Stop &stop_;
  Report report_;
  Settings settings_;
  std::vector<Certificate> certificates_;
  bool has_own_faults_ = false, has_authorities_ = false;
};

}  // namespace

void add_doctor_command(CommandLine &line, Context &context) {
  add_command(line, context, "doctor",
              "Looks at certificate, key, chain, expiry, names and hosts one by one, says what is wrong and how to mend it. It "
              "does not join the grid",
              "  qlk doctor\n"
              "  qlk doctor --host 192.0.2.1:5222 --timeout 3",
              [&context](Stop &stop) { return Doctor(context, stop).run(); });
}

}  // namespace tool
