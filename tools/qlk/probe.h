// A look at one host of the grid, as far as one can see without authenticating: a session of the same user that is up elsewhere
// is not disturbed.
#pragma once

#include <openssl/ssl.h>

#include <functional>
#include <string>

#include "certificates.h"
#include "options.h"

namespace tool {

struct Probe {
  std::string address;                // that answered; empty: none
  std::string tls;                    // version and cipher; empty: there was no handshake
  Certificate peer;                   // the server's
  long verification = 0;              // what the check of its chain said: X509_V_OK, or a fault
  bool bears_name = false;            // it is made out for the grid's domain or for the host
  bool is_of_another_domain = false;  // it does not serve the one that this program was built for
  bool accepts_user = false;
  std::string complaint;  // why it went no further; empty when it went all the way
};

// Connects, asks for TLS, and shows our certificate and name once the server has proved who it is. Each step may take the
// time-out of the settings. Throws Stopped at the end's request. on_address is called once an address has answered, before the
// rest is looked at.
Probe probe_host(const std::string &host, const Settings &settings, const Stop &stop,
                 const std::function<void(const std::string &address)> &on_address);

}  // namespace tool
